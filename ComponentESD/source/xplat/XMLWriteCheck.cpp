#include "xplat/XMLWriteCheck.h"

#include <array>
#include <string>
#include <vector>

#include "xplat/XMLTreeWriter.h"

namespace esd {

namespace XMLTreeWriter {

namespace {

constexpr std::array<bool, 256> MakeNameChars(bool start) {
  std::array<bool, 256> chars{};
  for (int c = 0; c < 256; ++c) {
    const bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':';
    chars[c] = letter || (!start && ((c >= '0' && c <= '9') || c == '-' || c == '.'));
  }
  return chars;
}

constexpr std::array<bool, 256> kNameStart = MakeNameChars(true);
constexpr std::array<bool, 256> kNameChar = MakeNameChars(false);

}  // namespace

bool IsPlainName(const std::string& name) {
  if (name.empty() || !kNameStart[static_cast<unsigned char>(name[0])]) return false;
  for (const char c : name) {
    if (!kNameChar[static_cast<unsigned char>(c)]) return false;
  }
  return true;
}

bool IsPlainTag(const XMLDocumentNode& node) {
  if (node.IsDocumentNode() || !IsPlainName(node.ElementName())) return false;
  for (const auto& attribute : node.GetAttributeMap()) {
    if (!IsPlainName(attribute.first) || !IsPlainText(attribute.second, false)) return false;
  }
  return true;
}

}  // namespace XMLTreeWriter

namespace XMLWriteCheck {

namespace {

bool IsPlainElement(const XMLDocumentNode& node) {
  // Element text is escaped by the writer, so only its characters matter.
  return XMLTreeWriter::IsPlainTag(node) && XMLTreeWriter::IsPlainText(node.ElementData(), true);
}

// The document node itself: version "1.0", at most the encoding "UTF-8", exactly one child.
bool IsPlainDocument(const XMLDocumentNode& document) {
  if (!document.IsDocumentNode() || document.GetVersion() != "1.0") return false;
  for (const auto& attribute : document.GetAttributeMap()) {
    if (attribute.first != "encoding" || attribute.second != "UTF-8") return false;
  }
  return document.GetChildNodes().size() == 1;
}

}  // namespace

bool WritesWellFormed(const XMLDocumentNode& document) {
  if (!IsPlainDocument(document)) return false;
  std::vector<const XMLDocumentNode*> pending{document.GetChildNodes()[0]};
  while (!pending.empty()) {
    const XMLDocumentNode* node = pending.back();
    pending.pop_back();
    if (!node || !IsPlainElement(*node)) return false;
    pending.insert(pending.end(), node->GetChildNodes().begin(), node->GetChildNodes().end());
  }
  return true;
}

bool WriteVouched(std::ostream& stream, const XMLDocumentNode& document) {
  const bool plainDocument = IsPlainDocument(document);
  const bool plainElements = XMLTreeWriter::Write(stream, document, true);
  return plainDocument && plainElements;
}

}  // namespace XMLWriteCheck
}  // namespace esd
