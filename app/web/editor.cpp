#include "editor.hpp"

#include <fcntl.h>
#include <httplib.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "display.hpp"
#include "errors.hpp"
#include "filterkeys.hpp"
#include "imagefile.hpp"
#include "runtime.hpp"

extern char** environ;

namespace bf::web {
namespace {

using cli::CliError;
using nlohmann::json;

constexpr std::size_t kLargestUpload = std::size_t(512) << 20;
constexpr const char* kTokenCookie = "bf_token";

// 32 hex digits from the system's random source.
std::string NewToken() {
    std::random_device device;
    std::string token;
    constexpr char kHex[] = "0123456789abcdef";
    for (int i = 0; i < 4; ++i) {
        uint32_t word = device();
        for (int j = 0; j < 8; ++j, word >>= 4) token += kHex[word & 15];
    }
    return token;
}

// The page's files: next to the program (../web/), or $BITMAPFILTER_WEB.
std::filesystem::path WebFolder() {
    if (const char* chosen = std::getenv("BITMAPFILTER_WEB"); chosen && *chosen) return chosen;
    std::error_code ignored;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", ignored);
    return (program.parent_path() / ".." / "web").lexically_normal();
}

std::optional<std::string> ReadText(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string ContentType(const std::filesystem::path& file) {
    const std::string ext = file.extension().string();
    if (ext == ".html") return "text/html; charset=utf-8";
    if (ext == ".js") return "text/javascript; charset=utf-8";
    if (ext == ".css") return "text/css; charset=utf-8";
    if (ext == ".svg") return "image/svg+xml";
    return "application/octet-stream";
}

// The token from the query, the X-Token header or the cookie the page got.
std::string TokenOf(const httplib::Request& request) {
    if (request.has_param("token")) return request.get_param_value("token");
    if (request.has_header("X-Token")) return request.get_header_value("X-Token");
    const std::string cookies = request.get_header_value("Cookie");
    const std::string key = std::string(kTokenCookie) + "=";
    for (std::size_t at = 0; at < cookies.size();) {
        while (at < cookies.size() && (cookies[at] == ' ' || cookies[at] == ';')) ++at;
        const std::size_t end = std::min(cookies.find(';', at), cookies.size());
        if (cookies.compare(at, key.size(), key) == 0)
            return cookies.substr(at + key.size(), end - at - key.size());
        at = end;
    }
    return {};
}

// Compares without stopping at the first difference.
bool SameToken(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    unsigned char differ = 0;
    for (std::size_t i = 0; i < a.size(); ++i) differ |= (unsigned char)(a[i] ^ b[i]);
    return differ == 0;
}

void SendError(httplib::Response& response, int status, const std::string& message) {
    response.status = status;
    response.set_content(json{{"error", message}}.dump(), "application/json");
}

void SendJson(httplib::Response& response, const json& body) {
    response.set_content(body.dump(), "application/json");
}

void SendRgba(httplib::Response& response, std::string&& pixels, int width, int height) {
    response.set_header("X-Width", std::to_string(width));
    response.set_header("X-Height", std::to_string(height));
    response.set_header("Cache-Control", "no-store");
    response.set_content(std::move(pixels), "application/octet-stream");
}

// The default browser, when the machine has a desktop to show it on.
void OpenBrowser(const std::string& url) {
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) return;
    const char* argv[] = {"xdg-open", url.c_str(), nullptr};
    pid_t child = 0;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    if (posix_spawnp(&child, "xdg-open", &actions, nullptr, const_cast<char**>(argv), environ) != 0)
        std::fprintf(stderr, "bitmapfilter: no browser opened; open the address above\n");
    posix_spawn_file_actions_destroy(&actions);
}

// ---- events for the page ---------------------------------------------------------

// What the page hears without asking (server-sent events): a preview was
// drawn, the image view changed, progress, an application ended. Each has a
// number; a listener gets every event after the last one it saw, and at most
// the newest kKept of them.
class Events {
public:
    static constexpr std::size_t kKept = 256;

