// commands.hpp - what `bitmapfilter list` and `bitmapfilter apply` do.
#pragma once

#include "options.hpp"

namespace bf::cli {

// Both return the exit status, or throw CliError.
int RunList(const Options& options);
int RunApply(const Options& options);

}  // namespace bf::cli
