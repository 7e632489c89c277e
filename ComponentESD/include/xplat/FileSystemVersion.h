#ifndef ESD_XPLAT_FILESYSTEMVERSION_H
#define ESD_XPLAT_FILESYSTEMVERSION_H

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "xplat/ESDAssert.h"

// A four-part version number (major, minor, third, fourth), read from the loose forms found in
// file and product metadata and printed in one dotted form. Always exactly four components.
class FileSystemVersion {
 public:
  // Separators accepted between components: space, comma, full stop, hyphen-minus.
  static constexpr const char kFileVersionDelims[] = " ,.-";
  // Text of the placeholder version; parses to 0.0.0.0. There is no default constructor.
  static constexpr const char kInvalidVersion[] = "0,0,0,0";

  // Throws std::runtime_error("Unable to parse version") when `text` does not parse.
  explicit FileSystemVersion(const std::string& text);
  FileSystemVersion(const FileSystemVersion&) = default;
  FileSystemVersion& operator=(const FileSystemVersion&) = default;

  // Reads up to four components separated by any of kFileVersionDelims into `outVersion`;
  // missing components are 0, so "" is 0.0.0.0 and "5" is 5.0.0.0. Returns false when a piece
  // followed by a delimiter is not a whole number (empty pieces included, hence a leading or
  // doubled delimiter and negative numbers fail) or overflows 32 bits; the components read
  // before it stay stored. The last piece is taken when it converts and ignored otherwise, so
  // "1.2." and "1.2.beta" both give 1.2.0.0. A fifth number has no place to go and fails rather
  // than be dropped, so 1.2.3.4.5 never passes for 1.2.3.4; a fifth piece that is not a number
  // is ignored like any other non-numeric last piece.
  static bool ParseVersionString(const std::string& text, FileSystemVersion& outVersion);

  // All four components in decimal joined by ".", e.g. "1.0.0.0".
  std::string ToString() const;

  bool operator==(const FileSystemVersion& other) const;

  // Compares component by component, most significant first, as signed numbers (1.10 > 1.9):
  // the first differing pair decides through `op`; equal versions give op(x, x). Meant for
  // std::less<int>, std::less_equal<int>, std::equal_to<int>, std::greater_equal<int> and
  // std::greater<int>.
  template <class Op>
  static bool Compare(const FileSystemVersion& lhs, const FileSystemVersion& rhs, Op op) {
    ESD_ASSERT(4 == lhs.versionComps.size());
    ESD_ASSERT(4 == rhs.versionComps.size());
    for (std::size_t i = 0; i < 4; ++i) {
      if (lhs.versionComps[i] != rhs.versionComps[i])
        return op(lhs.versionComps[i], rhs.versionComps[i]);
    }
    return op(lhs.versionComps[0], lhs.versionComps[0]);
  }

  std::vector<std::int32_t> versionComps;
};

// Writes ToString().
std::ostream& operator<<(std::ostream& stream, const FileSystemVersion& version);

// Reads one whitespace-delimited word and parses it into `version`, ignoring the parse result:
// a word that does not parse leaves the partial result (1.x.3 gives 1.0.0.0) and the stream
// stays good. Only failing to read a word at all fails the stream. Reading stored "version"
// attributes relies on this leniency.
std::istream& operator>>(std::istream& stream, FileSystemVersion& version);

#endif
