// pnmfile.hpp - the portable any-map family by hand: binary PGM and PPM (8
// and 16 bit) and PFM (float). The image library reads them, but the version
// we build against cannot write PFM, garbles 16-bit samples on the way out and
// misreads them on the way in (65535 comes back as 65534), and says nothing
// useful about a file cut short, so we read and write these simple formats
// ourselves.
#pragma once

#include <filesystem>
#include <optional>

#include "runtime.hpp"

namespace bf::cli {

// `image` has 1 or 3 components, no alpha; u8 or u16 for PGM/PPM, float for
// PFM (`float_map`). Returns false when the file could not be written.
bool WritePnm(const std::filesystem::path& file, ImageView image, bool float_map);

// A binary PGM or PPM with 8 or 16-bit samples (maximum 255 or 65535), or a
// PFM; nothing for any other file, which the image library then reads.
// Throws CliError for such a file whose header is damaged or that is cut
// short.
std::optional<Image> ReadPnm(const std::filesystem::path& file);

}  // namespace bf::cli
