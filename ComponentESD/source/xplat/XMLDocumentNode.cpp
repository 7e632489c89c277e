#include "xplat/XMLDocumentNode.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "xplat/ESDAssert.h"
#include "xplat/XMLTreeWriter.h"

namespace esd {

XMLDocumentNode::XMLDocumentNode() : mIsDocument(true) {}

XMLDocumentNode::XMLDocumentNode(const std::string& name)
    : mElementName(name), mIsDocument(false) {}

XMLDocumentNode::XMLDocumentNode(const char* name, std::size_t length)
    : mElementName(name, length), mIsDocument(false) {}

XMLDocumentNode::~XMLDocumentNode() {
  if (mChildren.empty()) return;
  // Post-order with an explicit stack, so the destructor never nests: every delete below meets a
  // node whose children are gone. Children are taken last first, so nodes are freed in exactly the
  // reverse of document order, which is the reverse of the order a parse allocated them in. The
  // allocator then hands memory back from the end it grew at; freed in document order instead, a
  // large store's tree left glibc trimming and refaulting the heap on every load.
  struct Frame {
    XMLDocumentNode* node;
    std::size_t remaining;
  };
  std::vector<Frame> stack{{this, mChildren.size()}};
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (top.remaining > 0) {
      XMLDocumentNode* child = top.node->mChildren[--top.remaining];
      if (child) stack.push_back(Frame{child, child->mChildren.size()});
      continue;
    }
    XMLDocumentNode* done = top.node;
    stack.pop_back();
    done->mChildren.clear();
    if (done != this) delete done;
  }
}

void XMLDocumentNode::SetElementData(const std::string& data) { mElementData = data; }

void XMLDocumentNode::AppendElementData(const std::string& data) { mElementData += data; }

void XMLDocumentNode::SetAttributeData(const std::string& name, const std::string& value) {
  if (mIsDocument && name == "version") {
    mVersion = value;
    return;
  }
  mAttributes[name] = value;
}

void XMLDocumentNode::AddAttribute(const char* name, const char* value) {
  if (mIsDocument) {
    SetAttributeData(name, value);
    return;
  }
  // The strings are made in place in the map's node; a name seen before keeps its place and
  // takes the new value, as SetAttributeData does.
  const auto placed = mAttributes.emplace(name, value);
  if (!placed.second) placed.first->second = value;
}

void XMLDocumentNode::AddChildNode(XMLDocumentNode* pNode) {
  ESD_ASSERT(pNode != NULL);
  // Records have a few children each: room for four at once spares the loader the reallocations
  // of growing from one.
  if (mChildren.capacity() == 0) mChildren.reserve(4);
  mChildren.push_back(pNode);
}

bool XMLDocumentNode::DeleteChildNode(XMLDocumentNode* pNode) {
  const auto found = std::find(mChildren.begin(), mChildren.end(), pNode);
  if (found == mChildren.end()) return false;
  mChildren.erase(found);
  delete pNode;
  return true;
}

void XMLDocumentNode::Dump(std::ostream&) {}

std::string XMLDocumentNode::GetData() const { return mElementData; }

std::string XMLDocumentNode::GetElementName() const { return mElementName; }

XMLDocumentNode::AttributeList XMLDocumentNode::GetAllAttrs() const {
  return AttributeList(mAttributes.begin(), mAttributes.end());
}

bool XMLDocumentNode::GetAttrValue(const std::string& name, std::string& out) const {
  const auto found = mAttributes.find(name);
  if (found == mAttributes.end()) return false;
  out = found->second;
  return true;
}

XMLDocumentNode* XMLDocumentNode::DuplicateNode(const XMLDocumentNode* inNode) {
  ESD_ASSERT(inNode);
  std::unique_ptr<XMLDocumentNode> copy(new XMLDocumentNode(inNode->mElementName));
  copy->mVersion = inNode->mVersion;
  copy->mAttributes = inNode->mAttributes;
  copy->mElementData = inNode->mElementData;
  copy->mIsDocument = inNode->mIsDocument;
  return copy.release();
}

