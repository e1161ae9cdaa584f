// pnmfile.hpp - writing the portable any-map family: PGM and PPM (8 and 16
// bit) and PFM (float). The image library reads them all, but the version we
// build against cannot write PFM and garbles 16-bit samples, so we write these
// simple formats ourselves. Its reader also misreads 16-bit samples (65535
// comes back as 65534), so 16-bit PGM and PPM are read here too.
#pragma once

#include <filesystem>
#include <optional>

#include "runtime.hpp"

namespace bf::cli {

// `image` has 1 or 3 components, no alpha; u8 or u16 for PGM/PPM, float for
// PFM (`float_map`). Returns false when the file could not be written.
bool WritePnm(const std::filesystem::path& file, const Image& image, bool float_map);

// A binary PGM or PPM with 16-bit samples (maximum 65535); nothing for any
// other file, which the image library then reads. Throws CliError for such a
// file that is cut short.
std::optional<Image> ReadPnm16(const std::filesystem::path& file);

}  // namespace bf::cli
