#include "options.hpp"

#include <OpenImageIO/oiioversion.h>

#include <algorithm>
#include <charconv>
#include <string_view>
#include <vector>

#include "errors.hpp"
#include "filterkeys.hpp"
#include "imagefile.hpp"

namespace bf::cli {
namespace {

constexpr std::string_view kVersion = "0.1.0";
constexpr int kLargestTile = 65536;
constexpr int kMostColumns = 100;
constexpr int kMostThreads = 256;

[[noreturn]] void Fail(const std::string& message) {
    throw CliError(kExitUsage, message);
}

bool ParseInt(std::string_view text, int& value) {
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value);
    return !text.empty() && error == std::errc() && stop == end;
}

// "a<sep>b<sep>..." into exactly `count` integers.
bool ParseInts(std::string_view text, char separator, std::span<int> values) {
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::size_t cut = i + 1 < values.size() ? text.find(separator) : text.size();
        if (cut == std::string_view::npos || !ParseInt(text.substr(0, cut), values[i]))
            return false;
        text.remove_prefix(std::min(text.size(), cut + 1));
    }
    return true;
}

RECT32 ParseArea(std::string_view text) {
    int v[4];
    if (!ParseInts(text, ',', v))
        Fail("--area wants X1,Y1,X2,Y2 (four integers), not '" + std::string(text) + "'");
    return RECT32{v[0], v[1], v[2], v[3]};
}

TileSize ParseTile(std::string_view text) {
    int v[2];
    if (!ParseInts(text, 'x', v) || v[0] < 1 || v[1] < 1 || v[0] > kLargestTile ||
        v[1] > kLargestTile)
        Fail("--tile wants WxH with both from 1 to " + std::to_string(kLargestTile) + ", not '" +
             std::string(text) + "'");
    return TileSize{v[0], v[1]};
}

ComponentType ParseType(std::string_view text) {
    for (ComponentType type : {ComponentType::U8, ComponentType::U16, ComponentType::F32})
        if (ComponentTypeName(type) == text) return type;
    Fail("--type wants u8, u16 or float, not '" + std::string(text) + "'");
}

// "KEY=VALUE": a gadget by name or id, and the value as a person types it.
// The dialog checks both; here only the shape.
GadgetChange ParseChange(std::string_view text) {
    const std::size_t equals = text.find('=');
    if (equals == 0 || equals == std::string_view::npos || equals + 1 == text.size())
        Fail("--set wants KEY=VALUE (a gadget name or id, and a value), not '" + std::string(text) +
             "'");
    return GadgetChange{std::string(text.substr(0, equals)), std::string(text.substr(equals + 1))};
}

bool ParseBorder(std::string_view text) {
    if (text == "wrap") return true;
    if (text == "clamp") return false;
    Fail("--border wants wrap or clamp, not '" + std::string(text) + "'");
}

int ParseColumns(std::string_view text) {
    int columns = 0;
    if (!ParseInt(text, columns) || columns < 1 || columns > kMostColumns)
        Fail("--columns wants a number from 1 to " + std::to_string(kMostColumns) + ", not '" +
             std::string(text) + "'");
    return columns;
}

int ParsePort(std::string_view text) {
    int port = 0;
    if (!ParseInt(text, port) || port < 0 || port > 65535)
        Fail("--port wants a number from 0 to 65535 (0: a free port), not '" + std::string(text) +
             "'");
    return port;
}

int ParseThreads(std::string_view text) {
    int threads = 0;
    if (!ParseInt(text, threads) || threads < 1 || threads > kMostThreads)
        Fail("--threads wants a number from 1 to " + std::to_string(kMostThreads) + ", not '" +
             std::string(text) + "'");
    return threads;
}

// The format of OUTPUT decides which names it takes; here only the shape.
std::string ParseCompression(std::string_view text) {
    if (text.empty()) Fail("--compression wants a name (see bitmapfilter --help)");
    return std::string(text);
}

