// Every registered operator through the same trials, so that a new type is held to them
// the day it is registered: bit-identical results on one thread and on all in each of its
// modes, a break that never leaves a partial result, grids at the edges (empty, one sample,
// one row) that must not fault, parameters that read as their described defaults when a
// node lacks them, and a stack that rebuilds it for its own parameters and not for blending.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "main/vellgrund_module.h"
#include "platform/parallel.h"
#include "support/operator_fixture.h"
#include "vellgrund/baseterrainoperator.h"

namespace {

using namespace platform;
using testing_support::DirectOperator;
using testing_support::MakeGrid;
using testing_support::Recomputed;
using testing_support::TerrainHarness;

std::vector<const TypeDescriptor*> Operators() {
  std::vector<const TypeDescriptor*> operators;
  for (const TypeDescriptor* type : VLGD::RegisteredTypes())
    if (std::ranges::find(type->baseTypes, VLGD::ID_BASETERRAINOPERATOR) != type->baseTypes.end())
      operators.push_back(type);
  return operators;
}

std::vector<ParameterDescription> OwnParameters(const TypeDescriptor& type) {
  return type.describe != nullptr ? type.describe().parameters : std::vector<ParameterDescription>{};
}

using Change = std::pair<ParameterId, Value>;

// The modes of a type: every value of each own choice, each own switch flipped or number
// that is off at zero turned on (a strength, an amount), and, with `combined`, each choice
// with each switch, since a switch often acts only in some choices.
std::vector<std::vector<Change>> Modes(const TypeDescriptor& type, const Node& node, bool combined) {
  std::vector<Change> choices;
  std::vector<Change> switches;
  const EnumRegistry& enumerations = node.GetHost().GetRegistry().Enumerations();
  for (const ParameterDescription& own : OwnParameters(type)) {
    const Enumeration* members = enumerations.Find(own.enumeration);
    if (members != nullptr && own.type == ValueType::INT32) {
      for (const EnumMember& member : members->members) choices.emplace_back(own.id, static_cast<Int32>(member.value));
    } else if (own.type == ValueType::BOOL && own.kind == ParameterKind::VALUE) {
      switches.emplace_back(own.id, !node.GetData().GetBool(own.id));
    } else if (own.defaultValue == Value{0.0} || own.defaultValue == Value{Int32{0}}) {
      const Float on = own.minimum && own.maximum ? 0.5 * (*own.minimum + *own.maximum) : 1.0;
      switches.emplace_back(own.id,
                            own.type == ValueType::FLOAT ? Value{on} : Value{static_cast<Int32>(std::max(on, 1.0))});
    }
  }
  std::vector<std::vector<Change>> modes = {{}};
  for (const Change& choice : choices) modes.push_back({choice});
  if (!combined) return modes;
  for (const Change& change : switches) {
    modes.push_back({change});
    for (const Change& choice : choices) modes.push_back({choice, change});
  }
  return modes;
}

std::string Describe(const std::vector<Change>& changes) {
  std::ostringstream text;
  for (const auto& [id, value] : changes) text << " " << id << "=" << value.ToFloat(0.0);
  return text.str();
}

// The operator computed on its own on a tilted ripple (so that filters have something to
// change), its result as a list of heights.
Result<std::vector<Float>> Compute(DirectOperator& trial, Int width, Int height,
                                   const CancellationToken* cancel = nullptr) {
  const VLGD::Grid2D<Float> incoming = MakeGrid(
      width, height,
      [](Int x, Int y) { return 0.1 * static_cast<Float>(x) + 5.0 * std::sin(0.3 * static_cast<Float>(x + 2 * y)); },
      100.0, 100.0);
  VLGD::EvaluationContext context;
  context.resolutionX = static_cast<Int32>(std::max<Int>(width - 1, 1));
  context.resolutionZ = static_cast<Int32>(std::max<Int>(height - 1, 1));
  context.sizeX = 100.0;
  context.sizeZ = 100.0;
  context.thread = cancel;
  VLGD_RETURN_IF_ERROR(trial.Data().Compute(incoming, *trial.op, *trial.doc, context));
  const VLGD::Grid2D<Float>& result = trial.Result();
  return std::vector<Float>(result.Data(), result.Data() + result.Count());
}

// More than 500 rows, so that the row loops of the convolutions run on all threads too.
TEST(EveryOperator, AlikeOnAnyThreadCountNeverHalfDoneAndSafeOnTinyGrids) {
  const std::vector<const TypeDescriptor*> operators = Operators();
  ASSERT_GE(operators.size(), 12u);
  for (const TypeDescriptor* type : operators) {
    DirectOperator trial(type->id);
    const ParameterContainer defaults = trial.op->GetData();
    for (const std::vector<Change>& changes : Modes(*type, *trial.op, false)) {
      SCOPED_TRACE(std::string(type->resourceName) + Describe(changes));
      trial.op->GetDataInstance() = defaults;
      for (const auto& [id, value] : changes) trial.Put(id, value);

      Result<std::vector<Float>> single = [&] {
        const ScopedThreadLimit one(1);
        return Compute(trial, 157, 521);
      }();
      if (!single && single.error().kind == ErrorKind::IllegalArgument) continue;  // a choice it refuses
      ASSERT_TRUE(single) << single.error().message;
      const Result<std::vector<Float>> all = Compute(trial, 157, 521);
      ASSERT_TRUE(all) << all.error().message;
      EXPECT_TRUE(*single == *all) << "results differ between one thread and " << MaxThreads();
      EXPECT_TRUE(std::ranges::all_of(*all, [](Float h) { return std::isfinite(h); }));

      // A break either stops the operator with a cancellation error or, in the single cheap
      // passes that do not test it, lets it finish the whole result: never a part of one.
      CancellationToken cancel;
      cancel.Cancel();
      const Result<std::vector<Float>> stopped = Compute(trial, 157, 521, &cancel);
      if (stopped)
        EXPECT_TRUE(*stopped == *all) << "a break left a partial result";
      else
        EXPECT_EQ(stopped.error().kind, ErrorKind::Cancelled) << stopped.error().message;

      // An empty grid may be refused, in words of the operator's own; a tiny one only for a reason.
      for (const auto& [width, height] : {std::pair<Int, Int>{0, 5}, {5, 0}, {1, 1}, {7, 1}, {1, 7}, {2, 2}}) {
        const Result<std::vector<Float>> tiny = Compute(trial, width, height);
        if (!tiny) {
          EXPECT_TRUE(width * height == 0 ? !tiny.error().message.empty() : tiny.error().kind != ErrorKind::Generic)
              << width << " x " << height << ": " << tiny.error().message;
          continue;
        }
        EXPECT_EQ(tiny->size(), static_cast<std::size_t>(width * height));
        EXPECT_TRUE(std::ranges::all_of(*tiny, [](Float h) { return std::isfinite(h); })) << width << " x " << height;
      }
    }
  }
}

// A node that lacks a parameter computes what one holding the described default computes,
// in every mode of the type, so that a getter's fallback cannot drift from the description.
// A few fall back to another value on purpose, for nodes stored before their parameter
// existed, and a missing curve is an error of its own.
TEST(EveryOperator, AMissingParameterReadsAsItsDefault) {
  const std::set<std::string, std::less<>> deliberate = {"BLUROPERATOR_RADIUS", "SHARPENOPERATOR_SIZE",
                                                         "CLAMPOPERATOR_MAX", "EROSIONOPERATOR_THERMAL_ITERATIONS",
                                                         "EROSIONOPERATOR_THERMAL_NEIGHBOURHOOD"};
  const std::set<std::string, std::less<>> refused = {"CURVEOPERATOR_CURVE", "GRADIENTOPERATOR_PROFILE",
                                                      "SPLINEOPERATOR_PROFILE"};
  std::set<std::string, std::less<>> deliberateSeen;
  const ScopedThreadLimit one(1);
  for (const TypeDescriptor* type : Operators()) {
    DirectOperator trial(type->id);
    ParameterContainer& values = trial.op->GetDataInstance();
    const ParameterContainer defaults = values;
    for (const std::vector<Change>& changes : Modes(*type, *trial.op, true)) {
      SCOPED_TRACE(std::string(type->resourceName) + Describe(changes));
      values = defaults;
      for (const auto& [id, value] : changes) trial.Put(id, value);
      const ParameterContainer changed = values;
      const Result<std::vector<Float>> reference = Compute(trial, 9, 7);
      if (!reference) continue;  // a choice the type refuses, such as a gap in a numbering
      for (const ParameterDescription& parameter : trial.op->GetTypeInfo().description.Parameters()) {
        const bool isChanged = std::ranges::any_of(changes, [&](const Change& c) { return c.first == parameter.id; });
        values = changed;
        if (isChanged || std::holds_alternative<std::monostate>(parameter.defaultValue.Data()) ||
            !values.Remove(parameter.id))
          continue;
        const Result<std::vector<Float>> without = Compute(trial, 9, 7);
        if (refused.contains(parameter.symbol)) {
          EXPECT_FALSE(without) << parameter.symbol;
          continue;
        }
        const bool same = without && *without == *reference;
        if (deliberate.contains(parameter.symbol)) {
          if (!same) deliberateSeen.insert(parameter.symbol);
          continue;
        }
        EXPECT_TRUE(same) << "without " << parameter.symbol << (without ? "" : ": " + without.error().message);
      }
    }
  }
  // The exceptions are still exceptions: each changes a result when missing.
  EXPECT_EQ(deliberateSeen, deliberate);
}

// Another value of a parameter, as an editor would set it: within its limits, another
// member of its choice.
std::optional<Value> Edited(const ParameterDescription& parameter, const Value& current,
                            const EnumRegistry& enumerations) {
  if (parameter.kind != ParameterKind::VALUE || parameter.readOnly) return std::nullopt;
  if (const Enumeration* choice = enumerations.Find(parameter.enumeration); choice != nullptr && !choice->isFlagSet) {
    const Int now = current.ToInt32(0);
    for (const EnumMember& member : choice->members)
      if (member.value != now) return Value{static_cast<Int32>(member.value)};
    return std::nullopt;
  }
  switch (parameter.type) {
    case ValueType::BOOL:
      return Value{!current.ToBool(false)};
    case ValueType::INT32:
    case ValueType::FLOAT: {
      const Float now = current.ToFloat(0.0);
      Float next = ClampToLimits(parameter, now + 1.0);
      if (next == now) next = ClampToLimits(parameter, now - 1.0);
      if (next == now) return std::nullopt;
      return parameter.type == ValueType::INT32 ? Value{static_cast<Int32>(next)} : Value{next};
    }
    case ValueType::VECTOR:
      return Value{std::get<Vector>(current.Data()) + Vector{1.0, 0.0, 0.0}};
    default:
      return std::nullopt;
  }
}

// In a stack after a generator, each parameter that the operator lists as its own rebuilds
// it alone, and every other (blending, masks, those kept for files) rebuilds nothing; a
// parameter that changes the operator's own result must be listed, or its edits would
// leave a stale cache.
TEST(EveryOperator, InAStackItsOwnParametersRebuildItAndNothingElseDoes) {
  for (const TypeDescriptor* type : Operators()) {
    DirectOperator trial(type->id);
    const ParameterContainer defaults = trial.op->GetData();
    const EnumRegistry& enumerations = trial.host.GetRegistry().Enumerations();
    for (const std::vector<Change>& changes : Modes(*type, *trial.op, false)) {
      TerrainHarness h(8, 80.0);
      h.AddGenerator("ramp", 1.0);
      Node* op = h.AddOperator(type->id, "op");
      trial.op->GetDataInstance() = defaults;
      for (const auto& [id, value] : changes) {
        h.Set(op, id, value);
        trial.Put(id, value);
      }
      const Result<std::vector<Float>> reference = Compute(trial, 17, 13);
      std::vector<ParameterId> own;
      if (Recomputed(h) != "ramp op" || !reference ||
          !op->GetNodeData<VLGD::BaseTerrainOperatorData>()->GetRebuildParameters(own, op->GetData()))
        continue;  // a mode the type refuses, or one that rebuilds on every change
      for (const ParameterDescription& parameter : op->GetTypeInfo().description.Parameters()) {
        SCOPED_TRACE(std::string(type->resourceName) + Describe(changes) + " " + parameter.symbol);
        const Value* current = op->GetData().Find(parameter.id);
        const std::optional<Value> edited =
            current != nullptr ? Edited(parameter, *current, enumerations) : std::nullopt;
        if (!edited) continue;
        const Value before = *current;
        const bool listed = std::ranges::find(own, parameter.id) != own.end();
        trial.Put(parameter.id, *edited);
        const Result<std::vector<Float>> direct = Compute(trial, 17, 13);
        trial.Put(parameter.id, before);
        if (direct && *direct != *reference) {
          EXPECT_TRUE(listed) << "changes the result but does not rebuild";
        }
        h.Set(op, parameter.id, *edited);
        const std::string rebuilt = Recomputed(h);
        // An edited value the operator refuses, such as zero iterations, is not a rebuild.
        if (!rebuilt.starts_with("failed")) {
          EXPECT_EQ(rebuilt, listed ? "op" : "");
        }
        h.Set(op, parameter.id, before);
        Recomputed(h);  // back to the mode's values; the next edit's rebuild is what is checked
      }
    }
  }
}

}  // namespace
