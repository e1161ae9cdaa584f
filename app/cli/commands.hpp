// commands.hpp - what each `bitmapfilter` command does.
#pragma once

#include "options.hpp"

namespace bf::cli {

// Each returns the exit status, or throws CliError.
int RunList(const Options& options);
int RunApply(const Options& options);
int RunDescribe(const Options& options);
int RunContactSheet(const Options& options);

}  // namespace bf::cli
