// Our box blur and separable Gaussian against OpenCV's on the same 4001 x 4001 doubles, in
// one run: each side runs several times in alternation and keeps its best time, so that the
// noise of a shared machine hits both alike.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench_heights.h"
#include "platform/parallel.h"
#include "vellgrund/convolution.h"

namespace {

using platform::Float;
using platform::Int;

constexpr Int kSide = vellgrund_bench::kFilterSide;
constexpr int kRounds = 5;  // alternating runs of each side; the best of each counts

// OpenCV's view of a grid's samples, without a copy (cv::Mat takes a mutable pointer even
// for a source it only reads).
cv::Mat View(const VLGD::Grid2D<Float>& grid) {
  return {static_cast<int>(grid.Height()), static_cast<int>(grid.Width()), CV_64F, const_cast<Float*>(grid.Data())};
}

template <class Run>
double Milliseconds(Run&& run) {
  const auto start = std::chrono::steady_clock::now();
  run();
  benchmark::ClobberMemory();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// The largest difference between our result and the peer's over the samples at least
// `margin` away from the bottom and right edges (where the borders may differ).
double MaxDifference(const cv::Mat& ours, const cv::Mat& peer, int margin) {
  const cv::Rect inner(0, 0, ours.cols - margin, ours.rows - margin);
  return cv::norm(ours(inner), peer(inner), cv::NORM_INF);
}

// Times `ours` (one thread, then two) and `peer` (one thread) into the same destination,
// alternating, and reports the best of each and their ratio.
template <class Ours, class Peer>
void Compare(benchmark::State& state, int margin, Ours&& ours, Peer&& peer) {
  cv::setNumThreads(1);
  const VLGD::Grid2D<Float>& source = vellgrund_bench::FilterHeights();
  VLGD::Grid2D<Float> destination;
  if (!destination.InitFrom(source)) std::abort();
  cv::Mat peerResult(static_cast<int>(kSide), static_cast<int>(kSide), CV_64F);
  const cv::Mat src = View(source);
  cv::Mat dst = View(destination);
  double bestOurs = std::numeric_limits<double>::infinity();
  double bestOursTwo = bestOurs;
  double bestPeer = bestOurs;
  for (auto _ : state) {
    for (int round = 0; round < kRounds; ++round) {
      {
        const platform::ScopedThreadLimit one(1);
        bestOurs = std::min(bestOurs, Milliseconds([&] {
                              if (!ours(source, destination)) state.SkipWithError("ours failed");
                            }));
      }
      bestPeer = std::min(bestPeer, Milliseconds([&] { peer(src, dst); }));
      const platform::ScopedThreadLimit two(2);
      bestOursTwo = std::min(bestOursTwo, Milliseconds([&] {
                               if (!ours(source, destination)) state.SkipWithError("ours failed");
                             }));
    }
    state.SetIterationTime(bestOurs / 1000.0);
  }
  peer(src, peerResult);
  state.counters["ours_ms"] = bestOurs;
  state.counters["peer_ms"] = bestPeer;
  state.counters["ratio"] = bestOurs / bestPeer;
  state.counters["ours_2t_ms"] = bestOursTwo;
  state.counters["max_diff"] = MaxDifference(dst, peerResult, margin);
}

// Our clamped edges repeat the border sample: OpenCV's BORDER_REPLICATE.
void BM_BoxBlur(benchmark::State& state) {
  const int radius = static_cast<int>(state.range(0));
  const int size = 2 * radius + 1;
  Compare(
      state, 0,
      [&](const VLGD::Grid2D<Float>& s, VLGD::Grid2D<Float>& d) { return VLGD::Convolution::BoxBlur(s, d, size); },
      [&](const cv::Mat& s, cv::Mat& d) {
        cv::boxFilter(s, d, CV_64F, cv::Size(size, size), cv::Point(-1, -1), true, cv::BORDER_REPLICATE);
      });
}

// Our mirror reflects without repeating the border sample at the top and left edges
// (BORDER_REFLECT_101) but repeats it at the bottom and right (BORDER_REFLECT): OpenCV has no
// such mixed border, so the last `radius` rows and columns differ; the cost is the same.
void BM_GaussianBlur(benchmark::State& state) {
  const int radius = static_cast<int>(state.range(0));
  const int size = 2 * radius + 1;
  const double sigma = radius * 0.5;
  VLGD::Convolution::PresetKernels::GaussBlur kernel;
  if (!kernel.Initialize(static_cast<VLGD::Convolution::UInt32>(radius))) std::abort();
  Compare(
      state, radius,
      [&](const VLGD::Grid2D<Float>& s, VLGD::Grid2D<Float>& d) {
        return VLGD::Convolution::Convolve(s, d, kernel, VLGD::OUTOFBOUNDSMODE::MIRROR);
      },
      [&](const cv::Mat& s, cv::Mat& d) {
        cv::GaussianBlur(s, d, cv::Size(size, size), sigma, sigma, cv::BORDER_REFLECT_101);
      });
}

BENCHMARK(BM_BoxBlur)
    ->ArgName("radius")
    ->Arg(2)
    ->Arg(16)
    ->Arg(64)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GaussianBlur)
    ->ArgName("radius")
    ->Arg(2)
    ->Arg(8)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
