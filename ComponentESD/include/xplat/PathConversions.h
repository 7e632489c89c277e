#ifndef ESD_XPLAT_PATHCONVERSIONS_H
#define ESD_XPLAT_PATHCONVERSIONS_H

// Conversions between POSIX paths, platform file references and UTF-16 text. Linux has no
// catalog reference, so a reference is the resolved absolute path of an existing object.

#include <cstdint>
#include <string>
#include <vector>

namespace esd {

struct FSRef {
  std::string path;  // absolute, no "." / ".." / symbolic links; empty when unset
};

// True when `path` names an existing object (following links); `ref` then holds its resolved
// absolute path. On false `ref` is cleared. A relative path resolves against the current folder.
bool StdioPathToFSRef(const std::string& path, FSRef& ref);

// The path of `ref` as bytes followed by one terminating NUL, so out.data() is a C string and
// out.size() is the path length + 1. False (out emptied) when `ref` is unset.
bool FSRefMakeVectorPath(const FSRef& ref, std::vector<char>& out);

// The UTF-16 code units of a UTF-8 C string, without a terminator. False (out emptied) for a
// null pointer or malformed UTF-8 (bad or truncated sequences, overlong forms, surrogate code
// points, values above U+10FFFF).
bool CStringToVectorUniChar(const char* cString, std::vector<uint16_t>& out);

}  // namespace esd

#endif