bool IsFlag(std::string_view word, std::string_view long_name, std::string_view short_name = {}) {
    return word == long_name || (!short_name.empty() && word == short_name);
}

bool IsValueOption(std::string_view name) {
    for (std::string_view known :
         {"--module", "--preset", "--save-preset", "--area", "--tile", "--type", "--set",
          "--border", "--columns", "--compression", "--threads", "--port"})
        if (name == known) return true;
    return false;
}

void SetValueOption(Options& options, std::string_view name, std::string_view value) {
    if (name == "--module")
        options.module = value;
    else if (name == "--preset")
        options.preset = value;
    else if (name == "--save-preset")
        options.save_preset = value;
    else if (name == "--area")
        options.area = ParseArea(value);
    else if (name == "--tile")
        options.tile = ParseTile(value);
    else if (name == "--set")
        options.changes.push_back(ParseChange(value));
    else if (name == "--border")
        options.border_wrap = ParseBorder(value);
    else if (name == "--columns")
        options.columns = ParseColumns(value);
    else if (name == "--compression")
        options.compression = ParseCompression(value);
    else if (name == "--threads")
        options.threads = ParseThreads(value);
    else if (name == "--port")
        options.port = ParsePort(value);
    else
        options.type = ParseType(value);
}

// Splits the words after the command into options (with their values) and
// operands, and fills `options`. Options may come before or after operands.
std::vector<std::string_view> TakeOptions(std::span<const char* const> words, Options& options) {
    std::vector<std::string_view> operands;
    bool options_ended = false;
    for (std::size_t i = 0; i < words.size(); ++i) {
        std::string_view word = words[i];
        if (options_ended || word.size() < 2 || word[0] != '-') {
            operands.push_back(word);
            continue;
        }
        if (word == "--") {
            options_ended = true;
            continue;
        }
        if (IsFlag(word, "--quiet", "-q")) {
            options.quiet = true;
            continue;
        }
        if (IsFlag(word, "--verbose", "-v")) {
            options.verbose = true;
            continue;
        }
        if (IsFlag(word, "--json")) {
            options.json = true;
            continue;
        }
        if (IsFlag(word, "--no-browser")) {
            options.no_browser = true;
            continue;
        }
        // Options with a value: "--name value" or "--name=value".
        const std::size_t equals = word.find('=');
        const std::string_view name = word.substr(0, equals);
        if (!IsValueOption(name))
            Fail("unknown option " + std::string(name) + " (see bitmapfilter --help)");
        std::string_view value;
        if (equals != std::string_view::npos)
            value = word.substr(equals + 1);
        else if (i + 1 < words.size())
            value = words[++i];
        else
            Fail("option " + std::string(name) + " needs a value");
        SetValueOption(options, name, value);
    }
    return operands;
}

// Options given to a command they do not belong to are mistakes, not no-ops.
void CheckOptionsBelong(const Options& options) {
    const bool apply_options = options.preset || options.save_preset || options.area ||
                               options.tile || options.type || !options.changes.empty() ||
                               options.border_wrap || !options.compression.empty() ||
                               options.verbose || options.threads;
    if (apply_options && options.command != Command::Apply)
        Fail(
            "--preset, --save-preset, --area, --tile, --type, --set, --border, --compression, "
            "--threads and --verbose belong to apply");
    if (options.json && options.command != Command::Describe) Fail("--json belongs to describe");
    if (options.columns && options.command != Command::ContactSheet)
        Fail("--columns belongs to contact-sheet");
    if ((options.port || options.no_browser) && options.command != Command::Edit)
        Fail("--port and --no-browser belong to edit");
}

