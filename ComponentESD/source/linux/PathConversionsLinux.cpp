#include "xplat/PathConversions.h"

#include <cstdlib>
#include <memory>

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
  std::vector<uint16_t> units;
  while (*p != 0) {
    const unsigned char lead = *p++;
    uint32_t cp;
    int more;
    uint32_t minimum;
    if (lead < 0x80) {
      units.push_back(lead);
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      cp = lead & 0x1F;
      more = 1;
      minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      cp = lead & 0x0F;
      more = 2;
      minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      cp = lead & 0x07;
      more = 3;
      minimum = 0x10000;
    } else {
      return false;  // a continuation byte without a lead, or 0xF8..0xFF
    }
    for (int i = 0; i < more; ++i) {
      // The terminating NUL fails this test too, so a truncated sequence is caught here.
      if ((*p & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (*p++ & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
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