    void post(const std::string& name, const json& data) {
        {
            std::lock_guard lock(mutex_);
            ++last_;
            kept_.push_back({last_, "event: " + name + "\ndata: " + data.dump() + "\n\n"});
            if (kept_.size() > kKept) kept_.pop_front();
        }
        changed_.notify_all();
    }

    uint64_t last() {
        std::lock_guard lock(mutex_);
        return last_;
    }

    // The events after `seen`, waiting up to `patience` for one; empty when
    // none came or the server is stopping.
    std::string after(uint64_t& seen, std::chrono::milliseconds patience) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, patience, [&] { return last_ > seen || stopping_; });
        std::string out;
        for (const auto& [number, text] : kept_)
            if (number > seen) out += text;
        seen = last_;
        return out;
    }

    void stop() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
    }
    bool stopping() {
        std::lock_guard lock(mutex_);
        return stopping_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    uint64_t last_ = 0;
    bool stopping_ = false;
    std::deque<std::pair<uint64_t, std::string>> kept_;
};

json GadgetJson(const GadgetInfo& gadget) {
    json item = {
        {"id", gadget.id}, {"name", gadget.name}, {"kind", gadget.kind}, {"label", gadget.label}};
    if (gadget.has_value) {
        const TypedRange range = TypedRangeOf(gadget);
        item["min"] = RoundedTyped(range.min);
        item["max"] = RoundedTyped(range.max);
        item["step"] = RoundedTyped(range.step);
        item["unit"] = Unit(gadget);
        item["value"] = RoundedTyped(TypedValue(gadget, gadget.value));
    }
    if (gadget.kind == "choice") item["choices"] = gadget.choices;
    return item;
}

// ---- the editor's state --------------------------------------------------------

// One document, at most one open dialog on it, at most one application
// running. While either is there, the document does not change otherwise.
class Editor {
    struct OpenDialog;

public:
    explicit Editor(std::unique_ptr<Module> module) : module_(std::move(module)) {}
    ~Editor() {
        close_dialog(false);
        std::thread job;
        {
            std::lock_guard lock(mutex_);
            if (job_control_) job_control_->stop();
            job = std::move(job_);
        }
        if (job.joinable()) job.join();
    }

    Events& events() { return events_; }

    void open_file(const std::filesystem::path& file, const std::string& name) {
        cli::FileOrigin origin;
        Image image;
        try {
            image = cli::ReadImage(file, &origin);
        } catch (const CliError& error) {  // an upload's message names the file as sent
            std::string message = error.what();
            if (const auto at = message.find(file.string()); at != std::string::npos)
                message.replace(at, file.string().size(), name);
            throw CliError(error.status(), message);
        }
        std::lock_guard lock(mutex_);
        check_idle();
        document_ = std::make_unique<Document>(std::move(image));
        origin_ = origin;
        name_ = name;
    }

    json state() {
        std::lock_guard lock(mutex_);
        if (!document_) return {{"image", nullptr}};
        const ImageFormat& f = document_->format();
        return {{"image",
                 {{"name", name_},
                  {"width", f.width},
                  {"height", f.height},
                  {"components", f.components},
                  {"alpha", f.alpha},
                  {"type", ComponentTypeName(f.type)}}},
                {"undo", document_->undo_steps()},
                {"redo", document_->redo_steps()},
                {"busy", applying_},
                {"dialog", dialog_ ? json(dialog_->key->key) : json(nullptr)},
                {"last", last_ ? json(last_->key->key) : json(nullptr)}};
    }

    json filters() const {
        json list = json::array();
        for (const FilterKey& key : kFilterKeys) {
            const Registration* registration = module_->find(key.plugin_id);
            bool available = false;
            if (registration && registration->record)
                available = Settings::Defaults(*registration->record).has_value();
            list.push_back({{"key", key.key},
                            {"name", registration ? registration->name : std::string(key.key)},
                            {"family", FamilyName(key.family)},
                            {"dialog", HasDialog(key)},
                            {"available", available}});
        }
        return list;
    }