void TakeOperands(Options& options, std::span<const std::string_view> operands) {
    switch (options.command) {
        case Command::List:
            if (!operands.empty())
                Fail("list takes no arguments, got '" + std::string(operands[0]) + "'");
            break;
        case Command::Apply:
            if (operands.size() != 3)
                Fail("apply wants FILTER INPUT OUTPUT (see bitmapfilter --help)");
            options.filter = operands[0];
            options.input = operands[1];
            options.output = operands[2];
            break;
        case Command::Describe:
            if (operands.size() != 1) Fail("describe wants one FILTER (see bitmapfilter --help)");
            options.filter = operands[0];
            break;
        case Command::ContactSheet:
            if (operands.size() < 2)
                Fail("contact-sheet wants OUTPUT IMAGE... (see bitmapfilter --help)");
            options.output = operands[0];
            options.images.assign(operands.begin() + 1, operands.end());
            break;
        case Command::Edit:
            if (operands.size() > 1) Fail("edit wants at most one IMAGE (see bitmapfilter --help)");
            if (!operands.empty()) options.input = operands[0];
            break;
        case Command::Help:
        case Command::Version: break;
    }
}

}  // namespace

Options ParseOptions(std::span<const char* const> args) {
    Options options;
    // Help and version win wherever they appear.
    for (std::string_view word : args) {
        if (word == "--") break;
        if (IsFlag(word, "--help", "-h")) return options;
        if (IsFlag(word, "--version")) {
            options.command = Command::Version;
            return options;
        }
    }
    std::vector<std::string_view> operands = TakeOptions(args, options);
    if (operands.empty()) Fail("no command given (see bitmapfilter --help)");
    const std::string_view command = operands.front();
    operands.erase(operands.begin());
    if (command == "list")
        options.command = Command::List;
    else if (command == "apply")
        options.command = Command::Apply;
    else if (command == "describe")
        options.command = Command::Describe;
    else if (command == "contact-sheet")
        options.command = Command::ContactSheet;
    else if (command == "edit")
        options.command = Command::Edit;
    else
        Fail("unknown command '" + std::string(command) +
             "' (commands: list, apply, describe, contact-sheet, edit)");
    CheckOptionsBelong(options);
    TakeOperands(options, operands);
    return options;
}

