// Shared test helpers: images with known content and scratch folders.
#pragma once

#include "runtime.hpp"

#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>

namespace bf::test {

// An image of the given format filled from a fixed pseudo-random sequence:
// u8 and u16 over their whole range, float over [-0.25, 1.25) so values
// outside the nominal range are exercised too.
Image RandomImage(const ImageFormat& format, uint32_t seed = 1);

// One kind of image file for tests over formats: extension, type, channels.
struct FileCase {
    const char* extension;  // ".tif"
    ComponentType type;
    int components;
    bool alpha;
};
std::string CaseName(const FileCase& file);  // "tif_u16_2_alpha"
// Test output shows a case by its name rather than its bytes.
inline void PrintTo(const FileCase& file, std::ostream* out) {
    *out << CaseName(file);
}

// A fresh folder under the system's temporary folder, removed on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

}  // namespace bf::test