    // The document as 8-bit RGBA for the canvas; false without one.
    bool display(std::string& out, int& width, int& height) {
        std::lock_guard lock(mutex_);
        if (!document_) return false;
        const ImageView content = document_->view();
        width = content.format.width;
        height = content.format.height;
        out = DisplayRgba(content);
        return true;
    }

    // ---- dialogs ----

    // Opens the filter's dialog on its last settings (defaults the first
    // time), or applies at once a filter without a dialog.
    json open_dialog(const FilterKey& key) {
        const BitmapFilterDescriptor& record = record_of(key);
        std::lock_guard lock(mutex_);
        check_idle();
        if (!document_) throw std::invalid_argument("no image is open");
        auto dialog = std::make_unique<OpenDialog>();
        dialog->key = &key;
        dialog->record = &record;
        dialog->settings = settings_for(key, record);
        if (!HasDialog(key)) {
            start_apply(std::move(dialog));
            return {{"applying", true}};
        }
        return show(std::move(dialog));
    }

    // "Reset to defaults": the dialog again, on the filter's defaults.
    json reset_dialog() {
        std::lock_guard lock(mutex_);
        if (!dialog_) throw std::logic_error("no dialog is open");
        std::unique_ptr<OpenDialog> dialog = std::move(dialog_);
        dialog->session->cancel();
        dialog->session.reset();
        std::optional<Settings> defaults = Settings::Defaults(*dialog->record);
        if (!defaults) throw std::runtime_error("the filter has no default settings");
        dialog->settings = std::make_unique<Settings>(std::move(*defaults));
        return show(std::move(dialog));
    }

    // Opens the dialog's session (caller holds the mutex).
    json show(std::unique_ptr<OpenDialog> dialog) {
        DialogSession::Options options;
        options.preview_ready = [this](int32_t gadget, const Image& drawn) {
            {
                std::lock_guard previews(previews_mutex_);
                previews_[gadget] = drawn;
            }
            events_.post("preview", {{"gadget", gadget}});
        };
        options.view_changed = [this](bool filtered) {
            events_.post("view", {{"filtered", filtered}});
        };
        options.control = std::make_shared<RunControl>();
        {
            std::lock_guard previews(previews_mutex_);
            previews_.clear();
        }
        dialog->session = std::make_unique<DialogSession>(*dialog->record, *document_,
                                                          *dialog->settings, std::move(options));
        if (!dialog->session->is_open()) throw std::runtime_error("the filter showed no dialog");
        json out = {{"filter", dialog->key->key}, {"gadgets", gadgets_json(*dialog->session)}};
        dialog_ = std::move(dialog);
        return out;
    }

    json change(const std::string& gadget, const std::string& value) {
        std::lock_guard lock(mutex_);
        if (!dialog_) throw std::logic_error("no dialog is open");
        dialog_->session->change(gadget, value);
        return {{"gadgets", gadgets_json(*dialog_->session)}};
    }

    // Confirming applies the filter with the dialog's settings.
    json close_dialog(bool confirm) {
        std::lock_guard lock(mutex_);
        if (!dialog_) return {{"closed", false}};
        std::unique_ptr<OpenDialog> dialog = std::move(dialog_);
        const int32_t result = confirm ? dialog->session->confirm() : dialog->session->cancel();
        dialog->session.reset();
        if (result != 0) return {{"closed", true}, {"applying", false}};
        start_apply(std::move(dialog));
        return {{"closed", true}, {"applying", true}};
    }

    // The latest tile the dialog's user area drew, as 8-bit RGBA.
    bool preview(int32_t gadget, std::string& out, int& width, int& height) {
        std::lock_guard previews(previews_mutex_);
        const auto found = previews_.find(gadget);
        if (found == previews_.end()) return false;
        width = found->second.format.width;
        height = found->second.format.height;
        out = DisplayRgba(found->second.view());
        return true;
    }

