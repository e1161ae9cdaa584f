// Invert over a 4096 x 4096 RGBA document per component type, through the
// whole host path (application, settings callbacks, one destination tile,
// the line fetcher's strips, progress, write-back, commit); and that host
// path alone, without the filter: the difference is Invert's own work.
#include "bench_support.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

namespace {

using bench::kSide;
constexpr int32_t kInvertId = 1000576;

void BM_Invert(benchmark::State& state, bf::ComponentType type) {
    const auto* filter = bench::StartedModule().find(kInvertId);
    bf::Document document(bench::TestImage(type));
    auto settings = bf::Settings::Defaults(*filter->record);
    // Untimed runs first: the host's buffers are then in its pool, as in
    // steady use, and fresh memory is not what is measured.
    for (int warm = 0; warm < 2; ++warm) bf::ApplyFilter(*filter->record, document, *settings);
    for (auto _ : state) {
        if (bf::ApplyFilter(*filter->record, document, *settings) != 0) {
            state.SkipWithError("invert failed");
            break;
        }
    }
    bench::SetRate(state, double(kSide) * kSide);
}

// What Invert asks of the host, nothing computed: an application, the
// whole-area destination tile, every source row through the line fetcher,
// the tile written back and the application committed. False on a failure.
bool HostPathOnce(bf::Document& document) {
    const KPX_BITMAP_API& bitmap = *bf::Host::Get().table()->bitmap;
    bf::Application application(document);
    BM_INFO* info = application.info();
    BM_TILE* tile = bitmap.ObtainTile(info, &info->area, 0, 0, KPX_TILE_WRITE, 0);
    bench::FetcherPtr fetcher(kpx::CreateLineFetcher(info, info->area.x1, info->area.x2,
                                                     KPX_BORDER_CLAMP, KPX_TILE_READ, nullptr,
                                                     kpx::kFetchNotify));
    if (!tile || !fetcher) return false;
    for (int32_t y = info->area.y1; y < info->area.y2; ++y) {
        const void* line = kpx::FetchLine(fetcher.get(), y);
        if (!line) return false;
        benchmark::DoNotOptimize(line);
        kpx::ReleaseLine(fetcher.get(), y);
    }
    fetcher.reset();
    bitmap.ReleaseTile(info, tile, 1);
    application.commit();
    return true;
}

void BM_HostPath(benchmark::State& state, bf::ComponentType type) {
    bench::StartedModule();  // the fetcher reaches the host through the module
    bf::Document document(bench::TestImage(type));
    for (int warm = 0; warm < 2; ++warm) HostPathOnce(document);  // untimed, as in BM_Invert
    for (auto _ : state) {
        if (!HostPathOnce(document)) {
            state.SkipWithError("no tile, no fetcher or a failed fetch");
            break;
        }
    }
    bench::SetRate(state, double(kSide) * kSide);
}

}  // namespace

BENCHMARK_CAPTURE(BM_Invert, u8, bf::ComponentType::U8)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Invert, u16, bf::ComponentType::U16)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Invert, float, bf::ComponentType::F32)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_HostPath, u8, bf::ComponentType::U8)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_HostPath, u16, bf::ComponentType::U16)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_HostPath, float, bf::ComponentType::F32)->Apply(bench::WholeImage);
