// scale.hpp - the scaler's inner parts, shared by its source files only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>
#include <vector>

namespace kpx::scaling {

// The source pixels begin..end-1 that make up one output pixel along one axis.
struct Span {
    int32_t begin;
    int32_t end;
};

// Integer components are summed exactly, float ones in double.
template <class T>
using Sum = std::conditional_t<std::is_floating_point_v<T>, double, uint64_t>;

struct SourceBlock {
    const std::byte* data;
    std::ptrdiff_t line_bytes;
    int32_t width;
    int32_t height;
};

struct TargetBlock {
    std::byte* data;
    std::ptrdiff_t line_bytes;
    int32_t width;
    int32_t height;
};

// scale.cpp: the 2-D driver.
std::vector<Span> AxisSpans(int32_t source, int32_t target);
template <class T>
void Scale(const SourceBlock& src, const TargetBlock& dst, int components);

// scalelin.cpp: one line at a time.
// Adds every pixel of each x span of `src` into that output pixel's sums.
template <class T>
void AccumulateLine(const T* src, std::span<const Span> xs, int components, Sum<T>* sums);
// Turns the sums of `rows` accumulated lines into output pixels.
template <class T>
void StoreMeans(const Sum<T>* sums, std::span<const Span> xs, int64_t rows, int components, T* dst);

}  // namespace kpx::scaling
