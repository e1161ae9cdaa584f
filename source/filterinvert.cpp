// filterinvert.cpp - Invert: every colour component becomes its complement.
// No parameters and no dialog; the reference user of the line-wise frame.
#include "filterplain.hpp"
#include "kpx_preview/pixeltraits.hpp"

#include <cstddef>

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

constexpr SettingsField kFields[] = {
    // Deliberately not read back from a blob: a restored Invert always clamps.
    {.offset = offsetof(InvertSettings, border_mode),
     .type = FieldType::U32,
     .initial = KPX_BORDER_CLAMP,
     .range = BlobRange::NotRead},
};

// Whole 16-byte blocks with a fixed count, which the compiler turns into
// vector operations; the tail one by one. Integers turn bitwise (255 - v,
// 65535 - v); floats become 1 - v.
template <class T>
void ComplementRun(const T* __restrict source, T* __restrict dest, std::size_t count) {
    using Traits = kpx::PixelTraits<T>;
    constexpr std::size_t kBlock = 16 / sizeof(T);
    std::size_t i = 0;
    for (; i + kBlock <= count; i += kBlock)
        for (std::size_t k = 0; k < kBlock; ++k) dest[i + k] = Traits::Complement(source[i + k]);
    for (; i < count; ++i) dest[i] = Traits::Complement(source[i]);
}

template <class T>
void InvertLine(const LinePair<T>& line, bool alpha) {
    ComplementRun(line.source.data(), line.dest.data(), line.source.size());
    if (!alpha) return;
    // The alpha component leads each pixel and passes through unchanged.
    for (std::size_t i = 0; i < line.source.size(); i += line.components)
        line.dest[i] = line.source[i];
}

// There is no dialog, so nothing passes an area, a tile or a thread.
int32_t ApplyInvert(BM_INFO* info, const RECT32*, BM_TILE*, const InvertSettings& settings, bool,
                    BaseThread*) {
    const bool alpha = (info->pixel_flags & KPX_PIXEL_ALPHA) != 0;
    return ApplyLinewise(info, settings.border_mode,
                         [alpha](const auto& line) { InvertLine(line, alpha); });
}

constexpr PlainFilterSpec<InvertSettings> kSpec{
    .code = kInvertCode,
    .fields = kFields,
    .apply = &ApplyInvert,
};

}  // namespace

// There is no dialog: Invert applies whatever the host asks for.
constexpr BitmapFilterDescriptor kInvertFilter =
    MakeFilterRecord<PlainFilter<InvertSettings, kSpec>>(kRow);

bool RegisterInvert() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
