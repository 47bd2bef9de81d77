#pragma once

#include <string>

#include "platform/registry.h"
#include "vellgrund/baseterrainoperator.h"

namespace VLGD {

inline constexpr platform::Int32 ID_OPENHELPCOMMAND = 1055661;
inline constexpr platform::Int32 ID_ABOUTCOMMAND = 1054744;

// Opens the user documentation's index through the front-end's viewer.
class OpenHelpCommand final : public platform::CommandData {
 public:
  Result<bool> Execute(Document& doc, const platform::CommandInput& input) override;
  [[nodiscard]] Int32 GetState(Document& doc, const platform::CommandInput& input) override;
};

// Shows the product, its version and build date, and the libraries it uses with their
// licences.
class AboutCommand final : public platform::CommandData {
 public:
  Result<bool> Execute(Document& doc, const platform::CommandInput& input) override;
  [[nodiscard]] Int32 GetState(Document& doc, const platform::CommandInput& input) override;
};

// The text of the about dialog.
std::string AboutText();

const platform::TypeDescriptor& OpenHelpCommandType();
const platform::TypeDescriptor& AboutCommandType();

}  // namespace VLGD
