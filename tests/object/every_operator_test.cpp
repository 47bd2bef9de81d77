// Every registered operator through the same trials, so that a new type is held to them
// the day it is registered: bit-identical results on one thread and on all, a break that
// never leaves a partial result, and grids at the edges (one sample, one row) that must
// not fault.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "main/vellgrund_module.h"
#include "platform/document.h"
#include "platform/parallel.h"
#include "vellgrund/baseterrainoperator.h"

namespace {

using namespace platform;

std::vector<const TypeDescriptor*> Operators() {
  std::vector<const TypeDescriptor*> operators;
  for (const TypeDescriptor* type : VLGD::RegisteredTypes())
    if (std::find(type->baseTypes.begin(), type->baseTypes.end(), VLGD::ID_BASETERRAINOPERATOR) !=
        type->baseTypes.end())
      operators.push_back(type);
  return operators;
}

// One operator of a type in a document, computed on its own on a grid of the given shape
// whose heights are a tilted ripple (so that filters have something to change).
struct Trial {
  explicit Trial(Int32 type) {
    host.SetConsole(console);
    EXPECT_TRUE(VLGD::StartModule(host));
    doc = std::make_unique<Document>(host);
    op = doc->InsertLast(*doc->CreateNode(type));
  }

  Result<std::vector<Float>> Compute(Int width, Int height, const CancellationToken* cancel = nullptr) {
    VLGD::Grid2D<Float> incoming;
    VLGD_RETURN_IF_ERROR(incoming.Init(width, height, 100.0, 100.0));
    for (Int y = 0; y < height; ++y)
      for (Int x = 0; x < width; ++x)
        incoming.Data()[y * width + x] =
            0.1 * static_cast<Float>(x) + 5.0 * std::sin(0.3 * static_cast<Float>(x + 2 * y));
    incoming.RecomputeRange();
    VLGD::EvaluationContext context;
    context.resolutionX = static_cast<Int32>(std::max<Int>(width - 1, 1));
    context.resolutionZ = static_cast<Int32>(std::max<Int>(height - 1, 1));
    context.sizeX = 100.0;
    context.sizeZ = 100.0;
    context.thread = cancel;
    auto& data = *op->GetNodeData<VLGD::BaseTerrainOperatorData>();
    VLGD_RETURN_IF_ERROR(data.Compute(incoming, *op, *doc, context));
    const VLGD::Grid2D<Float>& result = data.GetResult();
    return std::vector<Float>(result.Data(), result.Data() + result.Count());
  }

  CollectingConsole console;
  Host host;
  std::unique_ptr<Document> doc;
  Node* op = nullptr;
};

TEST(EveryOperator, AlikeOnAnyThreadCountNeverHalfDoneAndSafeOnTinyGrids) {
  const std::vector<const TypeDescriptor*> operators = Operators();
  ASSERT_GE(operators.size(), 12u);
  for (const TypeDescriptor* type : operators) {
    SCOPED_TRACE(std::string(type->resourceName));
    Trial trial(type->id);

    Result<std::vector<Float>> single = [&] {
      const ScopedThreadLimit one(1);
      return trial.Compute(301, 257);
    }();
    ASSERT_TRUE(single) << single.error().message;
    const Result<std::vector<Float>> all = trial.Compute(301, 257);
    ASSERT_TRUE(all) << all.error().message;
    EXPECT_TRUE(*single == *all) << "results differ between one thread and " << MaxThreads();
    EXPECT_TRUE(std::all_of(all->begin(), all->end(), [](Float h) { return std::isfinite(h); }));

    // A break either stops the operator with a cancellation error or, in the single cheap
    // passes that do not test it, lets it finish the whole result: never a part of one.
    CancellationToken cancel;
    cancel.Cancel();
    const Result<std::vector<Float>> stopped = trial.Compute(301, 257, &cancel);
    if (stopped)
      EXPECT_TRUE(*stopped == *all) << "a break left a partial result";
    else
      EXPECT_EQ(stopped.error().kind, ErrorKind::Cancelled) << stopped.error().message;

    for (const auto& [width, height] : {std::pair<Int, Int>{1, 1}, {7, 1}, {1, 7}, {2, 2}}) {
      const Result<std::vector<Float>> tiny = trial.Compute(width, height);
      if (!tiny) {
        EXPECT_NE(tiny.error().kind, ErrorKind::Generic) << width << " x " << height << ": " << tiny.error().message;
        continue;
      }
      EXPECT_EQ(tiny->size(), static_cast<std::size_t>(width * height));
      EXPECT_TRUE(std::all_of(tiny->begin(), tiny->end(), [](Float h) { return std::isfinite(h); }))
          << width << " x " << height;
    }
  }
}

}  // namespace