std::string UsageText() {
    std::string keys;
    std::string line = "   ";
    for (const FilterKey& filter : kFilterKeys) {
        if (line.size() + filter.key.size() + 1 > 78) {
            keys += line + "\n";
            line = "   ";
        }
        line += " " + std::string(filter.key);
    }
    keys += line + "\n";
    return "usage: bitmapfilter list [--module PATH]\n"
           "       bitmapfilter apply FILTER INPUT OUTPUT [options]\n"
           "       bitmapfilter describe FILTER [--json] [--module PATH]\n"
           "       bitmapfilter contact-sheet OUTPUT IMAGE... [--columns N]\n"
           "       bitmapfilter edit [IMAGE] [--port N] [--no-browser]\n"
           "       bitmapfilter --help | --version\n"
           "\n"
           "Commands:\n"
           "  list           one line per filter of the module, in registration order:\n"
           "                 key, plug-in id, settings code, name, and whether it is\n"
           "                 available\n"
           "  apply          filters the image file INPUT and writes OUTPUT; FILTER is a\n"
           "                 key below or a plug-in id\n"
           "  describe       the gadgets of the filter's settings dialog: id, name, kind,\n"
           "                 range, step and default as --set takes them (degrees for\n"
           "                 angles, percent for percentages), choices; and the\n"
           "                 settings code and blob size\n"
           "  contact-sheet  one 8-bit RGB picture OUTPUT with a thumbnail of each IMAGE,\n"
           "                 labelled with its file name without extension, in a grid\n"
           "  edit           the editor in a web browser, served on 127.0.0.1 (port 0 or\n"
           "                 none: a free one) until Ctrl-C; prints its address with an\n"
           "                 access token and opens the default browser unless\n"
           "                 --no-browser\n"
           "\n"
           "Options of apply:\n"
           "  --preset FILE          settings from a saved preset instead of the defaults\n"
           "  --set KEY=VALUE        change a setting in the filter's dialog before\n"
           "                         applying; KEY is a gadget name or id (see describe),\n"
           "                         VALUE as a person types it: degrees for angles,\n"
           "                         percent for percentages, 0 or 1 for check boxes, an\n"
           "                         index for choices; out-of-range values are clamped;\n"
           "                         repeatable, made in order after --preset\n"
           "  --border wrap|clamp    reads outside the image wrap round to the opposite\n"
           "                         edge, or repeat the edge (filters with a border\n"
           "                         mode); set before the --set changes. Without it, a\n"
           "                         dialog run starts from clamp, even over a preset\n"
           "  --save-preset FILE     save the settings used as a preset\n"
           "  --area X1,Y1,X2,Y2     filter only this area (X2 and Y2 exclusive); it must\n"
           "                         lie inside the image; default: the whole image\n"
           "  --tile WxH             the document's tile grid (default " +
           std::to_string(Document::kDefaultTile) + "x" + std::to_string(Document::kDefaultTile) +
           ")\n"
           "  --type u8|u16|float    convert the pixels before filtering; the output keeps\n"
           "                         that type (u8<->u16 by x257 and rounding, float as\n"
           "                         value / maximum, float to integers clamped and rounded)\n"
           "  --compression NAME     how OUTPUT is compressed (see Compression below)\n"
           "  --threads N            worker threads for filters that run in parallel\n"
           "                         (Whirl), 1 to " +
           std::to_string(kMostThreads) +
           "; default: one per core of the machine\n"
           "  -v, --verbose          at the end, one line of times: read (with any --type\n"
           "                         conversion), filter with its megapixels per second,\n"
           "                         write: \"read 0.03 s, filter 0.01 s (1300 MP/s),\n"
           "                         write 0.06 s\"\n"
           "\n"
           "Other options:\n"
           "  --json                 describe: one JSON object instead of text\n"
           "  --columns N            contact-sheet: thumbnails per row (default: about as\n"
           "                         many columns as rows)\n"
           "  --module PATH          the filter module to load (default: next to the\n"
           "                         program, or $BITMAPFILTER_MODULE)\n"
           "  -q, --quiet            no progress bar and no confirmation\n"
           "  -h, --help             this text\n"
           "  --version              the program's version\n"
           "\n"
           "Filters:\n" +
           keys +
           "\n"
           "Files: PNG (8/16-bit), TIFF (8/16-bit, float), OpenEXR (float), JPEG (8-bit),\n"
           "PGM/PPM/PNM (8/16-bit) and PFM (float) are written; every format the image\n"
           "library knows is read. 1 to 4 channels; a last alpha channel stays straight\n"
           "and is left untouched by tonal filters. Pixels keep their type: 8 and 16-bit\n"
           "integers stay as they are; every other type (half, 32-bit integers, double)\n"
           "is read as float. The output keeps the input's type and channels unless\n"
           "--type; a file type that cannot hold them is an error, never a silent\n"
           "conversion. The output is written whole or not at all. A file that is cut\n"
           "short or damaged is refused (exit status 2), also when the image library\n"
           "could read part of it.\n"
           "\n"
           "Compression, lossless only (zip:N is deflate at level N, 1 the fastest):\n" +
           CompressionChoices() +
           "PNG is always deflate: none stores, zip is level 6. An OUTPUT of INPUT's\n"
           "format keeps INPUT's compression when the file states one of these (PNG\n"
           "files do not), else it gets the default. JPEG, PGM/PPM/PNM and PFM have no\n"
           "choice.\n"
           "\n"
           "Ctrl-C stops the filter and writes nothing; a second Ctrl-C quits at once.\n"
           "\n"
           "Exit status: 0 done, 2 bad command line, file, preset, gadget or value, 3 the\n"
           "filter or its dialog failed, or the filter is not available, 130 interrupted.\n";
}

std::string VersionText() {
    return "bitmapfilter " + std::string(kVersion) + " (OpenImageIO " OIIO_VERSION_STRING ")\n";
}

}  // namespace bf::cli
