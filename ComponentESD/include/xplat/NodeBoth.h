#ifndef ESD_XPLAT_NODEBOTH_H
#define ESD_XPLAT_NODEBOTH_H

namespace esd {

// Search predicate: both tests hold; the attribute test is asked only when the name test held.
template <class NameTest, class AttrTest>
class NodeBoth_t {
 public:
  NodeBoth_t(const NameTest& nameTest, const AttrTest& attrTest)
      : mNameTest(nameTest), mAttrTest(attrTest) {}

  template <class NodeType>
  bool operator()(const NodeType* node) const {
    return mNameTest(node) && mAttrTest(node);
  }

 private:
  NameTest mNameTest;
  AttrTest mAttrTest;
};

template <class NameTest, class AttrTest>
NodeBoth_t<NameTest, AttrTest> NodeBoth(const NameTest& nameTest, const AttrTest& attrTest) {
  return NodeBoth_t<NameTest, AttrTest>(nameTest, attrTest);
}

}  // namespace esd

#endif
