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

#if defined(__SSE2__)
// Bit i set when v's byte i is a name character (kNameChar).
unsigned NameCharBits(__m128i v) {
  // Signed comparisons: bytes from 0x80 up are negative and fall outside every range.
  auto within = [](__m128i x, char first, char last) {
    return _mm_and_si128(_mm_cmpgt_epi8(x, _mm_set1_epi8(static_cast<char>(first - 1))),
                         _mm_cmplt_epi8(x, _mm_set1_epi8(static_cast<char>(last + 1))));
  };
  // Or-ing 0x20 folds 'A'-'Z' onto 'a'-'z' and moves no other byte into that range.
  __m128i ok = within(_mm_or_si128(v, _mm_set1_epi8(0x20)), 'a', 'z');
  ok = _mm_or_si128(ok, within(v, '0', ':'));
  ok = _mm_or_si128(ok, within(v, '-', '.'));
  ok = _mm_or_si128(ok, _mm_cmpeq_epi8(v, _mm_set1_epi8('_')));
  return static_cast<unsigned>(_mm_movemask_epi8(ok));
}
#endif

}  // namespace

bool IsPlainName(const std::string& name) {
  const std::size_t size = name.size();
  if (size == 0 || !kNameStart[static_cast<unsigned char>(name[0])]) return false;
  const char* const data = name.data();
#if defined(__SSE2__)
  // Names of eight bytes or more are tested sixteen bytes at a time; a name shorter than sixteen
  // as two overlapping halves of eight, so that nothing past its end is read.
  if (size >= 8) {
    std::size_t at = 0;
    for (; size - at >= 16; at += 16) {
      const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + at));
      if (NameCharBits(block) != 0xFFFF) return false;
    }
    if (at == size) return true;
    const char* const last = data + size - (size >= 16 ? 16 : 8);
    const __m128i block =
        size >= 16
            ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(last))
            : _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(data)),
                                 _mm_loadl_epi64(reinterpret_cast<const __m128i*>(last)));
    return NameCharBits(block) == 0xFFFF;
  }
#endif
  for (std::size_t i = 1; i < size; ++i) {
    if (!kNameChar[static_cast<unsigned char>(data[i])]) return false;
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
