// bitmapfilter: the module's filters on image files, from the command line.
#include <cstdio>
#include <exception>
#include <new>
#include <span>

#include "commands.hpp"
#include "editor.hpp"
#include "errors.hpp"
#include "options.hpp"

namespace {

int Fail(const char* message, int status) {
    std::fprintf(stderr, "bitmapfilter: %s\n", message);
    return status;
}

int Run(std::span<const char* const> args) {
    using namespace bf::cli;
    const Options options = ParseOptions(args);
    switch (options.command) {
        case Command::Help: std::fputs(UsageText().c_str(), stdout); return kExitOk;
        case Command::Version: std::fputs(VersionText().c_str(), stdout); return kExitOk;
        case Command::List: return RunList(options);
        case Command::Apply: return RunApply(options);
        case Command::Describe: return RunDescribe(options);
        case Command::ContactSheet: return RunContactSheet(options);
        case Command::Edit:
            return bf::web::RunEditor(
                {options.input, options.port.value_or(0), !options.no_browser, options.module});
    }
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(std::span<const char* const>(argv + 1, argc > 0 ? argc - 1 : 0));
    } catch (const bf::cli::CliError& error) {
        return Fail(error.what(), error.status());
    } catch (const std::bad_alloc&) {
        return Fail("out of memory", bf::cli::kExitUsage);
    } catch (const std::exception& error) {
        return Fail(error.what(), bf::cli::kExitUsage);
    } catch (...) {
        return Fail("unexpected failure", bf::cli::kExitUsage);
    }
}
