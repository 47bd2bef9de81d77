// Every registered operator through the same trials, so that a new type is held to them
// the day it is registered: bit-identical results on one thread and on all, a break that
// never leaves a partial result, grids at the edges (one sample, one row) that must not
// fault, and parameters that read as their described defaults when a node lacks them.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <set>
#include <sstream>
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

// A node that lacks a parameter computes what one holding the described default computes,
// in every mode of the type (each choice of its own and each of its switches flipped), so
// that a getter's fallback cannot drift from the description. A few fall back to another
// value on purpose, for nodes stored before their parameter existed, and a missing curve
// is an error of its own.
TEST(EveryOperator, AMissingParameterReadsAsItsDefault) {
  const std::set<std::string, std::less<>> deliberate = {
      "BLUROPERATOR_RADIUS", "SHARPENOPERATOR_SIZE", "CLAMPOPERATOR_MAX", "EROSIONOPERATOR_THERMAL_ITERATIONS",
      "EROSIONOPERATOR_THERMAL_NEIGHBOURHOOD"};
  const std::set<std::string, std::less<>> refused = {"CURVEOPERATOR_CURVE", "GRADIENTOPERATOR_PROFILE"};
  std::set<std::string, std::less<>> deliberateSeen;
  for (const TypeDescriptor* type : Operators()) {
    SCOPED_TRACE(std::string(type->resourceName));
    Trial trial(type->id);
    ParameterContainer& values = trial.op->GetDataInstance();
    const ParameterContainer defaults = values;

    // The modes: the defaults, every value of each own choice, each own switch flipped or
    // number that is off at zero turned on (a strength, an amount), and each choice with
    // each switch, since a switch often acts only in some choices.
    using Change = std::pair<ParameterId, Value>;
    std::vector<Change> choices;
    std::vector<Change> switches;
    for (const ParameterDescription& own : type->describe ? type->describe().parameters : std::vector<ParameterDescription>{}) {
      const Enumeration* members = trial.host.GetRegistry().Enumerations().Find(own.enumeration);
      if (members != nullptr && own.type == ValueType::INT32) {
        for (const EnumMember& member : members->members) choices.emplace_back(own.id, static_cast<Int32>(member.value));
      } else if (own.type == ValueType::BOOL && own.kind == ParameterKind::VALUE) {
        switches.emplace_back(own.id, !defaults.GetBool(own.id));
      } else if (own.defaultValue == Value{0.0} || own.defaultValue == Value{Int32{0}}) {
        const Float on = own.minimum && own.maximum ? 0.5 * (*own.minimum + *own.maximum) : 1.0;
        switches.emplace_back(own.id, own.type == ValueType::FLOAT ? Value{on} : Value{static_cast<Int32>(std::max(on, 1.0))});
      }
    }
    std::vector<std::vector<Change>> modes = {{}};
    for (const Change& change : switches) modes.push_back({change});
    for (const Change& choice : choices) {
      modes.push_back({choice});
      for (const Change& change : switches) modes.push_back({choice, change});
    }

    const ScopedThreadLimit one(1);
    for (const std::vector<Change>& changes : modes) {
      values = defaults;
      std::ostringstream mode;
      for (const auto& [id, value] : changes) {
        ASSERT_TRUE(values.Set(id, value));
        mode << " " << id << "=" << value.ToFloat(0.0);
      }
      const ParameterContainer changed = values;
      const Result<std::vector<Float>> reference = trial.Compute(9, 7);
      if (!reference) continue;  // a choice the type refuses, such as a gap in a numbering
      for (const ParameterDescription& parameter : trial.op->GetTypeInfo().description.Parameters()) {
        if (std::holds_alternative<std::monostate>(parameter.defaultValue.Data())) continue;
        const bool isChanged =
            std::ranges::any_of(changes, [&](const Change& change) { return change.first == parameter.id; });
        values = changed;
        if (isChanged || !values.Remove(parameter.id)) continue;
        const Result<std::vector<Float>> without = trial.Compute(9, 7);
        if (refused.contains(parameter.symbol)) {
          EXPECT_FALSE(without) << parameter.symbol;
          continue;
        }
        const bool same = without && *without == *reference;
        if (deliberate.contains(parameter.symbol)) {
          if (!same) deliberateSeen.insert(parameter.symbol);
          continue;
        }
        EXPECT_TRUE(same) << "without " << parameter.symbol << " in mode" << mode.str()
                          << (without ? "" : ": " + without.error().message);
      }
    }
  }
  // The exceptions are still exceptions: each changes a result when missing.
  EXPECT_EQ(deliberateSeen, deliberate);
}

}  // namespace
