#ifndef ESD_XPLAT_XMLDOCUMENTNODE_H
#define ESD_XPLAT_XMLDOCUMENTNODE_H

#include <cstddef>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace esd {

// One node of an XML tree: either the document node (the invisible root standing for a whole
// file, which carries the declaration's version and attributes) or an element with a name,
// attributes ordered by byte-wise name, text, and the children it owns.
//
// No operation here recurses: destroying, duplicating and writing a tree walk it with an explicit
// work list, so a tree as deep as the parser accepts (hundreds of thousands of levels) cannot
// exhaust the stack.
class XMLDocumentNode {
 public:
  using AttributeMap = std::map<std::string, std::string>;
  using AttributeList = std::vector<std::pair<std::string, std::string>>;
  using ChildList = std::vector<XMLDocumentNode*>;

  // The document node: no name, empty version until the builder sets one.
  XMLDocumentNode();
  // An element node named `name`.
  explicit XMLDocumentNode(const std::string& name);
  // An element node named by the `length` bytes at `name`: the builder's way to make a node
  // without a string of its own in between.
  XMLDocumentNode(const char* name, std::size_t length);
  // Destroys the whole subtree.
  virtual ~XMLDocumentNode();

  XMLDocumentNode(const XMLDocumentNode&) = delete;
  XMLDocumentNode& operator=(const XMLDocumentNode&) = delete;

  virtual void SetElementData(const std::string& data);
  virtual void AppendElementData(const std::string& data);

  // Inserts or replaces one attribute. On the document node "version" is not an attribute: it
  // goes to the version printed first in the declaration, so it can never be printed twice.
  virtual void SetAttributeData(const std::string& name, const std::string& value);

  // Appends pNode (not null) as the last child; this node owns it from now on. Neither
  // duplicates nor cycles are checked: adding a node twice, or an ancestor, is a programming
  // error that ends in a double delete.
  virtual void AddChildNode(XMLDocumentNode* pNode);

  // Destroys the first child that is pNode, with its subtree, and returns true; returns false
  // and frees nothing when pNode is not a direct child.
  virtual bool DeleteChildNode(XMLDocumentNode* pNode);

  // Kept for debugging hooks of derived nodes; writes nothing.
  virtual void Dump(std::ostream& stream);

  virtual std::string GetData() const;
  virtual std::string GetElementName() const;
  // (name, value) pairs in byte order of the names.
  virtual AttributeList GetAllAttrs() const;

  // What AppendElementData and SetAttributeData do, without a std::string in between and without
  // a virtual call. The builder uses them when its nodes are of exactly this class; a derived
  // class that overrides the virtual setters is always given those.
  void AppendText(const char* text, std::size_t length) { mElementData.append(text, length); }
  void AddAttribute(const char* name, const char* value);

  // True with `out` set when the attribute exists; false with `out` untouched otherwise.
  bool GetAttrValue(const std::string& name, std::string& out) const;

  const ChildList& GetChildNodes() const { return mChildren; }
  const AttributeMap& GetAttributeMap() const { return mAttributes; }
  const std::string& GetVersion() const { return mVersion; }
  // This node's own text and name, without the copies GetData and GetElementName make (for the
  // writer and the checks that walk whole trees).
  const std::string& ElementData() const { return mElementData; }
  const std::string& ElementName() const { return mElementName; }
  bool IsDocumentNode() const { return mIsDocument; }

  // A new node with inNode's name, attributes, text, version and document flag but no children.
  // The caller owns it.
  static XMLDocumentNode* DuplicateNode(const XMLDocumentNode* inNode);

  // A deep copy of inCopyMe, appended to `parent` when that is not null (otherwise the caller
  // owns it). The children copied are those inCopyMe had on entry, so copying a node into its
  // own subtree terminates. Throws std::runtime_error "Unable to duplicate node!" when a node
  // cannot be made; with a parent, what was copied so far then stays attached to it.
  static XMLDocumentNode* DuplicateAndAttach(const XMLDocumentNode* inCopyMe,
                                             XMLDocumentNode* parent);

  // A deep copy owned by the caller, or null when copying failed for any reason.
  static XMLDocumentNode* Duplicate(const XMLDocumentNode* node);

 private:
  std::string mVersion;
  AttributeMap mAttributes;
  ChildList mChildren;
  std::string mElementData;
  std::string mElementName;
  bool mIsDocument;
};

// Writes the node in the system's text form: no indentation, attributes in byte order and
// unescaped, element text escaped with XMLEscaping::EscapeXML, an element without text or
// children as "<a></a>". The document node writes the declaration line and then each child
// followed by a line feed; an element writes its text right after its start tag and each child
// on its own line. The text reaches the stream in blocks of some tens of kilobytes and the stream
// is flushed once at the end, so a file stream holds the whole document when this returns.
std::ostream& operator<<(std::ostream& stream, const XMLDocumentNode& node);

}  // namespace esd

#endif
