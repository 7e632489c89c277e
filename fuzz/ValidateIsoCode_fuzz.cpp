// Fuzzes ValidateIsoCode against its contract: eleven bytes always written; empty for input of
// four characters or fewer; otherwise the first two characters in lower case, the third as it is,
// the fourth and fifth in upper case (ASCII letters only, as in the C locale), the rest zero. The
// input sits in a buffer that ends at its terminating NUL, so a read past it is caught.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "FuzzSandbox.h"
#include "xplat/TextValidation.h"

namespace {

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
char Upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  std::unique_ptr<char[]> in(new char[size + 1]);
  if (size) std::memcpy(in.get(), data, size);
  in[size] = 0;

  char expected[11] = {};
  if (std::strlen(in.get()) > 4) {
    expected[0] = Lower(in[0]);
    expected[1] = Lower(in[1]);
    expected[2] = in[2];
    expected[3] = Upper(in[3]);
    expected[4] = Upper(in[4]);
  }
  std::unique_ptr<char[]> out(new char[11]);
  std::memset(out.get(), 0x5A, 11);
  ValidateIsoCode(in.get(), out.get());
  fuzzing::Check(std::memcmp(out.get(), expected, 11) == 0, "ValidateIsoCode follows its contract");

  std::memset(out.get(), 0x5A, 11);
  ValidateIsoCode(nullptr, out.get());
  fuzzing::Check(std::memcmp(out.get(), "\0\0\0\0\0\0\0\0\0\0\0", 11) == 0, "null gives empty");
  return 0;
}
