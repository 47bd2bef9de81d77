#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/result.h"
#include "platform/types.h"

namespace platform {

struct EnumMember {
  std::string name;
  Int value = 0;
};

struct Enumeration {
  std::string name;
  std::vector<EnumMember> members;
  bool isFlagSet = false;  // members are bits that combine

  [[nodiscard]] std::optional<Int> ValueOf(std::string_view member) const;
  // The member's name; for a flag set the set bits joined by "|" ("NONE" member for 0); no
  // value when nothing matches.
  [[nodiscard]] std::optional<std::string> NameOf(Int value) const;
};

// Enumerations known by name, so files and tools can show and accept member names.
class EnumRegistry {
 public:
  // A second enumeration with the same name is refused.
  Status Register(Enumeration enumeration);
  [[nodiscard]] const Enumeration* Find(std::string_view name) const;
  [[nodiscard]] std::span<const Enumeration> All() const { return enumerations_; }

 private:
  std::vector<Enumeration> enumerations_;
};

}  // namespace platform
