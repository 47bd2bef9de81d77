#include <benchmark/benchmark.h>
#include <libnoise/noise.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "platform/noise.h"

namespace {

using namespace platform;

constexpr int kPoints = 4096;

// A sweep through many lattice cells in all three axes, as a terrain's samples would be.
template <class Sample>
void Sweep(benchmark::State& state, Sample&& sample) {
  for (auto _ : state) {
    double sum = 0.0;
    for (int k = 0; k < kPoints; ++k) {
      const double t = static_cast<double>(k);
      sum += sample(t * 0.0713 - 50.0, t * 0.0031 + 0.25, 30.0 - t * 0.0537);
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kPoints);
}

std::unique_ptr<NoiseGenerator> Generator() {
  auto generator = NoiseGenerator::Alloc(1234);
  if (!generator) std::abort();
  return std::move(*generator);
}

// Samples per second of every noise type through the library, 5 octaves where they count.
void BM_NoiseType(benchmark::State& state) {
  const auto noise = Generator();
  const auto type = static_cast<Int32>(state.range(0));
  const bool twoD = state.range(1) != 0;
  state.SetLabel(std::string(FindNoiseType(type)->name).append(twoD ? " 2-D" : " 3-D"));
  Sweep(state, [&](double x, double y, double z) {
    return noise->Noise(type, twoD, Vector(x, y, z), 0.0, 5.0, false, 0.0, 0.0, 0);
  });
}
// The same sweep through the row path, a row of kPoints per call.
void BM_NoiseTypeRow(benchmark::State& state) {
  const auto noise = Generator();
  const auto type = static_cast<Int32>(state.range(0));
  const bool twoD = state.range(1) != 0;
  state.SetLabel(std::string(FindNoiseType(type)->name).append(twoD ? " 2-D" : " 3-D"));
  std::vector<double> x(kPoints), y(kPoints), z(kPoints), out(kPoints);
  for (int k = 0; k < kPoints; ++k) {
    const double t = static_cast<double>(k);
    x[std::size_t(k)] = t * 0.0713 - 50.0, y[std::size_t(k)] = t * 0.0031 + 0.25, z[std::size_t(k)] = 30.0 - t * 0.0537;
  }
  for (auto _ : state) {
    noise->NoiseRow(type, twoD, {x.data(), y.data(), z.data(), kPoints}, 0.0, 5.0, false, 0.0, 0.0, 0, out.data());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * kPoints);
}
void NoiseTypeArguments(benchmark::internal::Benchmark* b) {
  for (const NoiseTypeInfo& info : NoiseTypes())
    for (const int twoD : {1, 0}) b->Args({static_cast<int64_t>(info.type), twoD});
}
BENCHMARK(BM_NoiseType)->Apply(NoiseTypeArguments);
BENCHMARK(BM_NoiseTypeRow)->Apply(NoiseTypeArguments);

// Our gradient noise and fBm against a widely used reference implementation of the same
// algorithms: one octave with a quintic fade, and five octaves with lacunarity 2 and gain 0.5.
void SweepVellgrund(benchmark::State& state, NoiseType type, Float octaves) {
  const auto noise = Generator();
  if (!noise->InitFbm(12, 2.0, 1.0)) std::abort();
  Sweep(state, [&](double x, double y, double z) {
    return noise->Noise(static_cast<Int32>(type), false, Vector(x, y, z), 0.0, octaves, false, 0.0, 0.0, 0);
  });
}
void SweepLibnoise(benchmark::State& state, int octaves) {
  noise::module::Perlin perlin;
  perlin.SetOctaveCount(octaves);
  perlin.SetNoiseQuality(noise::QUALITY_BEST);
  Sweep(state, [&](double x, double y, double z) { return perlin.GetValue(x, y, z); });
}
void BM_Gradient3D_Vellgrund(benchmark::State& state) {
  SweepVellgrund(state, NoiseType::PERLIN, 1.0);
}
void BM_Gradient3D_Libnoise(benchmark::State& state) {
  SweepLibnoise(state, 1);
}
void BM_Fbm3D_Vellgrund(benchmark::State& state) {
  SweepVellgrund(state, NoiseType::FBM, 5.0);
}
void BM_Fbm3D_Libnoise(benchmark::State& state) {
  SweepLibnoise(state, 5);
}
BENCHMARK(BM_Gradient3D_Vellgrund);
BENCHMARK(BM_Gradient3D_Libnoise);
BENCHMARK(BM_Fbm3D_Vellgrund);
BENCHMARK(BM_Fbm3D_Libnoise);

}  // namespace
