#include "vellgrund/observable.h"

#include <new>

namespace VLGD {

using platform::Document;
using platform::Int32;
using platform::Node;

Int32 ObserverList::Find(const Node* observer, const Document* doc) const {
  if (observer == nullptr || doc == nullptr) return -1;
  for (size_t i = 0; i < links_.size(); ++i)
    if (links_[i]->GetLink(*doc) == observer) return static_cast<Int32>(i);
  return -1;
}

platform::Status ObserverList::AddObserver(const Node* observer, const Document* doc) {
  if (observer == nullptr) return platform::IllegalArgumentError("Observer must not be nullptr!");
  if (doc == nullptr) return platform::IllegalArgumentError("doc must not be nullptr!");
  if (Find(observer, doc) >= 0) return platform::Ok();
  try {
    auto link = std::make_unique<platform::BaseLink>();
    link->SetLink(observer);
    links_.push_back(std::move(link));
  } catch (const std::bad_alloc&) {
    return platform::OutOfMemoryError("Failed to add observer to the list!");
  }
  return platform::Ok();
}

void ObserverList::RemoveObserver(const Node* observer, const Document* doc) {
  const Int32 index = Find(observer, doc);
  if (index >= 0) links_.erase(links_.begin() + index);
}

void ObserverList::Notify(Int32 messageId, Document& doc, bool updateMaterials, Int32 flag) {
  for (const auto& link : links_) {
    Node* observer = link->GetLink(doc);
    if (observer == nullptr) continue;
    // The shader tree: each shader, then its inputs, then its second branch, then the next.
    bool matched = false;
    for (Node* shader = observer->GetBranch(); shader != nullptr; shader = shader->GetNextDepthFirst(observer)) {
      if (shader->GetType() != messageId) continue;
      platform::MessageData data;
      data.info = flag;
      shader->Message(messageId, data);
      matched = true;
    }
    if (!matched || !updateMaterials) continue;
    observer->SetDirty(platform::DIRTYFLAGS_DATA);
    if (observer->IsInstanceOf(platform::ID_BASE_MATERIAL)) observer->Message(platform::MSG_UPDATE);
  }
}

void ObserverList::SendMessage(Int32 messageId, Document& doc) {
  for (const auto& link : links_)
    if (Node* observer = link->GetLink(doc)) observer->Message(messageId);
}

}  // namespace VLGD
