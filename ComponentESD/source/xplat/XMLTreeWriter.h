#ifndef ESD_SOURCE_XPLAT_XMLTREEWRITER_H
#define ESD_SOURCE_XPLAT_XMLTREEWRITER_H

#include <array>
#include <cstddef>
#include <ostream>
#include <string>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "xplat/TextValidation.h"
#include "xplat/XMLDocumentNode.h"

namespace esd {
namespace XMLTreeWriter {

// What a byte of element text or of an attribute value is to the writer and to the check of
// XMLWriteCheck, from most to least ordinary. One table serves both, so that the writer can
// judge element text in the same pass that escapes it, and the two can never disagree.
enum TextByte : unsigned char {
  kPlainByte,    // printable ASCII other than the five below, tab, line feed, carriage return
  kApostrophe,   // escaped in element text; fine in attribute values
  kGreaterThan,  // likewise
  kQuote,        // escaped in element text; refused in attribute values, which are written raw
  kAmpersand,    // likewise
  kLessThan,     // likewise
  kLeadByte,     // may start a multi-byte UTF-8 character
  kRefusedByte,  // other control characters, DEL, bytes that cannot start a character
};

constexpr std::array<TextByte, 256> MakeTextBytes() {
  std::array<TextByte, 256> kinds{};
  for (int c = 0; c < 256; ++c) {
    if (c == '\'')
      kinds[c] = kApostrophe;
    else if (c == '>')
      kinds[c] = kGreaterThan;
    else if (c == '"')
      kinds[c] = kQuote;
    else if (c == '&')
      kinds[c] = kAmpersand;
    else if (c == '<')
      kinds[c] = kLessThan;
    else if (c == '\t' || c == '\n' || c == '\r' || (c >= 0x20 && c < 0x7F))
      kinds[c] = kPlainByte;
    else if (c >= 0xC2 && c <= 0xF4)
      kinds[c] = kLeadByte;
    else
      kinds[c] = kRefusedByte;
  }
  return kinds;
}

inline constexpr std::array<TextByte, 256> kTextBytes = MakeTextBytes();

// Length of the UTF-8 sequence at text (with `available` bytes from there to the end) when it
// encodes a character every XML 1.0 parser accepts in content (U+00A0 to U+D7FF, U+E000 to
// U+FFFD, U+10000 to U+10FFFF); 0 otherwise. C1 controls and the other rarely used characters
// are left to a real parse. Needs a lead byte (kLeadByte) at text[0].
inline std::size_t OrdinaryCharacterLength(const char* text, std::size_t available) {
  unsigned long value = 0;
  const std::size_t length =
      DecodeUTF8(reinterpret_cast<const unsigned char*>(text), available, value);
  const bool ordinary = (value >= 0xA0 && value <= 0xD7FF) ||
                        (value >= 0xE000 && value <= 0xFFFD) ||
                        (value >= 0x10000 && value <= 0x10FFFF);
  return ordinary ? length : 0;
}

#if defined(__SSE2__)
// Bit i set when block[i] is not certainly kPlainByte: below 0x20 (tab, line feed and carriage
// return included, which the caller's table then lets pass), DEL and above, or one of the five.
inline unsigned UnusualBytes(const char* block) {
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block));
  // Bytes from 0x80 up are negative to the signed comparison, so one test covers both ends.
  __m128i odd = _mm_or_si128(_mm_cmplt_epi8(v, _mm_set1_epi8(0x20)),
                             _mm_cmpeq_epi8(v, _mm_set1_epi8(0x7F)));
  odd = _mm_or_si128(odd, _mm_cmpeq_epi8(v, _mm_set1_epi8('"')));
  odd = _mm_or_si128(odd, _mm_cmpeq_epi8(v, _mm_set1_epi8('&')));
  odd = _mm_or_si128(odd, _mm_cmpeq_epi8(v, _mm_set1_epi8('\'')));
  odd = _mm_or_si128(odd, _mm_cmpeq_epi8(v, _mm_set1_epi8('<')));
  odd = _mm_or_si128(odd, _mm_cmpeq_epi8(v, _mm_set1_epi8('>')));
  return static_cast<unsigned>(_mm_movemask_epi8(odd));
}
#endif

// The first byte in [p, end) that is not kPlainByte, or end; it may also stop early at a tab,
// line feed or carriage return, which the caller passes by the table. Texts are scanned sixteen
// bytes at a time where the processor allows, the last block overlapping the one before it.
inline const char* SkipPlainBytes(const char* p, const char* const end) {
#if defined(__SSE2__)
  if (end - p >= 16) {
    for (; end - p >= 16; p += 16) {
      const unsigned odd = UnusualBytes(p);
      if (odd) return p + __builtin_ctz(odd);
    }
    if (p == end) return end;
    // Bytes of the last block before p have passed already.
    const char* const block = end - 16;
    const unsigned odd = UnusualBytes(block) & (~0u << (p - block));
    return odd ? block + __builtin_ctz(odd) : end;
  }
#endif
  while (p != end && kTextBytes[static_cast<unsigned char>(*p)] == kPlainByte) ++p;
  return p;
}

// Every byte of `text` is plain, part of an ordinary UTF-8 character, or (with markupAllowed,
// for element text, which the writer escapes) one of '<', '&' and '"'. Attribute values are
// copied as they are between '"', so there the three are refused.
inline bool IsPlainText(const std::string& text, bool markupAllowed) {
  const TextByte accepted = markupAllowed ? kLessThan : kGreaterThan;
  const char* p = text.data();
  const char* const end = p + text.size();
  while ((p = SkipPlainBytes(p, end)) != end) {
    const TextByte kind = kTextBytes[static_cast<unsigned char>(*p)];
    if (kind <= accepted) {
      ++p;
      continue;
    }
    if (kind != kLeadByte) return false;
    const std::size_t length = OrdinaryCharacterLength(p, static_cast<std::size_t>(end - p));
    if (length == 0) return false;
    p += length;
  }
  return true;
}

// A name of plain ASCII name characters: a letter, '_' or ':' first, then those, digits, '-'
// and '.'.
bool IsPlainName(const std::string& name);

// Everything the check asks of one element node except its text: an element, not a document
// node, with a plain name and plain attribute names and values.
bool IsPlainTag(const XMLDocumentNode& node);

// Writes `subtree` in the text form of operator<< (which is this function without `vouch`). With
// `vouch`, every node below its top is also judged as it is written, while its data is at hand
// (IsPlainTag, and IsPlainText(text, true) within the pass that escapes the text), and the result
// is whether all passed; the text written is the same either way. The stream is flushed at the
// end.
bool Write(std::ostream& stream, const XMLDocumentNode& subtree, bool vouch);

}  // namespace XMLTreeWriter
}  // namespace esd

#endif
