#ifndef ESD_XPLAT_NODEATTR_H
#define ESD_XPLAT_NODEATTR_H

#include <functional>
#include <string>

namespace esd {

// Search predicate: the node has the attribute and its value equals the wanted value under
// Compare. A node without the attribute never matches, not even an empty wanted value.
template <class StringType = std::string, class Compare = std::equal_to<StringType>>
class NodeAttr_t {
 public:
  NodeAttr_t(const StringType& attrName, const StringType& value, Compare compare = Compare())
      : mAttrName(attrName), mValue(value), mCompare(compare) {}

  template <class NodeType>
  bool operator()(const NodeType* node) const {
    if (!node || !node->GetAttrValue(mAttrName, mScratch)) return false;
    return mCompare(mScratch, mValue);
  }

 private:
  mutable StringType mScratch;
  StringType mAttrName;
  StringType mValue;
  Compare mCompare;
};

inline NodeAttr_t<> NodeAttr(const std::string& attrName, const std::string& value) {
  return NodeAttr_t<>(attrName, value);
}

}  // namespace esd

#endif
