#ifndef ESD_XPLAT_XMLESCAPING_H
#define ESD_XPLAT_XMLESCAPING_H

#include <string>

namespace esd {
namespace XMLEscaping {

// The text of [first, last) with the five markup characters replaced by their predefined
// entities (" &quot;, & &amp;, ' &apos;, < &lt;, > &gt;); every other byte is copied as it is.
// Used for element text only: attribute values are written raw by the serialiser.
template <class Iter>
std::string EscapeXML(Iter first, Iter last) {
  std::string out;
  for (; first != last; ++first) {
    const char c = *first;
    switch (c) {
      case '"':
        out += "&quot;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '\'':
        out += "&apos;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += c;
        break;
    }
  }
  return out;
}

}  // namespace XMLEscaping
}  // namespace esd

#endif