    // The image view as the dialog's preview filtered it.
    bool view(std::string& out, int& width, int& height) {
        std::lock_guard lock(mutex_);
        if (!dialog_) return false;
        const std::optional<Image> image = dialog_->session->view_image();
        if (!image) return false;
        width = image->format.width;
        height = image->format.height;
        out = DisplayRgba(image->view());
        return true;
    }

    // The last filter again with its settings, without a dialog.
    json repeat() {
        std::lock_guard lock(mutex_);
        check_idle();
        if (!document_) throw std::invalid_argument("no image is open");
        if (!last_) throw std::invalid_argument("no filter was applied yet");
        auto again = std::make_unique<OpenDialog>();
        again->key = last_->key;
        again->record = last_->record;
        again->settings = settings_for(*last_->key, *last_->record);
        start_apply(std::move(again));
        return {{"applying", true}};
    }

    void stop() {
        std::lock_guard lock(mutex_);
        if (job_control_) job_control_->stop();
    }

    bool step(bool undo) {
        std::lock_guard lock(mutex_);
        check_idle();
        if (!document_) return false;
        if (undo ? !document_->can_undo() : !document_->can_redo()) return false;
        undo ? document_->undo() : document_->redo();
        return true;
    }

    void save(const std::filesystem::path& file) {
        std::lock_guard lock(mutex_);
        if (applying_) throw std::logic_error("a filter is being applied");
        if (!document_) throw std::invalid_argument("no image is open");
        cli::CheckWritable(file, document_->format());
        cli::WriteImage(file, document_->view(), cli::WriteSettings{"", origin_});
    }

private:
    struct OpenDialog {
        const FilterKey* key = nullptr;
        const BitmapFilterDescriptor* record = nullptr;
        std::unique_ptr<Settings> settings;
        std::unique_ptr<DialogSession> session;
    };

    // Caller holds the mutex.
    void check_idle() const {
        if (applying_) throw std::logic_error("a filter is being applied");
        if (dialog_) throw std::logic_error("a filter's dialog is open");
    }

    // The settings the filter was last used with, else its defaults.
    std::unique_ptr<Settings> settings_for(const FilterKey& key,
                                           const BitmapFilterDescriptor& record) {
        std::optional<Settings> settings;
        if (auto used = used_.find(std::string(key.key)); used != used_.end())
            settings = Settings::FromBlob(record, used->second);
        if (!settings) settings = Settings::Defaults(record);
        if (!settings)
            throw std::invalid_argument("filter " + std::string(key.key) + " is not available");
        return std::make_unique<Settings>(std::move(*settings));
    }

    // Applies on a thread of its own, with progress and Stop; the page hears
    // "progress" and then "applied". A stopped or failed application leaves
    // the image as it was (caller holds the mutex).
    void start_apply(std::unique_ptr<OpenDialog> work) {
        if (job_.joinable()) job_.join();
        applying_ = true;
        job_control_ = std::make_shared<RunControl>();
        job_control_->set_progress_sink([this](std::string_view caption, int done, int total) {
            events_.post("progress", {{"caption", caption}, {"done", done}, {"total", total}});
        });
        used_[std::string(work->key->key)] = work->settings->to_blob();
        std::shared_ptr<OpenDialog> shared = std::move(work);
        job_ = std::thread([this, shared, control = job_control_] {
            int32_t status = KPX_STOPPED;
            std::string failure;
            try {
                status = ApplyFilter(*shared->record, *document_, *shared->settings, control);
            } catch (const std::exception& error) {
                failure = error.what();
            }
            const bool stopped = control->stopped();
            json done = {{"filter", shared->key->key}, {"status", status}, {"stopped", stopped}};
            if (!failure.empty())
                done["error"] = failure;
            else if (stopped)
                done["error"] = "stopped; the image is as it was";
            else if (status != KPX_OK)
                done["error"] = std::string(DescribeStatus(status)) + "; the image is as it was";
            {
                std::lock_guard lock(mutex_);
                applying_ = false;
                if (!done.contains("error")) last_ = shared;
            }
            events_.post("applied", done);
        });
    }

