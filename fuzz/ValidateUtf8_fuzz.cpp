// Fuzzes validate_utf8 against a reference decoder written from its contract: shortest forms
// only, continuation bytes where they belong, no lead byte 0xF8 or above, no non-characters
// (U+FDD0..U+FDEF, U+xxFFFE, U+xxFFFF); encoded surrogates and four-byte values above U+10FFFF
// pass. The UTF-16 conversion takes the same forms but only scalar values (no surrogates, nothing
// above U+10FFFF; non-characters pass). The input, NUL included, sits in a buffer that ends at its
// terminating NUL, so a read past it is caught by AddressSanitizer.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "FuzzSandbox.h"
#include "xplat/PathConversions.h"
#include "xplat/TextValidation.h"

namespace {

// Whether the text is well formed; `utf16` gets the UTF-16 units of its values, `scalars` and
// `characters` whether all are scalar values and none is a non-character.
bool Reference(const unsigned char* text, std::size_t length, std::vector<std::uint16_t>& utf16,
               bool& scalars, bool& characters) {
  std::size_t i = 0;
  while (i < length) {
    const unsigned char lead = text[i];
    int size = 0;
    while (size < 8 && (lead & (0x80 >> size))) ++size;
    if (size == 0) {
      utf16.push_back(text[i++]);
      continue;
    }
    if (size == 1 || size > 4 || i + size > length) return false;
    std::uint32_t value = lead & (0xFF >> (size + 1));
    for (int k = 1; k < size; ++k) {
      if ((text[i + k] & 0xC0) != 0x80) return false;
      value = (value << 6) | (text[i + k] & 0x3F);
    }
    static const std::uint32_t kSmallest[5] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < kSmallest[size]) return false;
    characters = characters && (value & 0xFFFE) != 0xFFFE && (value < 0xFDD0 || value > 0xFDEF);
    scalars = scalars && value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
    if (value >= 0x10000) utf16.push_back(static_cast<std::uint16_t>(0xD7C0 + (value >> 10)));
    utf16.push_back(
        static_cast<std::uint16_t>(value >= 0x10000 ? 0xDC00 + (value & 0x3FF) : value));
    i += size;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  std::unique_ptr<unsigned char[]> text(new unsigned char[size + 1]);
  if (size) std::memcpy(text.get(), data, size);
  text[size] = 0;
  const std::size_t length = std::strlen(reinterpret_cast<const char*>(text.get()));
  std::vector<std::uint16_t> utf16, units{0x1234};
  bool scalars = true, characters = true;
  const bool wellFormed = Reference(text.get(), length, utf16, scalars, characters);
  fuzzing::Check(validate_utf8(text.get()) == (wellFormed && characters),
                 "validate_utf8 agrees with the reference decoder");
  const bool converted = esd::CStringToVectorUniChar(reinterpret_cast<char*>(text.get()), units);
  fuzzing::Check(converted == (wellFormed && scalars) &&
                     units == (converted ? utf16 : std::vector<std::uint16_t>()),
                 "the UTF-16 units are those of well-formed scalar values, else none");
  return 0;
}
