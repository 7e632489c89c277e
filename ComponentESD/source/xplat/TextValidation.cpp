#include "xplat/TextValidation.h"

#include <cctype>
#include <cstdint>
#include <cstring>

namespace {

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
    unsigned long value;
    const std::size_t length = esd::DecodeUTF8(p, static_cast<std::size_t>(end - p), value);
    if (length == 0 || IsNonCharacter(value)) return false;
    p += length;
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
