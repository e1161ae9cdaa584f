#include "editor.hpp"

#include <fcntl.h>
#include <httplib.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
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

// ---- the editor's state --------------------------------------------------------

class Editor {
public:
    explicit Editor(std::unique_ptr<Module> module) : module_(std::move(module)) {}

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
                {"redo", document_->redo_steps()}};
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
        const ImageView view = document_->view();
        width = view.format.width;
        height = view.format.height;
        out = DisplayRgba(view);
        return true;
    }

    // Default settings, no dialog: for filters without one.
    int32_t apply_defaults(const FilterKey& key) {
        const BitmapFilterDescriptor& record = record_of(key);
        std::optional<Settings> settings = Settings::Defaults(record);
        if (!settings)
            throw std::invalid_argument("filter " + std::string(key.key) + " is not available");
        std::lock_guard lock(mutex_);
        if (!document_) throw std::invalid_argument("no image is open");
        return ApplyFilter(record, *document_, *settings, std::make_shared<RunControl>());
    }

    bool step(bool undo) {
        std::lock_guard lock(mutex_);
        if (!document_) return false;
        if (undo ? !document_->can_undo() : !document_->can_redo()) return false;
        undo ? document_->undo() : document_->redo();
        return true;
    }

    void save(const std::filesystem::path& file) {
        std::lock_guard lock(mutex_);
        if (!document_) throw std::invalid_argument("no image is open");
        cli::CheckWritable(file, document_->format());
        cli::WriteImage(file, document_->view(), cli::WriteSettings{"", origin_});
    }

private:
    const BitmapFilterDescriptor& record_of(const FilterKey& key) const {
        const Registration* registration = module_->find(key.plugin_id);
        if (!registration || !registration->record)
            throw std::invalid_argument("filter " + std::string(key.key) + " is not in the module");
        return *registration->record;
    }

    std::unique_ptr<Module> module_;
    std::mutex mutex_;
    std::unique_ptr<Document> document_;
    cli::FileOrigin origin_;
    std::string name_;
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
                   r.set_header("X-Width", std::to_string(width));
                   r.set_header("X-Height", std::to_string(height));
                   r.set_content(std::move(pixels), "application/octet-stream");
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
    server.Post(
        "/api/apply", Guarded([&editor](const httplib::Request& request, httplib::Response& r) {
            const std::string key = StringField(Body(request), "filter");
            const FilterKey* filter = FindFilter(key);
            if (!filter) throw std::invalid_argument("unknown filter '" + key + "'");
            const int32_t status = editor.apply_defaults(*filter);
            if (status != KPX_OK)
                return SendError(r, 409,
                                 "the filter stopped: " + std::string(DescribeStatus(status)) +
                                     "; the image is as it was");
            SendJson(r, editor.state());
        }));
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

    std::thread stopper([&server, stops] {
        int signal = 0;
        sigwait(&stops, &signal);
        server.stop();
    });
    const bool served = server.listen_after_bind();
    // Listening may also end on its own: wake the stopper with a signal of ours.
    pthread_kill(stopper.native_handle(), SIGTERM);
    stopper.join();
    std::fprintf(stderr, "bitmapfilter: editor stopped\n");
    return served ? cli::kExitOk : cli::kExitUsage;
}

}  // namespace bf::web
