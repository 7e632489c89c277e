#ifndef ESD_XPLAT_NODENAME_H
#define ESD_XPLAT_NODENAME_H

#include <functional>
#include <string>

#include "xplat/ChangeDiffType.h"

namespace esd {

// Search predicate: the node's element name equals the wanted name under Compare (exact and
// case-sensitive with the default).
template <class StringType = std::string, class Compare = std::equal_to<StringType>>
class NodeName_t {
 public:
  explicit NodeName_t(const StringType& name, Compare compare = Compare())
      : mName(name), mCompare(compare) {}

  template <class NodeType>
  bool operator()(const NodeType* node) const {
    if (!node) return false;
    const std::string elementName = node->GetElementName();
    if (!CopyName(elementName, mScratch)) return false;
    return mCompare(mScratch, mName);
  }

 private:
  // A text copy always succeeds; other string types go through the one conversion helper.
  static bool CopyName(const std::string& in, std::string& out) {
    out = in;
    return true;
  }
  template <class Other>
  static bool CopyName(const std::string& in, Other& out) {
    return ChangeDiffTypeImpl<const std::string, Other>::ChangeType(in, out);
  }

  mutable StringType mScratch;
  StringType mName;
  Compare mCompare;
};

inline NodeName_t<> NodeName(const std::string& name) { return NodeName_t<>(name); }

}  // namespace esd

#endif
