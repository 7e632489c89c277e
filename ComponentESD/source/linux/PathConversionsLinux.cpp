#include "xplat/PathConversions.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "xplat/TextValidation.h"

namespace esd {

bool StdioPathToFSRef(const std::string& path, FSRef& ref) {
  ref.path.clear();
  if (path.empty()) return false;
  std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                        &std::free);
  if (!resolved) return false;
  ref.path = resolved.get();
  return true;
}

bool FSRefMakeVectorPath(const FSRef& ref, std::vector<char>& out) {
  out.clear();
  if (ref.path.empty()) return false;
  out.assign(ref.path.begin(), ref.path.end());
  out.push_back('\0');
  return true;
}

bool CStringToVectorUniChar(const char* cString, std::vector<uint16_t>& out) {
  out.clear();
  if (cString == nullptr) return false;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(cString);
  const unsigned char* const end = p + std::strlen(cString);
  std::vector<uint16_t> units;
  while (p != end) {
    unsigned long cp;
    const std::size_t length = DecodeUTF8(p, static_cast<std::size_t>(end - p), cp);
    if (length == 0 || !IsScalarValue(cp)) return false;
    p += length;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      units.push_back(static_cast<uint16_t>(0xD800 + (cp >> 10)));
      units.push_back(static_cast<uint16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      units.push_back(static_cast<uint16_t>(cp));
    }
  }
  out.swap(units);
  return true;
}

}  // namespace esd
