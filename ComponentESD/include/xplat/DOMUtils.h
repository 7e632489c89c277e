#ifndef ESD_XPLAT_DOMUTILS_H
#define ESD_XPLAT_DOMUTILS_H

#include <string>

#include "xplat/ChangeDiffType.h"
#include "xplat/ESDAssert.h"
#include "xplat/SearchResults.h"

namespace esd {
namespace DOMUtils {

namespace detail {
// Text goes as it is; other values through the one conversion helper (which would keep only
// the first word of a text).
inline bool ToText(const std::string& in, std::string& out) {
  out = in;
  return true;
}
template <class V>
bool ToText(const V& in, std::string& out) {
  return ChangeDiffTypeImpl<V, std::string>::ChangeType(in, out);
}
inline bool FromText(const std::string& in, std::string& out) {
  out = in;
  return true;
}
template <class V>
bool FromText(const std::string& in, V& out) {
  return ChangeDiffTypeImpl<std::string, V>::ChangeType(in, out);
}
}  // namespace detail

// Sets `out` to the one direct child of inParentNode named `name` and returns true. With no
// such child, or with two or more, returns false and leaves `out` alone.
template <class NodeType>
bool FindUniqueChildByName(NodeType* inParentNode, const std::string& name, NodeType*& out) {
  ESD_ASSERT(inParentNode);
  const SearchResult<NodeType> found = SearchResult<NodeType>(inParentNode).Children(NodeName(name));
  if (found.size() != 1) return false;
  out = found.GetFirst();
  return true;
}

// The text of the unique child `name` of inNode. False, `out` untouched, when there is not
// exactly one such child; for a non-text V also when the text does not convert.
template <class NodeType, class V>
bool GetChildValue(NodeType* inNode, const std::string& name, V& out) {
  ESD_ASSERT(inNode);
  NodeType* child = nullptr;
  if (!FindUniqueChildByName(inNode, name, child)) return false;
  V converted;
  if (!detail::FromText(child->GetData(), converted)) return false;
  out = converted;
  return true;
}

// Makes `value` the text of the unique child `name` of inNode, creating that child at the end
// when there is none. A name that is not unique counts as absent, so a parent that already has
// two such children gets a third: callers rely on a unique child and never make duplicates.
// False when the value does not convert to text or anything throws; a child this call created
// is then removed again.
template <class NodeType, class V>
bool SetChildValue(NodeType* inNode, const std::string& name, const V& value) {
  ESD_ASSERT(inNode);
  NodeType* created = nullptr;
  try {
    std::string text;
    if (!detail::ToText(value, text)) return false;
    NodeType* child = nullptr;
    if (!FindUniqueChildByName(inNode, name, child)) {
      NodeType* fresh = new NodeType(name);
      try {
        inNode->AddChildNode(fresh);
      } catch (...) {
        delete fresh;
        throw;
      }
      created = fresh;
      child = fresh;
    }
    child->SetElementData(text);
    return true;
  } catch (...) {
    if (created) inNode->DeleteChildNode(created);
    return false;
  }
}

}  // namespace DOMUtils
}  // namespace esd

#endif
