#include "commands.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "contactsheet.hpp"
#include "describe.hpp"
#include "errors.hpp"
#include "filterkeys.hpp"
#include "imagefile.hpp"
#include "interrupt.hpp"
#include "progress.hpp"
#include "runtime.hpp"
#include "tempfile.hpp"

namespace bf::cli {
namespace {

std::unique_ptr<Module> LoadModule(const Options& options) {
    Host::Get().set_message_sink([](std::string_view message) {
        std::fprintf(stderr, "bitmapfilter: module: %.*s\n", int(message.size()), message.data());
    });
    const std::filesystem::path file =
        options.module.empty() ? DefaultModulePath() : options.module;
    std::string error;
    std::unique_ptr<Module> module = Module::Load(file, error);
    if (!module)
        throw CliError(kExitUsage, "cannot load the filter module " + file.string() + ": " + error);
    return module;
}

// The four letters of a settings code, as they lie in memory.
std::string CodeText(uint32_t code) {
    std::string text(4, '?');
    for (int i = 0; i < 4; ++i) {
        const char letter = char((code >> (8 * i)) & 0xFF);
        if (letter >= 0x20 && letter < 0x7F) text[i] = letter;
    }
    return text;
}

std::string Quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

const FilterKey& FilterFromOption(const std::string& name) {
    const FilterKey* filter = FindFilter(name);
    if (!filter)
        throw CliError(kExitUsage,
                       "unknown filter " + Quoted(name) + "; filters: " + FilterKeyList());
    return *filter;
}

const BitmapFilterDescriptor& RecordOf(const Module& module, const FilterKey& filter) {
    const Registration* registration = module.find(filter.plugin_id);
    if (!registration || !registration->record)
        throw CliError(kExitFilter, "filter " + Quoted(filter.key) + " is not in the module");
    return *registration->record;
}

Settings DefaultSettings(const BitmapFilterDescriptor& record, const FilterKey& filter) {
    std::optional<Settings> settings = Settings::Defaults(record);
    if (!settings)
        throw CliError(kExitFilter, "filter " + Quoted(filter.key) + " is not available yet");
    return std::move(*settings);
}

void CheckArea(const RECT32& area, const ImageFormat& format) {
    const bool inside = 0 <= area.x1 && area.x1 < area.x2 && area.x2 <= format.width &&
                        0 <= area.y1 && area.y1 < area.y2 && area.y2 <= format.height;
    if (!inside)
        throw CliError(kExitUsage,
                       "--area " + std::to_string(area.x1) + "," + std::to_string(area.y1) + "," +
                           std::to_string(area.x2) + "," + std::to_string(area.y2) +
                           " is empty or does not lie inside the " + std::to_string(format.width) +
                           "x" + std::to_string(format.height) + " image");
}

// A preset is a settings blob: the "fflt" header, whose size word is the
// blob's, then the record. Checked here too, since the module takes the blob
// by address only and would trust a truncated file.
bool LooksLikeBlob(std::span<const std::byte> blob) {
    KPX_BLOB_HEADER header;
    if (blob.size() < sizeof header + sizeof(uint32_t)) return false;
    std::memcpy(&header, blob.data(), sizeof header);
    return header.magic == KPX_BLOB_MAGIC && header.size == blob.size();
}

Settings SettingsFromPreset(const BitmapFilterDescriptor& record, const FilterKey& filter,
                            const std::filesystem::path& file) {
    const std::vector<std::byte> blob = ReadWholeFile(file, "preset");
    std::optional<Settings> settings;
    if (LooksLikeBlob(blob)) settings = Settings::FromBlob(record, blob);
    if (!settings)
        throw CliError(kExitUsage, "preset " + file.string() + " does not belong to filter " +
                                       std::string(filter.key) + " or is damaged");
    return std::move(*settings);
}

// ---- dialogs without a person ---------------------------------------------------

// The module's shared preferences: key 6 says whether a dialog shows its
// preview. The command keeps them in memory only and never writes them.
constexpr int32_t kSharedPreferences = 1000001;
constexpr int32_t kPreviewShown = 6;
constexpr const char* kBorderGadget = "border_wrap";
// What a dialog answers when it closes.
constexpr int32_t kConfirmed = 0;
constexpr int32_t kCancelled = 1;

// Opens the filter's dialog, makes the script's changes and closes it. No one
// looks at a preview here, and the command line has no image view, so no
// preview thread runs.
int32_t RunHeadless(const BitmapFilterDescriptor& record, const FilterKey& filter,
                    Document& document, Settings& settings, DialogScript script,
                    std::vector<GadgetInfo>* gadgets = nullptr) {
    SetPreference(kSharedPreferences, kPreviewShown, false);
    script.image_view = false;
    try {
        return RunDialog(record, document, settings, script, gadgets);
    } catch (const UnknownGadget& error) {
        if (error.gadget == kBorderGadget)
            throw CliError(kExitUsage, "filter " + Quoted(filter.key) + " has no border mode");
        throw CliError(kExitUsage, error.what());
    } catch (const std::invalid_argument& error) {  // a bad value
        throw CliError(kExitUsage, error.what());
    } catch (const std::runtime_error& error) {  // the module could not build its dialog
        throw CliError(kExitFilter,
                       "the dialog of filter " + Quoted(filter.key) + " failed: " + error.what());
    }
}

// The gadgets of the filter's dialog, opened on default settings over a
// small grey picture and cancelled.
std::vector<GadgetInfo> DialogGadgets(const BitmapFilterDescriptor& record,
                                      const FilterKey& filter) {
    Settings settings = DefaultSettings(record, filter);
    Image grey({64, 64, 3, ComponentType::U8, false});
    std::fill(grey.pixels.begin(), grey.pixels.end(), std::byte{128});
    Document document(std::move(grey));
    std::vector<GadgetInfo> gadgets;
    DialogScript cancel;
    cancel.confirm = false;
    const int32_t status = RunHeadless(record, filter, document, settings, cancel, &gadgets);
    if (status != kConfirmed && status != kCancelled)
        throw CliError(kExitFilter, "the dialog of filter " + Quoted(filter.key) +
                                        " failed: " + std::string(DescribeStatus(status)));
    return gadgets;
}

// --border and --set: the dialog opened on the settings, the border check box
// set first, then each change in order, and confirmed.
void EditInDialog(const BitmapFilterDescriptor& record, const FilterKey& filter, Document& document,
                  Settings& settings, const Options& options) {
    if (!HasDialog(filter))
        throw CliError(kExitUsage, "filter " + Quoted(filter.key) +
                                       " has no settings dialog; --set and --border need one");
    DialogScript script;
    if (options.border_wrap)
        script.changes.push_back({kBorderGadget, *options.border_wrap ? "1" : "0"});
    script.changes.insert(script.changes.end(), options.changes.begin(), options.changes.end());
    const int32_t status = RunHeadless(record, filter, document, settings, script);
    if (status != kConfirmed)
        throw CliError(kExitFilter, "the dialog of filter " + Quoted(filter.key) +
                                        " did not confirm the settings (status " +
                                        std::to_string(status) + "); nothing written");
}

// ---- filtering ----------------------------------------------------------------------

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Where an apply run spends its time, for --verbose.
struct Times {
    double read = 0;
    double filter = 0;
    double write = 0;
    int64_t pixels = 0;  // filtered
};

std::string TimesLine(const Times& times) {
    char line[160];
    const double rate = double(times.pixels) / 1e6 / std::max(times.filter, 1e-9);
    std::snprintf(line, sizeof line, "read %.2f s, filter %.2f s (%.0f MP/s), write %.2f s",
                  times.read, times.filter, rate, times.write);
    return line;
}

// Runs the filter on the document with the progress bar and Ctrl-C handling,
// and writes the result from the document's own pixels. Ctrl-C stays caught
// until the output is complete, so that it can remove the unfinished file.
void FilterAndWrite(const BitmapFilterDescriptor& record, const FilterKey& filter,
                    Document& document, Settings& settings, const Options& options,
                    const FileOrigin& origin, Times& times) {
    InterruptWatcher watcher;
    int32_t status;
    Clock::time_point start = Clock::now();
    {
        ProgressBar bar(!options.quiet);
        status = ApplyFilter(record, document, settings);
    }
    times.filter = SecondsSince(start);
    // After a break the filter may report any status, even success when it
    // could not obtain its first tile; either way its work was dropped.
    if (Host::Get().break_requested())
        throw CliError(kExitInterrupted, "stopped by the user; nothing written");
    if (status != KPX_OK)
        throw CliError(kExitFilter, "filter " + Quoted(filter.key) + " failed: " +
                                        std::string(DescribeStatus(status)) + " (status " +
                                        std::to_string(status) + "); nothing written");
    watcher.end_at_once();
    start = Clock::now();
    WriteImage(options.output, document.view(), WriteSettings{options.compression, origin});
    times.write = SecondsSince(start);
}

}  // namespace

int RunList(const Options& options) {
    const std::unique_ptr<Module> module = LoadModule(options);
    std::size_t name_width = 0;
    for (const Registration& registration : module->filters())
        name_width = std::max(name_width, registration.name.size());

    for (const Registration& registration : module->filters()) {
        const FilterKey* filter = FindFilterById(registration.plugin_id);
        std::optional<Settings> defaults;
        if (registration.record) defaults = Settings::Defaults(*registration.record);
        const std::string code = defaults ? CodeText(defaults->code())
                                 : filter ? std::string(filter->code)
                                          : "????";
        const std::string key = filter ? std::string(filter->key) : "-";
        std::printf("%-15s %7d  %s  %-*s  %s\n", key.c_str(), int(registration.plugin_id),
                    code.c_str(), int(name_width), registration.name.c_str(),
                    defaults ? "available" : "not available");
    }
    return std::fflush(stdout) == 0 ? kExitOk : kExitUsage;
}

int RunApply(const Options& options) {
    const FilterKey& filter = FilterFromOption(options.filter);
    CheckCompression(options.output, options.compression);  // before any work is done
    const std::unique_ptr<Module> module = LoadModule(options);
    const BitmapFilterDescriptor& record = RecordOf(*module, filter);
    if (options.threads && !Host::Get().set_worker_count(*options.threads))
        throw CliError(kExitUsage, "cannot use " + std::to_string(*options.threads) + " threads");

    Times times;
    const Clock::time_point start = Clock::now();
    FileOrigin origin;
    Image image = ReadImage(options.input, &origin);
    if (options.type) image = ConvertImage(image, *options.type);
    times.read = SecondsSince(start);
    CheckWritable(options.output, image.format);
    if (options.area) CheckArea(*options.area, image.format);

    Settings settings = DefaultSettings(record, filter);
    if (options.preset) settings = SettingsFromPreset(record, filter, *options.preset);

    const TileSize tile =
        options.tile.value_or(TileSize{Document::kDefaultTile, Document::kDefaultTile});
    Document document(std::move(image), tile.width, tile.height);
    if (options.area) document.set_area(*options.area);
    const RECT32 area = document.area();
    times.pixels = int64_t(area.x2 - area.x1) * (area.y2 - area.y1);

    if (options.border_wrap || !options.changes.empty())
        EditInDialog(record, filter, document, settings, options);
    if (options.save_preset) WriteWholeFile(*options.save_preset, settings.to_blob());

    FilterAndWrite(record, filter, document, settings, options, origin, times);
    if (options.verbose) std::fprintf(stderr, "%s\n", TimesLine(times).c_str());
    if (!options.quiet) std::fprintf(stderr, "wrote %s\n", options.output.c_str());
    return kExitOk;
}

int RunDescribe(const Options& options) {
    const FilterKey& filter = FilterFromOption(options.filter);
    const std::unique_ptr<Module> module = LoadModule(options);
    const BitmapFilterDescriptor& record = RecordOf(*module, filter);
    const Settings settings = DefaultSettings(record, filter);

    FilterDescription description;
    description.key = filter.key;
    description.name = module->find(filter.plugin_id)->name;
    description.plugin_id = filter.plugin_id;
    description.code = CodeText(settings.code());
    description.blob_size = settings.to_blob().size();
    description.has_dialog = HasDialog(filter);
    if (description.has_dialog) description.gadgets = DialogGadgets(record, filter);

    const std::string text =
        options.json ? DescriptionJson(description).dump(2) + "\n" : DescriptionText(description);
    std::fputs(text.c_str(), stdout);
    return std::fflush(stdout) == 0 ? kExitOk : kExitUsage;
}

int RunContactSheet(const Options& options) {
    CheckWritable(options.output, {1, 1, 3, ComponentType::U8, false});  // before any work
    std::vector<LabelledImage> images;
    for (const std::filesystem::path& file : options.images)
        images.push_back({ReadImage(file), file.stem().string()});
    const ContactSheet sheet =
        MakeContactSheet(images, options.columns.value_or(DefaultColumns(images.size())));
    if (!sheet.label_error.empty())
        std::fprintf(stderr, "bitmapfilter: warning: the sheet has no labels: %s\n",
                     sheet.label_error.c_str());
    WriteImage(options.output, sheet.sheet);
    if (!options.quiet) std::fprintf(stderr, "wrote %s\n", options.output.c_str());
    return kExitOk;
}

}  // namespace bf::cli
