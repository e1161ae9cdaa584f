// filterinvert.cpp - Invert: every colour component becomes its complement.
// No parameters and no dialog; the reference user of the line-wise frame.
#include "filterplain.hpp"
#include "kpx_preview/pixeltraits.hpp"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
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

constexpr SettingsField kFields[] = {
    // Deliberately not read back from a blob: a restored Invert always clamps.
    {.offset = offsetof(InvertSettings, border_mode),
     .type = FieldType::U32,
     .initial = KPX_BORDER_CLAMP,
     .range = BlobRange::NotRead},
};

// Which lanes of a period are colours (all ones) and which the leading
// alpha (zero), as bits of the component's width.
template <int N, class Bits, std::size_t kPeriod>
constexpr std::array<Bits, kPeriod> ColourLanes() {
    std::array<Bits, kPeriod> lanes{};
    for (std::size_t k = 0; k < kPeriod; ++k) lanes[k] = k % N == 0 ? Bits(0) : Bits(~Bits(0));
    return lanes;
}

// One line of `count` components, N per pixel: colours become their
// complement (integers 255 - v and 65535 - v, floats 1 - v, unclamped), a
// leading alpha component is kept. Worked in periods of N 16-byte blocks,
// which hold whole pixels, choosing between the value and its complement by
// a fixed bit mask, so the compiler turns each period into vector
// operations; the tail one by one.
template <int N, class T>
void InvertComponents(const T* __restrict source, T* __restrict dest, std::size_t count,
                      bool alpha) {
    using Traits = kpx::PixelTraits<T>;
    using Bits = std::conditional_t<sizeof(T) == 1, uint8_t,
                                    std::conditional_t<sizeof(T) == 2, uint16_t, uint32_t>>;
    constexpr std::size_t kPeriod = N * (16 / sizeof(T));
    static constexpr std::array<Bits, kPeriod> kColour = ColourLanes<N, Bits, kPeriod>();
    std::size_t i = 0;
    if (!alpha) {
        for (; i + kPeriod <= count; i += kPeriod)
            for (std::size_t k = 0; k < kPeriod; ++k)
                dest[i + k] = Traits::Complement(source[i + k]);
    } else {
        for (; i + kPeriod <= count; i += kPeriod)
            for (std::size_t k = 0; k < kPeriod; ++k) {
                const Bits value = std::bit_cast<Bits>(source[i + k]);
                const Bits complement = std::bit_cast<Bits>(Traits::Complement(source[i + k]));
                dest[i + k] =
                    std::bit_cast<T>(Bits((complement & kColour[k]) | (value & Bits(~kColour[k]))));
            }
    }
    for (; i < count; ++i)
        dest[i] = alpha && i % N == 0 ? source[i] : Traits::Complement(source[i]);
}

template <class T>
void InvertLine(const LinePair<T>& line, bool alpha) {
    const T* in = line.source.data();
    T* out = line.dest.data();
    const std::size_t count = line.source.size();
    switch (line.components) {
        case 1: return InvertComponents<1>(in, out, count, alpha);
        case 2: return InvertComponents<2>(in, out, count, alpha);
        case 3: return InvertComponents<3>(in, out, count, alpha);
        case 4: return InvertComponents<4>(in, out, count, alpha);
        default:
            for (std::size_t i = 0; i < count; ++i)
                out[i] = alpha && i % std::size_t(line.components) == 0
                             ? in[i]
                             : kpx::PixelTraits<T>::Complement(in[i]);
    }
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
