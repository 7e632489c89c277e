#ifndef ESD_XPLAT_TEXTVALIDATION_H
#define ESD_XPLAT_TEXTVALIDATION_H

#include <cstddef>
#include <string_view>

// Checks for text: what host applications hand to the exported functions, and what the stores
// and the preferences may write. Every UTF-8 decoder of the library is DecodeUTF8 below.

namespace esd {

// Length of the UTF-8 sequence at text[0] (with `available` bytes, at least one, from there to
// the end) when it is well formed: an ASCII byte, or a lead byte up to 0xF7 followed by the
// continuation bytes it announces, in the shortest form; its value goes to `value`. 0 for a
// stray continuation byte, 0xF8 and above, a missing continuation byte or an overlong form.
// Encoded surrogates and four-byte values above U+10FFFF decode; IsScalarValue tells them apart.
inline std::size_t DecodeUTF8(const unsigned char* text, std::size_t available,
                              unsigned long& value) {
  const unsigned char lead = text[0];
  if (lead < 0x80) {
    value = lead;
    return 1;
  }
  if (lead < 0xC0 || lead >= 0xF8) return 0;
  const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (available < length) return 0;
  unsigned long decoded = lead & (0x7F >> length);
  for (std::size_t k = 1; k < length; ++k) {
    if ((text[k] & 0xC0) != 0x80) return 0;
    decoded = (decoded << 6) | (text[k] & 0x3F);
  }
  constexpr unsigned long kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (decoded < kSmallest[length]) return 0;
  value = decoded;
  return length;
}

// A Unicode scalar value: at most U+10FFFF and no surrogate.
inline bool IsScalarValue(unsigned long value) {
  return value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

// Whether `value` may be written as an attribute value as it is. Attribute values are written
// raw between '"': a quote, '<' or '&' would make the file unreadable, and a tab, line feed or
// carriage return would read back as a blank, so a record keyed by it could never be found.
inline bool IsRawAttributeText(std::string_view value) {
  return value.find_first_of("\"<&\t\n\r") == std::string_view::npos;
}

}  // namespace esd

// True when the NUL-terminated `text` is acceptable UTF-8; a null pointer is acceptable. Rejects
// overlong forms, stray or missing continuation bytes, lead bytes 0xF8 and above, and the
// non-characters U+FDD0..U+FDEF and U+xxFFFE/U+xxFFFF. Encoded surrogates and four-byte values
// above U+10FFFF are deliberately let through: a stricter check would refuse names and paths
// that hosts have always been able to register. Never reads past the terminating NUL.
bool validate_utf8(const unsigned char* text);

// Normalises a language-and-region code such as "EN-us" into `out` (11 bytes, always written
// whole and NUL-terminated): the first two characters in lower case, the third as it is, the
// fourth and fifth in upper case, the rest dropped, so "EN-us" becomes "en-US". Input that is
// null or four characters or shorter yields the empty string.
void ValidateIsoCode(const char* in, char* out);

#endif
