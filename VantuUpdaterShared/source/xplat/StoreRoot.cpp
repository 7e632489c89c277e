#include "xplat/StoreRoot.h"

#include <memory>

#include "xplat/SearchResults.h"

namespace StoreRoot {

esd::XMLDocumentNode* FindOrAdd(esd::XMLDocumentNode* document, const std::string& name) {
  esd::SearchResult<esd::XMLDocumentNode> roots =
      esd::SearchResult<esd::XMLDocumentNode>(document).Children(esd::NodeName(name));
  if (!roots.empty()) return roots.GetSingleMatch();
  try {
    std::unique_ptr<esd::XMLDocumentNode> fresh(new esd::XMLDocumentNode(name));
    document->AddChildNode(fresh.get());
    return fresh.release();
  } catch (...) {
    return nullptr;
  }
}

}  // namespace StoreRoot
