// tempfile.hpp - write a file whole or not at all.
#pragma once

#include <cstddef>
#include <filesystem>
#include <span>
#include <vector>

namespace bf::cli {

// A temporary name in the target's folder, ending in the target's extension
// (writers choose the file variant by it). commit() renames it onto the
// target; otherwise the destructor deletes whatever was written under it.
class TempFile {
public:
    explicit TempFile(const std::filesystem::path& target);
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    const std::filesystem::path& path() const { return path_; }
    void commit();  // throws CliError when the rename fails

private:
    std::filesystem::path target_;
    std::filesystem::path path_;
    bool committed_ = false;
};

// Reads a whole file; throws CliError naming `what` ("preset") on failure.
std::vector<std::byte> ReadWholeFile(const std::filesystem::path& file, const char* what);
// Writes bytes to a file through a TempFile; throws CliError on failure.
void WriteWholeFile(const std::filesystem::path& file, std::span<const std::byte> bytes);

}  // namespace bf::cli
