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

// scalelin.cpp: one line at a time, in the sums `S` (float components in
// double; integer ones in 32 bits where the largest box cannot overflow them,
// else in 64), for one component count.
template <class T, class S>
struct LineRoutines {
    // Adds every pixel of each x span of `src` into that output pixel's sums,
    // in source order.
    void (*accumulate)(const T* src, std::span<const Span> xs, int components, S* sums);
    // Turns the sums of `rows` accumulated lines into output pixels.
    void (*store)(const S* sums, std::span<const Span> xs, uint64_t rows, int components, T* dst);
    // An output line of single source pixels (no box larger than one pixel):
    // pixel xs[i].begin of `src` for each i.
    void (*pick)(const T* src, std::span<const Span> xs, int components, T* dst);
};

// The routines for that many components per pixel (unrolled for 1 to 4).
template <class T, class S>
LineRoutines<T, S> RoutinesFor(int components);

}  // namespace kpx::scaling
