// The shader operator reading a large 16-bit height map: a 4097 x 4097 PNG sampled
// bilinearly onto a 4001 x 4001 grid, against memcpy of the grid's bytes in the same run.

#include <benchmark/benchmark.h>

#include <unistd.h>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "memcpy_baseline.h"
#include "object/operator_shader.h"
#include "operator_bench.h"
#include "platform/image.h"

namespace {

using namespace platform;

constexpr Int kPictureSide = 4097;
constexpr Int kGridSide = 4001;

// Written once per process into the temporary folder, removed at exit.
const std::filesystem::path& HeightMap() {
  static const std::filesystem::path path = [] {
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("vellgrund-bench-" + std::to_string(::getpid()) + ".png");
    Result<Image> image = Image::Create(kPictureSide, kPictureSide, 1, PixelType::UInt16);
    if (!image) std::abort();
    auto* pixels = reinterpret_cast<std::uint16_t*>(image->Bytes().data());
    for (Int y = 0; y < kPictureSide; ++y)
      for (Int x = 0; x < kPictureSide; ++x)
        pixels[y * kPictureSide + x] = static_cast<std::uint16_t>(
            32767.0 + 32767.0 * std::sin(0.003 * static_cast<double>(x)) * std::cos(0.002 * static_cast<double>(y)));
    if (!WriteImage(*image, file)) std::abort();
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove(HeightMap(), ignored);
    });
    return file;
  }();
  return path;
}

void BM_ShaderOperatorHeightMap(benchmark::State& state) {
  vellgrund_bench::OperatorBench bench(VLGD::ID_SHADEROPERATOR, kGridSide);
  bench.Set(VLGD::SHADEROPERATOR_FILE, HeightMap().string());
  bench.Set(VLGD::SHADEROPERATOR_INTERPOLATION, static_cast<Int32>(VLGD::SAMPLEINTERPOLATION::BILINEAR));
  const ScopedThreadLimit threads(static_cast<int>(state.range(0)));
  bench.Compute(state);  // the file is read here, once; the timed runs reuse the picture
  vellgrund_bench::TimeAgainstMemcpy(state, static_cast<std::size_t>(kGridSide * kGridSide) * sizeof(Float),
                                     [&] { bench.Compute(state); });
  state.counters["threads"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_ShaderOperatorHeightMap)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
