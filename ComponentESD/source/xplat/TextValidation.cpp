#include "xplat/TextValidation.h"

#include <cctype>
#include <cstdint>
#include <cstring>

namespace {

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Values no UTF-8 text should carry even though they are well formed.
bool IsNonCharacter(unsigned long value) {
  const unsigned long low = value & 0xFFFF;
  return low == 0xFFFE || low == 0xFFFF || (value >= 0xFDD0 && value <= 0xFDEF);
}

}  // namespace

bool validate_utf8(const unsigned char* text) {
  if (text == nullptr) return true;
  const unsigned char* const end = text + std::strlen(reinterpret_cast<const char*>(text));
  for (const unsigned char* p = text; p < end;) {
    // Runs of ASCII, the usual text, go eight bytes at a time; the length is known, so no word
    // read reaches past the terminating NUL.
    while (end - p >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, sizeof word);
      if (word & 0x8080808080808080ULL) break;
      p += 8;
    }
    if (p == end) break;
    const unsigned char lead = *p++;
    if (lead < 0x80) continue;

    if ((lead & 0xE0) == 0xC0) {
      if ((lead & 0x1E) == 0) return false;  // 0xC0 and 0xC1 only make overlong forms
      if (!IsContinuation(*p++)) return false;
      continue;
    }

    unsigned long value;
    int following;
    unsigned long smallest;
    if ((lead & 0xF0) == 0xE0) {
      value = lead & 0x0F;
      following = 2;
      smallest = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      value = lead & 0x07;
      following = 3;
      smallest = 0x10000;
    } else {
      return false;  // a stray continuation byte or 0xF8 and above
    }
    // Checked one byte at a time, so a NUL inside the sequence stops the scan right there.
    for (int i = 0; i < following; ++i) {
      const unsigned char byte = *p++;
      if (!IsContinuation(byte)) return false;
      value = (value << 6) | (byte & 0x3F);
    }
    if (value < smallest || IsNonCharacter(value)) return false;
  }
  return true;
}

void ValidateIsoCode(const char* in, char* out) {
  std::memset(out, 0, 11);
  if (in == nullptr || std::strlen(in) <= 4) return;
  auto byte = [in](int i) { return static_cast<unsigned char>(in[i]); };
  out[0] = static_cast<char>(std::tolower(byte(0)));
  out[1] = static_cast<char>(std::tolower(byte(1)));
  out[2] = in[2];
  out[3] = static_cast<char>(std::toupper(byte(3)));
  out[4] = static_cast<char>(std::toupper(byte(4)));
}
