// Fuzzes the DOM builder and the writer together: any bytes are parsed, and a tree that parsed is
// written, parsed again and written again.
//
// What is checked is what the text form promises, not more. The writer copies attribute values
// raw (the stores refuse to save a value that would break the file instead), so a value holding
// "<", "&" or a double quote may not read back at all, and one holding a tab, a line feed or a
// carriage return reads back with blanks (attribute-value normalisation). A carriage return in
// element text reads back as a line feed (line-end normalisation). A tree free of those must come
// back node for node, and its second writing must equal its first byte for byte. One more case
// comes from the parser itself: the writer always declares UTF-8, and Expat's table for
// ISO-8859-1 takes "\u00AA", "\u00B5" and "\u00BA" as name characters while its UTF-8 table does
// not, so a name holding them is read from such a file but not from what the writer made of it.
// Every tree, within the promise or not, must be written and re-read without a crash, a leak or
// undefined behaviour.
//
// The write check (XMLWriteCheck) must vouch exactly when the text parses, names are ASCII, values
// hold no '<', '&' or '"' and nothing holds DEL or a C1 control (valid, but left to a parse). An
// input of up to four bytes is judged and escaped at every place of padded texts, values and
// names around the sixteen-byte blocks the check and the writer take, as it is alone.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "FuzzSandbox.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/XMLDocumentNode.h"
#include "xplat/XMLWriteCheck.h"

namespace {

using Builder = esd::ExpatDOMBuilder<esd::XMLDocumentNode>;
using esd::XMLWriteCheck::WritesWellFormed;
using fuzzing::Check;

std::string Write(const esd::XMLDocumentNode& node) {
  std::ostringstream out;
  out << node;
  return out.str();
}

// The nodes of a tree in document order (the document node first), without recursion.
std::vector<const esd::XMLDocumentNode*> Flatten(const esd::XMLDocumentNode* root) {
  std::vector<const esd::XMLDocumentNode*> order;
  std::vector<const esd::XMLDocumentNode*> stack{root};
  while (!stack.empty()) {
    const esd::XMLDocumentNode* node = stack.back();
    stack.pop_back();
    order.push_back(node);
    const auto& children = node->GetChildNodes();
    for (auto child = children.rbegin(); child != children.rend(); ++child) stack.push_back(*child);
  }
  return order;
}

// True when `name` holds one of the characters that only Expat's ISO-8859-1 table accepts in names.
bool HasLatin1OnlyNameCharacter(const std::string& name) {
  for (const char* utf8 : {"\xC2\xAA", "\xC2\xB5", "\xC2\xBA"}) {
    if (name.find(utf8) != std::string::npos) return true;
  }
  return false;
}

// True when every node survives writing and reading unchanged (see the file comment).
bool WithinTextFormPromise(const std::vector<const esd::XMLDocumentNode*>& nodes) {
  for (const esd::XMLDocumentNode* node : nodes) {
    if (HasLatin1OnlyNameCharacter(node->GetElementName())) return false;
    for (const auto& attribute : node->GetAttributeMap()) {
      if (attribute.second.find_first_of("<&\"\t\n\r") != std::string::npos) return false;
      if (HasLatin1OnlyNameCharacter(attribute.first)) return false;
    }
    if (node->GetData().find('\r') != std::string::npos) return false;
  }
  return true;
}

// Node-for-node equality of a tree and its re-read copy. The one allowed difference is the line
// feed the writer puts after the start tag of an element that has children but no text, which the
// parser then reads as that element's text.
bool SameTree(const std::vector<const esd::XMLDocumentNode*>& first,
              const std::vector<const esd::XMLDocumentNode*>& second) {
  if (first.size() != second.size()) return false;
  for (std::size_t i = 0; i < first.size(); ++i) {
    const esd::XMLDocumentNode& a = *first[i];
    const esd::XMLDocumentNode& b = *second[i];
    if (a.IsDocumentNode() != b.IsDocumentNode() || a.GetElementName() != b.GetElementName() ||
        a.GetAttributeMap() != b.GetAttributeMap() || a.GetVersion() != b.GetVersion() ||
        a.GetChildNodes().size() != b.GetChildNodes().size())
      return false;
    if (a.IsDocumentNode()) continue;
    const bool addedLineFeed =
        a.GetData().empty() && !a.GetChildNodes().empty() && b.GetData() == "\n";
    if (a.GetData() != b.GetData() && !addedLineFeed) return false;
  }
  return true;
}

bool IsAsciiName(const std::string& name) {
  const std::string kStart = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_:";
  return !name.empty() && kStart.find(name[0]) != std::string::npos &&
         name.find_first_not_of(kStart + "0123456789-.") == std::string::npos;
}

bool IsVouchableText(const std::string& text, bool value) {
  if (value && text.find_first_of("<&\"") != std::string::npos) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    if (text[i] == '\x7F' || (text[i] == '\xC2' && next >= 0x80 && next <= 0x9F)) return false;
  }
  return true;
}