    json gadgets_json(DialogSession& session) {
        json list = json::array();
        for (const GadgetInfo& gadget : session.gadgets()) list.push_back(GadgetJson(gadget));
        return list;
    }

    const BitmapFilterDescriptor& record_of(const FilterKey& key) const {
        const Registration* registration = module_->find(key.plugin_id);
        if (!registration || !registration->record)
            throw std::invalid_argument("filter " + std::string(key.key) + " is not in the module");
        return *registration->record;
    }

    std::unique_ptr<Module> module_;
    Events events_;
    std::mutex mutex_;
    std::unique_ptr<Document> document_;
    cli::FileOrigin origin_;
    std::string name_;
    std::unique_ptr<OpenDialog> dialog_;
    std::shared_ptr<OpenDialog> last_;                    // the last filter applied, for repeat
    std::map<std::string, std::vector<std::byte>> used_;  // settings blobs by filter key
    bool applying_ = false;
    std::shared_ptr<RunControl> job_control_;
    std::thread job_;
    std::mutex previews_mutex_;
    std::map<int32_t, Image> previews_;
};

// Runs a handler, turning what it throws into an error response.
template <class F>
httplib::Server::Handler Guarded(F handler) {
    return [handler](const httplib::Request& request, httplib::Response& response) {
        try {
            handler(request, response);
        } catch (const CliError& error) {
            SendError(response, 400, error.what());
        } catch (const std::invalid_argument& error) {
            SendError(response, 400, error.what());
        } catch (const std::logic_error& error) {
            SendError(response, 409, error.what());
        } catch (const std::bad_alloc&) {
            SendError(response, 507, "out of memory");
        } catch (const std::exception& error) {
            SendError(response, 500, error.what());
        } catch (...) {
            SendError(response, 500, "unexpected failure");
        }
    };
}

json Body(const httplib::Request& request) {
    json body = json::parse(request.body, nullptr, false);
    if (!body.is_object()) throw std::invalid_argument("the request wants a JSON object");
    return body;
}

std::string StringField(const json& body, const char* name) {
    if (!body.contains(name) || !body[name].is_string() || body[name].get<std::string>().empty())
        throw std::invalid_argument(std::string("the request wants '") + name + "'");
    return body[name].get<std::string>();
}

