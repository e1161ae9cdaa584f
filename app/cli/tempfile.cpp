#include "tempfile.hpp"

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <system_error>

#include "errors.hpp"
#include "interrupt.hpp"

namespace bf::cli {
namespace {

std::filesystem::path UnusedTempName(const std::filesystem::path& target) {
    static std::atomic<int> counter = 0;
    const std::filesystem::path folder = target.parent_path();
    for (;;) {
        const std::string name = "." + target.stem().string() + ".tmp-" + std::to_string(getpid()) +
                                 "-" + std::to_string(++counter) + target.extension().string();
        std::filesystem::path candidate = folder / name;
        std::error_code error;
        if (!std::filesystem::exists(std::filesystem::symlink_status(candidate, error)))
            return candidate;
    }
}

}  // namespace

TempFile::TempFile(const std::filesystem::path& target)
    : target_(target), path_(UnusedTempName(target)) {
    TrackUnfinishedFile(path_);
}

TempFile::~TempFile() {
    if (!committed_) {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    ForgetUnfinishedFile(path_);
}

void TempFile::commit() {
    std::error_code error;
    std::filesystem::rename(path_, target_, error);
    if (error)
        throw CliError(kExitUsage, "cannot write " + target_.string() + ": " + error.message());
    committed_ = true;
}

std::vector<std::byte> ReadWholeFile(const std::filesystem::path& file, const char* what) {
    std::ifstream in(file, std::ios::binary);
    std::vector<std::byte> bytes;
    if (in) {
        in.seekg(0, std::ios::end);
        const std::streamoff size = in.tellg();
        in.seekg(0);
        if (size >= 0) {
            bytes.resize(static_cast<std::size_t>(size));
            in.read(reinterpret_cast<char*>(bytes.data()), size);
        }
    }
    if (!in) throw CliError(kExitUsage, std::string("cannot read ") + what + " " + file.string());
    return bytes;
}

void WriteWholeFile(const std::filesystem::path& file, std::span<const std::byte> bytes) {
    TempFile temp(file);
    {
        std::ofstream out(temp.path(), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
        out.close();
        if (!out) throw CliError(kExitUsage, "cannot write " + file.string());
    }
    temp.commit();
}

}  // namespace bf::cli
