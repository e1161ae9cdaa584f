// filterinvert.cpp - Invert: every colour component becomes its complement.
// No parameters and no dialog; the reference user of the line-wise frame.
#include "filterbase.hpp"

#include <cstddef>
#include <limits>
#include <type_traits>

namespace bfm {

namespace {

struct InvertSettings {
    uint32_t code;         // "nvrt"
    uint32_t border_mode;  // passed to the line fetcher: 1 clamps reads at the edges, 2 wraps
};
static_assert(sizeof(InvertSettings) == 8);
static_assert(offsetof(InvertSettings, border_mode) == 4);

constexpr const FilterRow& kRow = FilterRowOf("invert");
constexpr uint32_t kInvertCode = FourCC("nvrt");
static_assert(kRow.code == kInvertCode);

constexpr SettingsField kInvertFields[] = {
    // Deliberately not read back from a blob: a restored Invert always clamps.
    {.offset = offsetof(InvertSettings, border_mode),
     .type = FieldType::U32,
     .initial = KPX_BORDER_CLAMP,
     .range = BlobRange::NotRead},
};
constexpr SettingsLayout kInvertLayout{kInvertCode, sizeof(InvertSettings), kInvertFields};
static_assert(FieldsFit(kInvertLayout));

// Integers turn bitwise (255 - v, 65535 - v); floats are not clamped, so 1.5
// becomes -0.5.
template <class T>
T Complement(T value) {
    if constexpr (std::is_floating_point_v<T>)
        return 1.0f - value;
    else
        return static_cast<T>(std::numeric_limits<T>::max() - value);
}

// Whole 16-byte blocks with a fixed count, which the compiler turns into
// vector operations; the tail one by one.
template <class T>
void ComplementRun(const T* __restrict source, T* __restrict dest, std::size_t count) {
    constexpr std::size_t kBlock = 16 / sizeof(T);
    std::size_t i = 0;
    for (; i + kBlock <= count; i += kBlock)
        for (std::size_t k = 0; k < kBlock; ++k) dest[i + k] = Complement(source[i + k]);
    for (; i < count; ++i) dest[i] = Complement(source[i]);
}

template <class T>
void InvertLine(const LinePair<T>& line, bool alpha) {
    ComplementRun(line.source.data(), line.dest.data(), line.source.size());
    if (!alpha) return;
    // The alpha component leads each pixel and passes through unchanged.
    for (std::size_t i = 0; i < line.source.size(); i += line.components)
        line.dest[i] = line.source[i];
}

int32_t ApplyInvert(BM_INFO* info, const InvertSettings& settings) {
    const bool alpha = (info->pixel_flags & KPX_PIXEL_ALPHA) != 0;
    return ApplyLinewise(info, settings.border_mode,
                         [alpha](const auto& line) { InvertLine(line, alpha); });
}

struct InvertFilter {
    static void* CreateDefaultSettings(void*) { return CreateSettings(kInvertLayout); }
    static int32_t FreeSettings(void* settings) { return bfm::FreeSettings(settings); }
    static void* SettingsToBlob(const void* settings, KpxBlobAllocator allocate) {
        return bfm::SettingsToBlob(settings, kInvertLayout.size, allocate);
    }
    static void* SettingsFromBlob(const void* blob) {
        return bfm::SettingsFromBlob(kInvertLayout, blob);
    }
    static int32_t PrepareApply(BM_INFO*, void* settings) {
        return CheckCode(settings, kInvertCode);
    }
    static int32_t FinishApply(BM_INFO*, void* settings) {
        return CheckCode(settings, kInvertCode);
    }
    // There is no dialog: Invert applies whatever the host asks for.
    static int32_t Execute(BM_INFO* info, void* settings, bool) {
        if (!HasCode(settings, kInvertCode)) return KPX_NOT_MINE;
        if (!info) return KPX_STOPPED;
        return ApplyInvert(info, *static_cast<const InvertSettings*>(settings));
    }
};

}  // namespace

constexpr BitmapFilterDescriptor kInvertFilter = MakeFilterRecord<InvertFilter>(kRow);

bool RegisterInvert() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
