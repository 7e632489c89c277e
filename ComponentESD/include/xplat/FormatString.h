#ifndef ESD_XPLAT_FORMATSTRING_H
#define ESD_XPLAT_FORMATSTRING_H

#include <cstddef>
#include <string>

#include "xplat/ChangeDiffType.h"
#include "xplat/ESDAssert.h"

namespace esd {

namespace detail {

// Text arguments are taken as they are; everything else goes through ChangeType, which would
// otherwise keep only the first word of a text.
inline bool AppendFormatArg(std::string& out, const std::string& value) {
  out += value;
  return true;
}
inline bool AppendFormatArg(std::string& out, const char* value) {
  out += value ? value : "";
  return true;
}
template <class T>
bool AppendFormatArg(std::string& out, const T& value) {
  std::string text;
  if (!ChangeDiffTypeImpl<T, std::string>::ChangeType(value, text)) return false;
  out += text;
  return true;
}

// Appends argument `index`; an argument that was not passed counts as empty text.
template <class... Args>
bool AppendNthFormatArg(std::string& out, std::size_t index, const Args&... args) {
  bool ok = true;
  std::size_t position = 0;
  (void)((position++ == index ? (ok = AppendFormatArg(out, args), true) : false) || ...);
  return ok;
}

}  // namespace detail

// Appends `pattern` to `out` with "%0" to "%9" replaced by the matching argument. "%%" yields
// one "%", a "%" before any other non-digit (or at the very end) stays as written. A run of
// digits is read whole, so "%12" names argument 12, which is a programming error. Returns
// false as soon as an argument cannot be converted; `out` then holds a partial result.
template <class... Args>
bool FormatString(std::string& out, const std::string& pattern, const Args&... args) {
  static_assert(sizeof...(Args) <= 10, "FormatString takes at most ten arguments");
  const std::size_t size = pattern.size();
  std::size_t i = 0;
  while (i < size) {
    const char c = pattern[i];
    if (c != '%' || i + 1 == size) {
      out += c;
      ++i;
      continue;
    }
    const char next = pattern[i + 1];
    if (next < '0' || next > '9') {
      if (next == '%') {
        out += '%';
      } else {
        out += c;
        out += next;
      }
      i += 2;
      continue;
    }
    std::size_t number = 0;
    std::size_t j = i + 1;
    for (; j < size && pattern[j] >= '0' && pattern[j] <= '9'; ++j) {
      if (number <= 9) number = number * 10 + static_cast<std::size_t>(pattern[j] - '0');
    }
    if (number > 9) ESD_ASSERT_FAIL("NULL == \"Format values above %9 are not supported\"");
    if (!detail::AppendNthFormatArg(out, number, args...)) return false;
    i = j;
  }
  return true;
}

}  // namespace esd

#endif