XMLDocumentNode* XMLDocumentNode::DuplicateAndAttach(const XMLDocumentNode* inCopyMe,
                                                     XMLDocumentNode* parent) {
  ESD_ASSERT(inCopyMe);
  // The subtree is listed in pre-order before anything is copied, so copies attached while we
  // work (parent may lie inside the subtree) are never copied again. Each entry names the index
  // of its parent's entry.
  struct Entry {
    const XMLDocumentNode* source;
    std::size_t parentIndex;
  };
  std::vector<Entry> order;
  std::vector<Entry> stack{{inCopyMe, 0}};
  while (!stack.empty()) {
    const Entry item = stack.back();
    stack.pop_back();
    const std::size_t index = order.size();
    order.push_back(item);
    const ChildList& children = item.source->mChildren;
    for (auto child = children.rbegin(); child != children.rend(); ++child)
      stack.push_back(Entry{*child, index});
  }

  std::vector<XMLDocumentNode*> copies(order.size(), nullptr);
  std::unique_ptr<XMLDocumentNode> unattachedRoot;
  for (std::size_t i = 0; i < order.size(); ++i) {
    std::unique_ptr<XMLDocumentNode> copy(DuplicateNode(order[i].source));
    if (!copy) throw std::runtime_error("Unable to duplicate node!");
    copies[i] = copy.get();
    // Ownership passes only once AddChildNode has returned, so a throwing add frees the copy.
    if (i != 0) {
      copies[order[i].parentIndex]->AddChildNode(copy.get());
      copy.release();
    } else if (parent) {
      parent->AddChildNode(copy.get());
      copy.release();
    } else {
      unattachedRoot = std::move(copy);
    }
  }
  if (unattachedRoot) return unattachedRoot.release();
  return copies[0];
}

XMLDocumentNode* XMLDocumentNode::Duplicate(const XMLDocumentNode* node) {
  try {
    return DuplicateAndAttach(node, nullptr);
  } catch (...) {
    return nullptr;
  }
}

namespace {

// The writer's output: text gathers in a fixed block handed to the stream whenever it is full, so
// that the stream sees few large writes instead of many small ones, and each piece of text costs
// one copy into the block.
class BlockWriter {
 public:
  explicit BlockWriter(std::ostream& stream) : mStream(stream), mBlock(new char[kBlockSize]) {}
  void Put(char c) {
    if (mUsed == kBlockSize) Hand();
    mBlock[mUsed++] = c;
  }
  void Put(const char* text, std::size_t size) {
    if (size <= kBlockSize - mUsed) {
      std::memcpy(mBlock.get() + mUsed, text, size);
      mUsed += size;
    } else {
      PutLarge(text, size);
    }
  }
  void Put(const std::string& text) { Put(text.data(), text.size()); }
  template <std::size_t N>
  void Put(const char (&literal)[N]) {
    Put(literal, N - 1);
  }

  // Puts `text` escaped as XMLEscaping::EscapeXML does it: runs of bytes that need no entity are
  // copied whole. With `judge`, also returns XMLTreeWriter::IsPlainText(text, true), found in the
  // same pass; without, returns true.
  bool PutEscaped(const std::string& text, bool judge) {
    using namespace XMLTreeWriter;
    static const struct {
      const char* text;
      std::size_t size;
    } kEntities[] = {{"", 0},      {"&apos;", 6}, {"&gt;", 4}, {"&quot;", 6},
                     {"&amp;", 5}, {"&lt;", 4}};
    const char* p = text.data();
    const char* const end = p + text.size();
    const char* run = p;
    bool plain = true;
    while ((p = SkipPlainBytes(p, end)) != end) {
      const TextByte kind = kTextBytes[static_cast<unsigned char>(*p)];
      if (kind == kPlainByte) {
        ++p;
        continue;
      }
      if (kind <= kLessThan) {
        Put(run, static_cast<std::size_t>(p - run));
        Put(kEntities[kind].text, kEntities[kind].size);
        run = ++p;
      } else if (kind == kLeadByte && judge && plain) {
        const std::size_t length = OrdinaryCharacterLength(p, static_cast<std::size_t>(end - p));
        plain = length != 0;
        p += plain ? length : 1;
      } else {
        plain = plain && kind != kRefusedByte;
        ++p;
      }
    }
    Put(run, static_cast<std::size_t>(end - run));
    return plain || !judge;
  }

