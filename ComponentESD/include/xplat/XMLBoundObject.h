#ifndef ESD_XPLAT_XMLBOUNDOBJECT_H
#define ESD_XPLAT_XMLBOUNDOBJECT_H

#include <boost/shared_ptr.hpp>

#include <string>

#include "xplat/ChangeDiffType.h"
#include "xplat/DOMUtils.h"
#include "xplat/ESDAssert.h"
#include "xplat/XMLDocumentNode.h"

// A typed record that keeps no fields of its own: every read and write goes to one XML element,
// its root. T derives from XMLBoundObject<T> and provides static GetNodeRootName(), the element
// name of its records.
//
// The root is either bound (an element of some document, not owned: the record must not outlive
// the document, nor be used once the element is deleted) or owned (an element the record made or
// detached, shared with its copies and freed with the last of them). Copies share the element on
// purpose: a store hands out copies that still write into its tree.
template <class T>
class XMLBoundObject {
 public:
  // A brand-new record owning an empty element named T::GetNodeRootName().
  XMLBoundObject()
      : m_pBoundNode(nullptr), m_pOwnedNode(new esd::XMLDocumentNode(T::GetNodeRootName())) {}

  // A record bound to inRootNode (not null), which stays owned by its document.
  explicit XMLBoundObject(esd::XMLDocumentNode* inRootNode)
      : m_pBoundNode(inRootNode), m_pOwnedNode() {
    ESD_ASSERT(inRootNode);
  }

  XMLBoundObject(const XMLBoundObject&) = default;
  XMLBoundObject& operator=(const XMLBoundObject&) = default;
  virtual ~XMLBoundObject() = default;

  // The element this record reads and writes: the owned one when set, else the bound one
  // (null for an empty record).
  esd::XMLDocumentNode* GetObjectRoot() const {
    return m_pOwnedNode ? m_pOwnedNode.get() : m_pBoundNode;
  }

  // Binds the record to `node`, dropping its share of an owned element, and returns the root it
  // had before. When this record held the last share, the returned element is already freed:
  // use the result only to compare or when it was bound.
  esd::XMLDocumentNode* SetObjectRoot(esd::XMLDocumentNode* node) {
    esd::XMLDocumentNode* previous = GetObjectRoot();
    m_pOwnedNode.reset();
    m_pBoundNode = node;
    return previous;
  }

  // Gives a bound record its own deep copy of the element, so later writes no longer reach the
  // document. False, and nothing changes, when the record owns its element already or is empty.
  // A failed copy leaves the record bound and returns false.
  bool Detach() {
    if (m_pOwnedNode || !m_pBoundNode) return false;
    esd::XMLDocumentNode* copy = esd::XMLDocumentNode::Duplicate(m_pBoundNode);
    if (!copy) return false;
    m_pOwnedNode.reset(copy);
    return true;
  }

  // The text of the root's unique child `childName` (see esd::DOMUtils::GetChildValue).
  template <class V>
  bool GetChildValue(const std::string& childName, V& out) const {
    esd::XMLDocumentNode* root = GetObjectRoot();
    if (!root) return false;
    return esd::DOMUtils::GetChildValue(root, childName, out);
  }

  // Sets the text of the root's unique child `childName`, creating it when absent (see
  // esd::DOMUtils::SetChildValue).
  template <class V>
  bool SetChildValue(const std::string& childName, const V& value) {
    esd::XMLDocumentNode* root = GetObjectRoot();
    if (!root) return false;
    return esd::DOMUtils::SetChildValue(root, childName, value);
  }

 protected:
  // The attribute half of the field pattern of record classes. Reads attribute `name` of the
  // root into `out`: text as it is, other types through the text conversion (whose result is
  // returned). False, `out` untouched, for an empty record or a missing attribute.
  template <class V>
  bool GetAttributeField(const std::string& name, V& out) const {
    esd::XMLDocumentNode* root = GetObjectRoot();
    if (!root) return false;
    std::string text;
    if (!root->GetAttrValue(name, text)) return false;
    return ConvertFromText(text, out);
  }

  // Writes `value` as attribute `name` of the root, converted to text. True whenever the record
  // has a root: a value that does not convert is written as whatever text the conversion left,
  // the same as every record has always stored.
  template <class V>
  bool SetAttributeField(const std::string& name, const V& value) {
    esd::XMLDocumentNode* root = GetObjectRoot();
    if (!root) return false;
    std::string text;
    ConvertToText(value, text);
    root->SetAttributeData(name, text);
    return true;
  }

 private:
  static bool ConvertFromText(const std::string& text, std::string& out) {
    out = text;
    return true;
  }
  template <class V>
  static bool ConvertFromText(const std::string& text, V& out) {
    return esd::ChangeDiffTypeImpl<std::string, V>::ChangeType(text, out);
  }
  static void ConvertToText(const std::string& value, std::string& out) { out = value; }
  template <class V>
  static void ConvertToText(const V& value, std::string& out) {
    (void)esd::ChangeDiffTypeImpl<V, std::string>::ChangeType(value, out);
  }

  esd::XMLDocumentNode* m_pBoundNode;
  boost::shared_ptr<esd::XMLDocumentNode> m_pOwnedNode;
};

#endif
