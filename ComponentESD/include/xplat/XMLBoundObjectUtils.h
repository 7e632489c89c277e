#ifndef ESD_XPLAT_XMLBOUNDOBJECTUTILS_H
#define ESD_XPLAT_XMLBOUNDOBJECTUTILS_H

#include <string>
#include <vector>

#include "xplat/ESDAssert.h"
#include "xplat/SearchResults.h"
#include "xplat/XMLDocumentNode.h"

namespace XMLBoundObjectUtils {

// Fills `out` with one T bound to each direct child of inParent named exactly childName, in
// document order. The records write straight into inParent's document until detached. Always
// true; inParent must not be null.
template <class T>
bool GetNodeChildrenAsType(esd::XMLDocumentNode* inParent, const std::string& childName,
                           std::vector<T>& out) {
  out.clear();
  ESD_ASSERT(inParent);
  const esd::SearchResult<esd::XMLDocumentNode> found =
      esd::SearchResult<esd::XMLDocumentNode>(inParent).Children(esd::NodeName(childName));
  out.reserve(found.size());
  for (esd::XMLDocumentNode* node : found) out.push_back(T(node));
  return true;
}

}  // namespace XMLBoundObjectUtils

#endif
