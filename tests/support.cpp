#include "support.hpp"

#include <cstring>
#include <random>
#include <stdexcept>

namespace bf::test {

Image RandomImage(const ImageFormat& format, uint32_t seed) {
    Image image(format);
    std::mt19937 random(seed);
    const std::size_t count = image.pixels.size() / ComponentSize(format.type);
    switch (format.type) {
        case ComponentType::U8:
            for (std::size_t i = 0; i < count; ++i)
                reinterpret_cast<uint8_t*>(image.pixels.data())[i] = uint8_t(random() >> 24);
            break;
        case ComponentType::U16:
            for (std::size_t i = 0; i < count; ++i)
                reinterpret_cast<uint16_t*>(image.pixels.data())[i] = uint16_t(random() >> 16);
            break;
        case ComponentType::F32:
            for (std::size_t i = 0; i < count; ++i)
                reinterpret_cast<float*>(image.pixels.data())[i] =
                    float(random() >> 8) / float(1 << 24) * 1.5f - 0.25f;
            break;
    }
    return image;
}

std::string CaseName(const FileCase& file) {
    return std::string(file.extension + 1) + "_" + std::string(ComponentTypeName(file.type)) + "_" +
           std::to_string(file.components) + (file.alpha ? "_alpha" : "");
}

TempDir::TempDir() {
    std::random_device entropy;
    for (int attempt = 0; attempt < 100; ++attempt) {
        auto candidate = std::filesystem::temp_directory_path() /
                         ("bitmapfilter-test-" + std::to_string(entropy()));
        if (std::filesystem::create_directory(candidate)) {
            path_ = candidate;
            return;
        }
    }
    throw std::runtime_error("cannot create a temporary folder");
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace bf::test
