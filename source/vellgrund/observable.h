#pragma once

#include <memory>
#include <vector>

#include "platform/document.h"
#include "platform/material.h"
#include "platform/node.h"
#include "platform/result.h"
#include "platform/types.h"

namespace VLGD {

// The materials that watch an operator's results. Links resolve against the document on
// every use, so a material deleted from the document is skipped, never dereferenced.
// Used from the main thread and from the build, which the host never runs at once.
class ObserverList {
 public:
  // The index of the link that resolves to `observer` in `doc`, or -1.
  [[nodiscard]] platform::Int32 Find(const platform::Node* observer, const platform::Document* doc) const;
  // Adds `observer` unless it is already in the list.
  platform::Status AddObserver(const platform::Node* observer, const platform::Document* doc);
  // Removes `observer`; the later links keep their order.
  void RemoveObserver(const platform::Node* observer, const platform::Document* doc);
  // Tells every observer: each shader of its tree whose type is `messageId` receives the
  // message with `flag` as its info; when any did and `updateMaterials` is set, the
  // observer is marked dirty and, being a material, asked to update.
  void Notify(platform::Int32 messageId, platform::Document& doc, bool updateMaterials, platform::Int32 flag = 0);
  // Sends `messageId` to every observer that resolves.
  void SendMessage(platform::Int32 messageId, platform::Document& doc);

  [[nodiscard]] platform::Int32 Count() const { return static_cast<platform::Int32>(links_.size()); }

 private:
  std::vector<std::unique_ptr<platform::BaseLink>> links_;
};

}  // namespace VLGD