  void EndLine() { Put('\n'); }
  void Finish() {
    Hand();
    mStream.flush();
  }

 private:
  static constexpr std::size_t kBlockSize = 64 * 1024;
  void Hand() {
    mStream.write(mBlock.get(), static_cast<std::streamsize>(mUsed));
    mUsed = 0;
  }
  // Text that does not fit the rest of the block: the block goes first, then text larger than a
  // block goes straight to the stream.
  void PutLarge(const char* text, std::size_t size) {
    Hand();
    if (size >= kBlockSize) {
      mStream.write(text, static_cast<std::streamsize>(size));
      return;
    }
    std::memcpy(mBlock.get(), text, size);
    mUsed = size;
  }
  std::ostream& mStream;
  std::unique_ptr<char[]> mBlock;
  std::size_t mUsed = 0;
};

// Everything of a node that comes before its children. With `judge`, returns whether the node is
// a plain element (XMLTreeWriter::IsPlainTag and plain text); without, returns true.
bool WriteOpening(BlockWriter& out, const XMLDocumentNode& node, bool judge) {
  if (node.IsDocumentNode()) {
    out.Put("<?xml version=\"");
    out.Put(node.GetVersion());
    out.Put("\" ");
    for (const auto& attr : node.GetAttributeMap()) {
      out.Put(attr.first);
      out.Put("=\"");
      out.Put(attr.second);
      out.Put("\" ");
    }
    out.Put("?>");
    out.EndLine();
    return !judge;
  }
  const bool plainTag = !judge || XMLTreeWriter::IsPlainTag(node);
  out.Put('<');
  out.Put(node.ElementName());
  for (const auto& attr : node.GetAttributeMap()) {
    out.Put(' ');
    out.Put(attr.first);
    out.Put("=\"");
    out.Put(attr.second);
    out.Put('"');
  }
  out.Put('>');
  const std::string& data = node.ElementData();
  if (data.empty()) {
    if (!node.GetChildNodes().empty()) out.EndLine();
    return plainTag;
  }
  return out.PutEscaped(data, judge && plainTag) && plainTag;
}

}  // namespace

namespace XMLTreeWriter {

bool Write(std::ostream& stream, const XMLDocumentNode& subtree, bool vouch) {
  // Depth-first with an explicit stack of (node, next child to write).
  struct Frame {
    const XMLDocumentNode* node;
    std::size_t nextChild;
  };
  std::vector<Frame> stack;
  BlockWriter out(stream);
  bool passed = vouch;
  WriteOpening(out, subtree, false);
  stack.push_back(Frame{&subtree, 0});
  while (!stack.empty()) {
    Frame& top = stack.back();
    const XMLDocumentNode::ChildList& children = top.node->GetChildNodes();
    if (top.nextChild < children.size()) {
      const XMLDocumentNode* child = children[top.nextChild++];
      passed = WriteOpening(out, *child, passed) && passed;
      stack.push_back(Frame{child, 0});
      continue;
    }
    const XMLDocumentNode* done = top.node;
    stack.pop_back();
    if (!done->IsDocumentNode()) {
      out.Put("</");
      out.Put(done->ElementName());
      out.Put('>');
    }
    if (!stack.empty()) out.EndLine();
  }
  out.Finish();
  return passed || !vouch;
}

}  // namespace XMLTreeWriter

std::ostream& operator<<(std::ostream& stream, const XMLDocumentNode& node) {
  XMLTreeWriter::Write(stream, node, false);
  return stream;
}

}  // namespace esd