// `piece` as element text, value and (byte by byte) element name; first alone, then padded.
void ProbeWriteCheck(const std::string& piece) {
  bool alone[2];
  std::string aloneText;
  for (std::size_t before = 0; before <= 33; ++before) {
    for (std::size_t after : {0, 16}) {
      const std::string text = std::string(before, 'a') + piece + std::string(after, 'a');
      esd::XMLDocumentNode document, *element = new esd::XMLDocumentNode("e");
      document.SetAttributeData("version", "1.0");
      document.AddChildNode(element);
      for (std::size_t i = 0; i < piece.size(); ++i) {
        const std::string name = std::string(before, 'n') + piece[i] + std::string(after, 'n');
        element->AddChildNode(new esd::XMLDocumentNode(name));
        Check(WritesWellFormed(document) == IsAsciiName(name), "the check judges names");
        element->DeleteChildNode(element->GetChildNodes().back());
      }
      for (const bool value : {false, true}) {
        value ? element->SetAttributeData("v", text) : element->SetElementData(text);
        std::ostringstream out;
        const bool vouched = esd::XMLWriteCheck::WriteVouched(out, document);
        if (before + after == 0) {
          alone[value] = Builder::IsWellFormed(out.str().data(), out.str().size()) &&
                         IsVouchableText(text, value);
          if (!value) aloneText = out.str();
        }
        Check(vouched == alone[value] && vouched == WritesWellFormed(document),
              "the check judges texts and values, and the writer's check agrees");
        std::string padded = aloneText;
        padded.insert(padded.rfind("</e>"), after, 'a').insert(padded.find("<e>") + 3, before, 'a');
        Check(value || out.str() == padded, "element text is written alike at every place");
        element->SetElementData("");
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string input = fuzzing::AsText(data, size);
  Builder first;
  const bool parsed = fuzzing::ParseBytes(first, input);
  // The check a store makes before saving must agree with the loader, or a store could write a
  // file it cannot load (or refuse one it could).
  Check(parsed == Builder::IsWellFormed(input.data(), input.size()),
        "IsWellFormed agrees with the builder");
  if (input.size() <= 4) ProbeWriteCheck(input);
  if (!parsed) return 0;

  const esd::XMLDocumentNode* document = first.GetDocumentNode();
  const std::string written = Write(*document);

  std::unique_ptr<esd::XMLDocumentNode> copy(esd::XMLDocumentNode::Duplicate(document));
  Check(copy != nullptr, "a parsed tree can be duplicated");
  Check(Write(*copy) == written, "a duplicate writes the same text as its original");

  const std::vector<const esd::XMLDocumentNode*> nodes = Flatten(document);
  Builder second;
  const bool reparsed = fuzzing::ParseBytes(second, written);
  Check(reparsed == Builder::IsWellFormed(written.data(), written.size()),
        "IsWellFormed agrees with the builder on written text");
  if (!WithinTextFormPromise(nodes)) return 0;

  Check(reparsed, "written text within the promise parses again");
  Check(SameTree(nodes, Flatten(second.GetDocumentNode())), "the re-read tree is the same tree");
  Check(Write(*second.GetDocumentNode()) == written, "the second writing equals the first");
  return 0;
}
