// Shared test helpers: images with known content and scratch folders.
#pragma once

#include "runtime.hpp"

#include <cstdint>
#include <filesystem>

namespace bf::test {

// An image of the given format filled from a fixed pseudo-random sequence:
// u8 and u16 over their whole range, float over [-0.25, 1.25) so values
// outside the nominal range are exercised too.
Image RandomImage(const ImageFormat& format, uint32_t seed = 1);

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
