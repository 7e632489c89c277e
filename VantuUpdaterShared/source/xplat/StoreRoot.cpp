#include "xplat/StoreRoot.h"

#include <memory>

#include "xplat/SearchResults.h"

namespace StoreRoot {

esd::XMLDocumentNode* FindOrAdd(esd::XMLDocumentNode* document, const std::string& name) {
  esd::SearchResult<esd::XMLDocumentNode> roots =
      esd::SearchResult<esd::XMLDocumentNode>(document).Children(esd::NodeName(name));
  if (!roots.empty()) return roots.GetSingleMatch();
  try {
    // A file holds one top element. Another program's is dropped rather than kept beside ours:
    // the two would make text that no parser accepts, so the store could never be saved again.
    while (!document->GetChildNodes().empty())
      document->DeleteChildNode(document->GetChildNodes().front());
    std::unique_ptr<esd::XMLDocumentNode> fresh(new esd::XMLDocumentNode(name));
    document->AddChildNode(fresh.get());
    return fresh.release();
  } catch (...) {
    return nullptr;
  }
}

}  // namespace StoreRoot
