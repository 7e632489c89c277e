// Fuzzes the format-string filler with the input as the pattern and ten fixed arguments of the
// kinds callers pass, against a reference written from its contract. Patterns naming a
// placeholder above %9 end the process by design and are left out. A tenth argument that does not
// convert must fail the filling exactly when the pattern uses %9.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "FuzzSandbox.h"
#include "xplat/FileSystemVersion.h"
#include "xplat/FormatString.h"

namespace {

using fuzzing::Check;

// The text each argument below contributes. Text arguments are taken whole, blanks and "%"
// included; %8 and %9 have no argument and stand for empty text.
const char* const kArgumentTexts[10] = {
    "two words", "%1 stays %%", "-42", "1", "0", "18446744073709551615", "-7", "1.2.3.4", "", ""};

struct Unprintable {};
std::ostream& operator<<(std::ostream& stream, const Unprintable&) {
  stream.setstate(std::ios::failbit);
  return stream;
}

// The filled pattern, or nullopt when the pattern names a placeholder above 9; `usesNine` is set
// when it names %9.
std::optional<std::string> Reference(const std::string& pattern, bool& usesNine) {
  std::string out;
  for (std::size_t i = 0; i < pattern.size();) {
    if (pattern[i] != '%' || i + 1 == pattern.size()) {
      out += pattern[i++];
      continue;
    }
    const char next = pattern[i + 1];
    if (next == '%') {
      out += '%';
      i += 2;
    } else if (next < '0' || next > '9') {
      out += pattern.substr(i, 2);
      i += 2;
    } else {
      std::size_t end = i + 1;
      while (end < pattern.size() && pattern[end] >= '0' && pattern[end] <= '9') ++end;
      const std::string digits = pattern.substr(i + 1, end - i - 1);
      const std::size_t firstNonZero = digits.find_first_not_of('0');
      const std::string significant =
          firstNonZero == std::string::npos ? "0" : digits.substr(firstNonZero);
      if (significant.size() > 1) return std::nullopt;
      usesNine = usesNine || significant == "9";
      out += kArgumentTexts[significant[0] - '0'];
      i = end;
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string pattern = fuzzing::AsText(data, size);
  bool usesNine = false;
  const std::optional<std::string> expected = Reference(pattern, usesNine);
  if (!expected) return 0;

  const std::string text = "two words";
  const char* raw = "%1 stays %%";
  const int negative = -42;
  const bool yes = true, no = false;
  const unsigned long largest = 18446744073709551615ul;
  const short small = -7;
  const FileSystemVersion version("1.2.3.4");

  std::string out = "kept:";
  Check(esd::FormatString(out, pattern, text, raw, negative, yes, no, largest, small, version),
        "every argument converts");
  Check(out == "kept:" + *expected, "the filled pattern matches the reference");
  Check(esd::FormatString(out, pattern, text, raw, negative, yes, no, largest, small, version, "",
                          Unprintable{}) != usesNine,
        "an argument that does not convert fails the filling only where it is used");
  return 0;
}
