#include "vellgrund/erosion_hydraulic.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "platform/cancellation.h"
#include "platform/memory.h"
#include "platform/parallel.h"
#include "platform/progress.h"
#include "platform/random.h"
#include "vellgrund/erosion_hydraulic_internal.h"

namespace VLGD::Erosion {
namespace detail {
namespace {

Status CheckShape(const Grid2D<Float>& grid) {
  if (grid.Width() < 0 || grid.Height() < 0 || !(grid.SizeX() > 0.0) || !(grid.SizeY() > 0.0) ||
      !std::isfinite(grid.SizeX()) || !std::isfinite(grid.SizeY()))
    return platform::IllegalArgumentError(kInvalidShape);
  return platform::Ok();
}

template <class T>
Status Allocate(platform::LargeArray<T>& values, Int count) {
  if (!platform::TryResize(values, count))
    return platform::OutOfMemoryError("Not enough memory for the hydraulic erosion!");
  return platform::Ok();
}

}  // namespace

Status HydraulicSimulation::Init(const Grid2D<Float>& terrain) {
  VLGD_RETURN_IF_ERROR(CheckShape(terrain));
  const Int width = terrain.Width();
  const Int height = terrain.Height();
  const Int count = terrain.Count();
  const int slots = std::max(1, platform::MaxThreads());
  if (width != allocatedWidth_ || height != allocatedHeight_ || slots > scratchSlots_) {
    Release();
    for (int i = 0; i < 2; ++i) {
      VLGD_RETURN_IF_ERROR(Allocate(terrain_[i], count));
      VLGD_RETURN_IF_ERROR(Allocate(water_[i], count));
      for (auto& flux : flux_[i]) VLGD_RETURN_IF_ERROR(Allocate(flux, count));
    }
    for (auto& sediment : sediment_) VLGD_RETURN_IF_ERROR(Allocate(sediment, count));
    VLGD_RETURN_IF_ERROR(Allocate(deferredCount_, height));
    VLGD_RETURN_IF_ERROR(Allocate(deferred_, count * 3));
    if (!scratch_.Allocate(kScratchRows * width))
      return platform::OutOfMemoryError("Not enough memory for the hydraulic erosion!");
    allocatedWidth_ = width;
    allocatedHeight_ = height;
    scratchSlots_ = slots;
  } else {
    // Kept storage: only the state the first iteration reads needs its zeros again.
    std::fill(water_[0].begin(), water_[0].end(), 0.0);
    for (auto& flux : flux_[0]) std::fill(flux.begin(), flux.end(), 0.0);
    std::fill(sediment_[0].begin(), sediment_[0].end(), 0.0);
  }
  width_ = width;
  height_ = height;
  current_ = 0;
  deferredSamples_ = 0;
  std::copy(terrain.Data(), terrain.Data() + count, terrain_[0].data());
  return platform::Ok();
}

void HydraulicSimulation::Release() {
  allocatedWidth_ = -1;
  allocatedHeight_ = -1;
  scratchSlots_ = 0;
  width_ = 0;
  height_ = 0;
  for (int i = 0; i < 2; ++i) {
    terrain_[i] = {};
    water_[i] = {};
    sediment_[i] = {};
    for (auto& flux : flux_[i]) flux = {};
  }
  deferredCount_ = {};
  deferred_ = {};
  scratch_ = ScratchPool();
}

void AddRain(Int width, Int height, Float* water) {
  // The same seed every iteration: it rains on the same spots each time.
  platform::Random random;
  random.Init(kRainSeed);
  for (int drop = 0; drop < kRainDrops; ++drop) {
    const Int x = 1 + static_cast<Int>(random.Get01() * static_cast<Float>(width - 2));
    const Int y = 1 + static_cast<Int>(random.Get01() * static_cast<Float>(height - 2));
    for (Int yy = std::max<Int>(0, y - 1); yy <= std::min(height - 1, y + 1); ++yy)
      for (Int xx = std::max<Int>(0, x - 1); xx <= std::min(width - 1, x + 1); ++xx)
        water[yy * width + xx] += kRainAmount;
  }
}

void AddSource(Int width, Int height, Float* water) {
  const Int cx = width / 2;
  const Int cy = height / 2;
  constexpr Int kRadius2 = kSourceRadius * kSourceRadius;
  for (Int dy = -kSourceRadius; dy <= kSourceRadius; ++dy) {
    const Int y = cy + dy;
    if (y < 0 || y >= height) continue;
    for (Int dx = -kSourceRadius; dx <= kSourceRadius; ++dx) {
      const Int x = cx + dx;
      const Int d2 = dx * dx + dy * dy;
      if (x < 0 || x >= width || d2 > kRadius2) continue;
      water[y * width + x] += static_cast<Float>(kRadius2 - d2) * kStep * kSourceRate;
    }
  }
}

Status HydraulicSimulation::Step() {
  if (width_ == 0 || height_ == 0) return platform::Ok();
  AddRain(width_, height_, water_[current_].data());
  AddSource(width_, height_, water_[current_].data());
  VLGD_RETURN_IF_ERROR(Sweep());
  VLGD_RETURN_IF_ERROR(FetchDeferred());
  current_ ^= 1;
  return platform::Ok();
}

}  // namespace detail

Status HydraulicErosion(Grid2D<Float>& grid, Int32 iterations, const EvaluationContext& context) {
  detail::HydraulicSimulation simulation;
  return HydraulicErosion(grid, iterations, context, simulation);
}

Status HydraulicErosion(Grid2D<Float>& grid, Int32 iterations, const EvaluationContext& context,
                        detail::HydraulicSimulation& simulation) {
  VLGD_RETURN_IF_ERROR(detail::CheckShape(grid));
  if (iterations <= 0 || grid.IsEmpty()) return platform::Ok();
  VLGD_RETURN_IF_ERROR(simulation.Init(grid));
  for (Int32 i = 0; i < iterations; ++i) {
    if (context.progress != nullptr) {
      context.progress->SetStatus("Calculating Hydraulic Erosion iteration " + std::to_string(i) + " of " +
                                  std::to_string(iterations) + "...");
      platform::ShowStepProgress(*context.progress, i, iterations);
    }
    if (platform::TestBreak(context.thread)) return platform::CancelledError(detail::kCancelled);
    VLGD_RETURN_IF_ERROR(simulation.Step());
  }
  std::copy(simulation.Terrain().begin(), simulation.Terrain().end(), grid.Data());
  grid.ResetRange();
  return platform::Ok();
}

}  // namespace VLGD::Erosion
