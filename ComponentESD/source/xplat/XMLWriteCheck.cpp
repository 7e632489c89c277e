#include "xplat/XMLWriteCheck.h"

#include <array>
#include <string>
#include <vector>

#include "xplat/XMLTreeWriter.h"

namespace esd {
namespace XMLWriteCheck {

namespace {

// What a byte is to the check, from most to least ordinary.
enum ByteClass : unsigned char {
  kPlain,     // printable ASCII other than the three below, tab, line feed, carriage return
  kMarkup,    // '<', '&' and '"': fine in element text, which is escaped, not in attribute values
  kLead,      // may start a multi-byte UTF-8 character
  kRefused,   // other control characters, DEL, bytes that cannot start a character
};

constexpr std::array<ByteClass, 256> MakeByteClasses() {
  std::array<ByteClass, 256> classes{};
  for (int c = 0; c < 256; ++c) {
    if (c == '\t' || c == '\n' || c == '\r' || (c >= 0x20 && c < 0x7F))
      classes[c] = (c == '<' || c == '&' || c == '"') ? kMarkup : kPlain;
    else if (c >= 0xC2 && c <= 0xF4)
      classes[c] = kLead;
    else
      classes[c] = kRefused;
  }
  return classes;
}

constexpr std::array<ByteClass, 256> kByteClasses = MakeByteClasses();

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

bool IsPlainName(const std::string& name) {
  if (name.empty() || !kNameStart[static_cast<unsigned char>(name[0])]) return false;
  for (const char c : name) {
    if (!kNameChar[static_cast<unsigned char>(c)]) return false;
  }
  return true;
}

// Length of the UTF-8 sequence at text[i] when it encodes a character every XML 1.0 parser
// accepts in content (U+00A0 to U+D7FF, U+E000 to U+FFFD, U+10000 to U+10FFFF); 0 otherwise.
// C1 controls and the other rarely used characters are left to a real parse.
size_t OrdinaryCharacterLength(const std::string& text, size_t i) {
  const unsigned char lead = static_cast<unsigned char>(text[i]);
  const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (text.size() - i < length) return 0;
  unsigned long value = lead & (0x7F >> length);
  for (size_t k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return 0;
    value = (value << 6) | (next & 0x3F);
  }
  const unsigned long smallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (value < smallest[length]) return 0;  // overlong
  const bool ordinary = (value >= 0xA0 && value <= 0xD7FF) ||
                        (value >= 0xE000 && value <= 0xFFFD) ||
                        (value >= 0x10000 && value <= 0x10FFFF);
  return ordinary ? length : 0;
}

// Every byte of `text` is plain, part of an ordinary UTF-8 character, or (with markupAllowed,
// for element text, which the writer escapes) one of '<', '&' and '"'. Attribute values are
// copied as they are between '"', so there the three are refused.
bool IsPlainText(const std::string& text, bool markupAllowed) {
  const ByteClass accepted = markupAllowed ? kMarkup : kPlain;
  const size_t size = text.size();
  for (size_t i = 0; i < size;) {
    const ByteClass kind = kByteClasses[static_cast<unsigned char>(text[i])];
    if (kind <= accepted) {
      ++i;
      continue;
    }
    if (kind != kLead) return false;
    const size_t length = OrdinaryCharacterLength(text, i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

bool IsPlainElement(const XMLDocumentNode& node) {
  if (node.IsDocumentNode() || !IsPlainName(node.ElementName())) return false;
  for (const auto& attribute : node.GetAttributeMap()) {
    if (!IsPlainName(attribute.first) || !IsPlainText(attribute.second, false)) return false;
  }
  // Element text is escaped by the writer, so only its characters matter.
  return IsPlainText(node.ElementData(), true);
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
  const bool plainElements = XMLTreeWriter::Write(stream, document, &IsPlainElement);
  return plainDocument && plainElements;
}

}  // namespace XMLWriteCheck
}  // namespace esd
