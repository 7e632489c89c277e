// Fuzzes the version parser against a reference written from its contract: pieces separated by
// any of " ,.-"; a piece followed by a separator must be a whole decimal number (blanks around it
// and a plus sign allowed, as the stream conversion does) that fits 32 bits, else the parse
// fails; a last piece that does not convert is ignored; a fifth number fails. The input is split at
// the first "|" into two versions, which are also compared with every comparison against the
// lexicographic order of their components.

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

#include "FuzzSandbox.h"
#include "xplat/FileSystemVersion.h"

namespace {

using fuzzing::Check;
using Components = std::array<std::int32_t, 4>;

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::optional<std::int32_t> ReferenceNumber(const std::string& piece) {
  std::size_t i = 0;
  while (i < piece.size() && IsBlank(piece[i])) ++i;
  if (i < piece.size() && piece[i] == '+') ++i;
  const std::size_t digits = i;
  std::int64_t value = 0;
  while (i < piece.size() && piece[i] >= '0' && piece[i] <= '9') {
    value = value * 10 + (piece[i] - '0');
    if (value > INT32_MAX) return std::nullopt;
    ++i;
  }
  if (i == digits) return std::nullopt;
  while (i < piece.size() && IsBlank(piece[i])) ++i;
  if (i != piece.size()) return std::nullopt;
  return static_cast<std::int32_t>(value);
}

// The parse result and the components it leaves.
bool ReferenceParse(const std::string& text, Components& out) {
  out = {0, 0, 0, 0};
  std::size_t index = 0;
  std::string piece;
  for (const char c : text) {
    if (c != ' ' && c != ',' && c != '.' && c != '-') {
      piece += c;
      continue;
    }
    const std::optional<std::int32_t> value = ReferenceNumber(piece);
    if (!value || index >= 4) return false;
    out[index++] = *value;
    piece.clear();
  }
  const std::optional<std::int32_t> last = ReferenceNumber(piece);
  if (!last) return true;
  if (index >= 4) return false;
  out[index] = *last;
  return true;
}

Components Of(const FileSystemVersion& version) {
  return {version.versionComps[0], version.versionComps[1], version.versionComps[2],
          version.versionComps[3]};
}

FileSystemVersion CheckedParse(const std::string& text) {
  FileSystemVersion version(FileSystemVersion::kInvalidVersion);
  Components expected;
  const bool reference = ReferenceParse(text, expected);
  Check(FileSystemVersion::ParseVersionString(text, version) == reference,
        "the parse result matches the reference");
  Check(version.versionComps.size() == 4 && Of(version) == expected,
        "the components match the reference, also after a failure");

  bool threw = false;
  try {
    FileSystemVersion constructed(text);
    Check(constructed == version, "the constructor parses like ParseVersionString");
  } catch (const std::runtime_error& error) {
    threw = std::string(error.what()) == "Unable to parse version";
  }
  Check(threw == !reference, "the constructor throws exactly for text that does not parse");

  if (reference) {
    // The printed form is the canonical one and parses back to the same version. Components are
    // never negative, since "-" separates.
    const FileSystemVersion reread(version.ToString());
    Check(reread == version && reread.ToString() == version.ToString(), "ToString round trip");
    std::ostringstream printed;
    printed << version;
    Check(printed.str() == version.ToString(), "the inserter prints ToString");
  }
  return version;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string input = fuzzing::AsText(data, size);
  const std::size_t bar = input.find('|');
  const FileSystemVersion left = CheckedParse(input.substr(0, bar));
  const FileSystemVersion right =
      CheckedParse(bar == std::string::npos ? std::string() : input.substr(bar + 1));

  const Components a = Of(left), b = Of(right);
  Check(FileSystemVersion::Compare(left, right, std::less<int>()) == (a < b), "less");
  Check(FileSystemVersion::Compare(left, right, std::less_equal<int>()) == (a <= b), "less_equal");
  Check(FileSystemVersion::Compare(left, right, std::equal_to<int>()) == (a == b), "equal_to");
  Check(FileSystemVersion::Compare(left, right, std::greater_equal<int>()) == (a >= b),
        "greater_equal");
  Check(FileSystemVersion::Compare(left, right, std::greater<int>()) == (a > b), "greater");

  // Reading a stored attribute: one word, leniently, never failing the stream on content.
  std::istringstream stream(input.substr(0, bar));
  FileSystemVersion read(FileSystemVersion::kInvalidVersion);
  std::string word;
  std::istringstream words(input.substr(0, bar));
  const bool hasWord = static_cast<bool>(words >> word);
  Check(static_cast<bool>(stream >> read) == hasWord, "the extractor fails only without a word");
  if (hasWord) {
    Components expected;
    ReferenceParse(word, expected);
    Check(Of(read) == expected, "the extractor parses the first word");
  }
  return 0;
}
