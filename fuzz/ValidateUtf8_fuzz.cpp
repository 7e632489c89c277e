// Fuzzes validate_utf8 against a reference decoder written from its contract: shortest forms
// only, continuation bytes where they belong, no lead byte 0xF8 or above, no non-characters
// (U+FDD0..U+FDEF, U+xxFFFE, U+xxFFFF); encoded surrogates and four-byte values above U+10FFFF
// pass. The input, NUL included, sits in a buffer that ends at its terminating NUL, so a read
// past it is caught by AddressSanitizer.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "FuzzSandbox.h"
#include "xplat/TextValidation.h"

namespace {

bool Reference(const unsigned char* text, std::size_t length) {
  std::size_t i = 0;
  while (i < length) {
    const unsigned char lead = text[i];
    int size = 0;
    while (size < 8 && (lead & (0x80 >> size))) ++size;
    if (size == 0) {
      ++i;
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
    if ((value & 0xFFFE) == 0xFFFE || (value >= 0xFDD0 && value <= 0xFDEF)) return false;
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
  fuzzing::Check(validate_utf8(text.get()) == Reference(text.get(), length),
                 "validate_utf8 agrees with the reference decoder");
  return 0;
}
