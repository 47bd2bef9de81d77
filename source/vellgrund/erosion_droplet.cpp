#include "vellgrund/erosion_droplet.h"

#include <algorithm>
#include <cmath>

#include "platform/random.h"

namespace VLGD::Erosion {
namespace {

constexpr Float kTimeStep = 1.2;
constexpr Float kDensity = 1.0;
constexpr Float kEvaporation = 0.001;
constexpr Float kMinimumVolume = 0.01;

}  // namespace

UInt64 SimulateDroplets(Grid2D<Float>& grid, const DropletSettings& settings, const platform::CancellationToken* cancel,
                        platform::ProgressSink* progress) {
  const Int width = grid.Width();
  const Int height = grid.Height();
  if (width == 0 || height == 0) return 0;
  const Float right = static_cast<Float>(width);
  const Float bottom = static_cast<Float>(height);
  Float* heights = grid.Data();
  const Float damping = 1.0 - kTimeStep * settings.friction;
  const Float exchange = kTimeStep * settings.deposition;
  const Float keep = 1.0 - kTimeStep * kEvaporation;

  platform::Random random;
  random.Init(settings.seed);
  UInt64 steps = 0;
  const Int32 percent = std::max<Int32>(settings.count / 100, 1);
  for (Int32 droplet = 0; droplet < settings.count; ++droplet) {
    if (platform::TestBreak(cancel)) break;
    if (progress != nullptr && droplet % percent == 0) platform::ShowStepProgress(*progress, droplet, settings.count);
    // The row is drawn first; swapping the draws would move every droplet.
    Float py = random.Get01() * static_cast<Float>(height - 1);
    Float px = random.Get01() * static_cast<Float>(width - 1);
    Float vx = 0.0;
    Float vy = 0.0;
    Float volume = 1.0;
    Float sediment = 0.0;
    do {
      ++steps;
      const Int ix = static_cast<Int>(px);  // px, py >= 0 here, so truncation is floor
      const Int iy = static_cast<Int>(py);
      // The surface normal of the cell (neighbours clamped, vertical component 2) enters
      // only scaled by the acceleration, so both share one division: the loop is bound by
      // the latency of this chain from one position to the next.
      const Float* row = heights + iy * width;
      const Float* above = heights + std::max<Int>(iy - 1, 0) * width;
      const Float* below = heights + std::min<Int>(iy + 1, height - 1) * width;
      const Float dx = row[std::max<Int>(ix - 1, 0)] - row[std::min<Int>(ix + 1, width - 1)];
      const Float dz = above[ix] - below[ix];
      const Float mass = volume * kDensity;
      const Float acceleration = mass != 0.0 ? kTimeStep / mass : 0.0;
      const Float push = acceleration / std::sqrt(dx * dx + 4.0 + dz * dz);
      const Float ax = vx + dx * push;
      const Float ay = vy + dz * push;
      // The droplet moves with the undamped velocity and keeps the damped one.
      px += ax * kTimeStep;
      py += ay * kTimeStep;
      vx = ax * damping;
      vy = ay * damping;
      // Written so that a not-a-number position stops the droplet as well.
      if (!(px >= 0.0 && py >= 0.0 && px < right && py < bottom)) break;
      Float& here = heights[iy * width + ix];
      const Float next = heights[static_cast<Int>(py) * width + static_cast<Int>(px)];
      const Float capacity = std::max(0.0, std::sqrt(vx * vx + vy * vy) * volume * (here - next));
      const Float difference = capacity - sediment;
      sediment += exchange * difference;
      here -= volume * exchange * difference;
      volume *= keep;
    } while (volume > kMinimumVolume);
  }
  return steps;
}

}  // namespace VLGD::Erosion
