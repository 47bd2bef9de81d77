#pragma once

#include "platform/types.h"

namespace platform {

// A small deterministic generator for procedural content: SplitMix64, its 64-bit state
// set to the seed. The algorithm is fixed so that a seed gives the same terrain on every
// machine and in every release; changing it changes saved scenes.
class Random {
 public:
  Random() = default;
  explicit Random(UInt32 seed) { Init(seed); }

  // Restarts the sequence of `seed`.
  void Init(UInt32 seed) { state_ = seed; }

  // The next 64 raw bits.
  UInt64 GetUInt64() {
    state_ += 0x9e3779b97f4a7c15ULL;
    UInt64 z = state_;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }

  // Uniform in [0, 1): the top 53 bits of the next word, so every value is exact and 1 is
  // never reached.
  Float Get01() { return static_cast<Float>(GetUInt64() >> 11) * 0x1.0p-53; }

  // Uniform in [low, high], both ends included; low when high < low.
  Int32 GetInt(Int32 low, Int32 high);

 private:
  UInt64 state_ = 0;
};

}  // namespace platform