void Routes(httplib::Server& server, Editor& editor, const std::string& token) {
    const std::filesystem::path folder = WebFolder();

    server.Get("/", Guarded([folder, token](const httplib::Request&, httplib::Response& response) {
                   const std::optional<std::string> page = ReadText(folder / "index.html");
                   if (!page) return SendError(response, 500, "the editor's page is missing");
                   // The page's own requests carry the token in this cookie.
                   response.set_header("Set-Cookie", std::string(kTokenCookie) + "=" + token +
                                                         "; Path=/; HttpOnly; SameSite=Strict");
                   response.set_header("Cache-Control", "no-store");
                   response.set_content(*page, "text/html; charset=utf-8");
               }));
    server.Get(R"(/static/([A-Za-z0-9_.-]+))",
               Guarded([folder](const httplib::Request& request, httplib::Response& response) {
                   const std::filesystem::path file = folder / request.matches[1].str();
                   const std::optional<std::string> text = ReadText(file);
                   if (!text) return SendError(response, 404, "no such file");
                   response.set_header("Cache-Control", "no-store");
                   response.set_content(*text, ContentType(file));
               }));
    server.Get("/api/state", Guarded([&editor](const httplib::Request&, httplib::Response& r) {
                   SendJson(r, editor.state());
               }));
    server.Get("/api/filters", Guarded([&editor](const httplib::Request&, httplib::Response& r) {
                   SendJson(r, editor.filters());
               }));
    server.Get("/api/pixels", Guarded([&editor](const httplib::Request&, httplib::Response& r) {
                   std::string pixels;
                   int width = 0, height = 0;
                   if (!editor.display(pixels, width, height))
                       return SendError(r, 404, "no image is open");
                   SendRgba(r, std::move(pixels), width, height);
               }));
    // The file's bytes; ?name= gives its name, whose extension says its format.
    server.Post("/api/open",
                Guarded([&editor](const httplib::Request& request, httplib::Response& r) {
                    const std::string name =
                        std::filesystem::path(request.get_param_value("name")).filename().string();
                    if (name.empty()) throw std::invalid_argument("the upload has no file name");
                    const std::filesystem::path upload =
                        std::filesystem::temp_directory_path() /
                        ("bitmapfilter-upload-" + std::to_string(getpid()) + "-" +
                         std::to_string(std::hash<std::thread::id>{}(std::this_thread::get_id())));
                    std::filesystem::create_directories(upload);
                    const std::filesystem::path file = upload / name;
                    struct Cleanup {
                        std::filesystem::path where;
                        ~Cleanup() {
                            std::error_code ignored;
                            std::filesystem::remove_all(where, ignored);
                        }
                    } cleanup{upload};
                    {
                        std::ofstream out(file, std::ios::binary);
                        out.write(request.body.data(), std::streamsize(request.body.size()));
                        if (!out) throw std::runtime_error("cannot keep the upload");
                    }
                    editor.open_file(file, name);
                    SendJson(r, editor.state());
                }));
    server.Post("/api/save",
                Guarded([&editor](const httplib::Request& request, httplib::Response& r) {
                    const std::filesystem::path file = StringField(Body(request), "path");
                    editor.save(file);
                    SendJson(r, {{"saved", file.string()}});
                }));
    // Opens the filter's dialog; a filter without one applies at once.
    server.Post("/api/filter",
                Guarded([&editor](const httplib::Request& request, httplib::Response& r) {
                    const std::string key = StringField(Body(request), "filter");
                    const FilterKey* filter = FindFilter(key);
                    if (!filter) throw std::invalid_argument("unknown filter '" + key + "'");
                    SendJson(r, editor.open_dialog(*filter));
                }));
    server.Post("/api/dialog/change",
                Guarded([&editor](const httplib::Request& request, httplib::Response& r) {
                    const json body = Body(request);
                    SendJson(
                        r, editor.change(StringField(body, "gadget"), StringField(body, "value")));
                }));
    server.Post("/api/dialog/reset",
                Guarded([&editor](const httplib::Request&, httplib::Response& r) {
                    SendJson(r, editor.reset_dialog());
                }));
    for (const bool confirm : {true, false})
        server.Post(confirm ? "/api/dialog/confirm" : "/api/dialog/cancel",
                    Guarded([&editor, confirm](const httplib::Request&, httplib::Response& r) {
                        SendJson(r, editor.close_dialog(confirm));
                    }));
    server.Get(R"(/api/dialog/preview/(\d{1,9}))",
               Guarded([&editor](const httplib::Request& request, httplib::Response& r) {
                   std::string pixels;
                   int width = 0, height = 0;
                   if (!editor.preview(std::stoi(request.matches[1].str()), pixels, width, height))
                       return SendError(r, 404, "nothing drawn yet");
                   SendRgba(r, std::move(pixels), width, height);
               }));
    server.Get("/api/dialog/view",
               Guarded([&editor](const httplib::Request&, httplib::Response& r) {
                   std::string pixels;
                   int width = 0, height = 0;
                   if (!editor.view(pixels, width, height))
                       return SendError(r, 404, "no filtered view");
                   SendRgba(r, std::move(pixels), width, height);
               }));
    server.Post("/api/repeat", Guarded([&editor](const httplib::Request&, httplib::Response& r) {
                    SendJson(r, editor.repeat());
                }));
    server.Post("/api/stop", Guarded([&editor](const httplib::Request&, httplib::Response& r) {
                    editor.stop();
                    SendJson(r, {{"stopping", true}});
                }));
    // Server-sent events: a listener gets what happens from now on.
    server.Get("/api/events", [&editor](const httplib::Request&, httplib::Response& r) {
        r.set_header("Cache-Control", "no-store");
        auto seen = std::make_shared<uint64_t>(editor.events().last());
        r.set_chunked_content_provider(
            "text/event-stream", [&editor, seen](std::size_t, httplib::DataSink& sink) {
                if (editor.events().stopping()) return false;
                std::string text = editor.events().after(*seen, std::chrono::seconds(1));
                if (text.empty()) text = ": idle\n\n";
                return sink.write(text.data(), text.size());
            });
    });
    for (const bool undo : {true, false})
        server.Post(undo ? "/api/undo" : "/api/redo",
                    Guarded([&editor, undo](const httplib::Request&, httplib::Response& r) {
                        if (!editor.step(undo))
                            return SendError(r, 409, undo ? "nothing to undo" : "nothing to redo");
                        SendJson(r, editor.state());
                    }));
}

}  // namespace

