#include "commands.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

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

// Runs the filter on the document with the progress bar and Ctrl-C handling,
// and writes the result. Ctrl-C stays caught until the output is complete, so
// that it can remove the unfinished file.
void FilterAndWrite(const BitmapFilterDescriptor& record, const FilterKey& filter,
                    Document& document, Settings& settings, const Options& options) {
    InterruptWatcher watcher;
    int32_t status;
    {
        ProgressBar bar(!options.quiet);
        status = ApplyFilter(record, document, settings);
    }
    // After a break the filter may report any status, even success when it
    // could not obtain its first tile; either way its work was dropped.
    if (Host::Get().break_requested())
        throw CliError(kExitInterrupted, "stopped by the user; nothing written");
    if (status != KPX_OK)
        throw CliError(kExitFilter, "filter " + Quoted(filter.key) + " failed: " +
                                        std::string(DescribeStatus(status)) + " (status " +
                                        std::to_string(status) + "); nothing written");
    watcher.end_at_once();
    WriteImage(options.output, document.image());
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
    const std::unique_ptr<Module> module = LoadModule(options);
    const Registration* registration = module->find(filter.plugin_id);
    if (!registration || !registration->record)
        throw CliError(kExitFilter, "filter " + Quoted(filter.key) + " is not in the module");
    const BitmapFilterDescriptor& record = *registration->record;

    Image image = ReadImage(options.input);
    if (options.type) image = ConvertImage(image, *options.type);
    CheckWritable(options.output, image.format);  // before any work is done
    if (options.area) CheckArea(*options.area, image.format);

    std::optional<Settings> settings = Settings::Defaults(record);
    if (!settings)
        throw CliError(kExitFilter, "filter " + Quoted(filter.key) + " is not available yet");
    if (options.preset) settings = SettingsFromPreset(record, filter, *options.preset);
    if (options.save_preset) WriteWholeFile(*options.save_preset, settings->to_blob());

    const TileSize tile =
        options.tile.value_or(TileSize{Document::kDefaultTile, Document::kDefaultTile});
    Document document(image, tile.width, tile.height);
    if (options.area) document.set_area(*options.area);
    image = Image();  // the document holds the pixels now

    FilterAndWrite(record, filter, document, *settings, options);
    if (!options.quiet) std::fprintf(stderr, "wrote %s\n", options.output.c_str());
    return kExitOk;
}

}  // namespace bf::cli