int RunEditor(const EditorOptions& options) {
    Host::Get().set_message_sink([](std::string_view message) {
        std::fprintf(stderr, "bitmapfilter: module: %.*s\n", int(message.size()), message.data());
    });
    const std::filesystem::path module_file =
        options.module.empty() ? DefaultModulePath() : options.module;
    std::string error;
    std::unique_ptr<Module> module = Module::Load(module_file, error);
    if (!module)
        throw CliError(cli::kExitUsage,
                       "cannot load the filter module " + module_file.string() + ": " + error);
    // The shared preferences (preview shown, border wraps) last between runs.
    SetPreferencesFile(DefaultPreferencesFile());
    Editor editor(std::move(module));
    if (!options.image.empty()) editor.open_file(options.image, options.image.filename().string());

    // Ctrl-C and SIGTERM are taken by a thread of their own that stops the
    // server; every other thread starts with them blocked.
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stops, nullptr);

    httplib::Server server;
    const std::string token = NewToken();
    server.set_payload_max_length(kLargestUpload);
    const int port = options.port == 0
                         ? server.bind_to_any_port("127.0.0.1")
                         : (server.bind_to_port("127.0.0.1", options.port) ? options.port : -1);
    if (port <= 0)
        throw CliError(cli::kExitUsage,
                       "cannot listen on 127.0.0.1 port " + std::to_string(options.port));
    const std::string host = "127.0.0.1:" + std::to_string(port);

    // Every request: the Host header the address announced (no other name
    // may reach the server through a rebound DNS name), and the token.
    server.set_pre_routing_handler(
        [host, token](const httplib::Request& request, httplib::Response& response) {
            if (request.get_header_value("Host") != host) {
                SendError(response, 403, "this server answers only to " + host);
                return httplib::Server::HandlerResponse::Handled;
            }
            if (!SameToken(TokenOf(request), token)) {
                SendError(response, 403, "the access token is missing or wrong");
                return httplib::Server::HandlerResponse::Handled;
            }
            return httplib::Server::HandlerResponse::Unhandled;
        });
    server.set_exception_handler(
        [](const httplib::Request&, httplib::Response& response, std::exception_ptr) {
            SendError(response, 500, "the request failed");
        });
    Routes(server, editor, token);

    const std::string url = "http://" + host + "/?token=" + token;
    std::printf("bitmapfilter: editor at %s (Ctrl-C to stop)\n", url.c_str());
    std::fflush(stdout);
    if (options.open_browser) OpenBrowser(url);

    std::thread stopper([&server, &editor, stops] {
        int signal = 0;
        sigwait(&stops, &signal);
        editor.events().stop();  // the event streams end, so the server can
        server.stop();
    });
    const bool served = server.listen_after_bind();
    editor.events().stop();
    // Listening may also end on its own: wake the stopper with a signal of ours.
    pthread_kill(stopper.native_handle(), SIGTERM);
    stopper.join();
    std::fprintf(stderr, "bitmapfilter: editor stopped\n");
    return served ? cli::kExitOk : cli::kExitUsage;
}

}  // namespace bf::web
