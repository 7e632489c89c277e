#ifndef ESD_XPLAT_XMLESCAPING_H
#define ESD_XPLAT_XMLESCAPING_H

#include <string>

namespace esd {
namespace XMLEscaping {

// Appends [first, last) to `out` with the five markup characters replaced by their predefined
// entities (" &quot;, & &amp;, ' &apos;, < &lt;, > &gt;); every other byte is copied as it is.
// Used for element text only: attribute values are written raw by the serialiser.
template <class Iter>
void AppendEscapedXML(std::string& out, Iter first, Iter last) {
  // Runs of plain bytes are appended whole.
  Iter plain = first;
  for (; first != last; ++first) {
    const char* entity;
    switch (*first) {
      case '"':
        entity = "&quot;";
        break;
      case '&':
        entity = "&amp;";
        break;
      case '\'':
        entity = "&apos;";
        break;
      case '<':
        entity = "&lt;";
        break;
      case '>':
        entity = "&gt;";
        break;
      default:
        continue;
    }
    out.append(plain, first);
    out += entity;
    plain = first;
    ++plain;
  }
  out.append(plain, last);
}

// The escaped copy of [first, last), as AppendEscapedXML writes it.
template <class Iter>
std::string EscapeXML(Iter first, Iter last) {
  std::string out;
  AppendEscapedXML(out, first, last);
  return out;
}

// Element text as a parser hands it back once written: XML turns every carriage return, alone or
// before a line feed, into a line feed. Comparing a new value with a stored one in this form keeps
// a text holding carriage returns from counting as changed on every request.
inline std::string AsReadBack(const std::string& text) {
  if (text.find('\r') == std::string::npos) return text;
  std::string out;
  out.reserve(text.size());
  for (std::string::size_type i = 0; i < text.size(); ++i) {
    if (text[i] != '\r') {
      out += text[i];
    } else if (i + 1 == text.size() || text[i + 1] != '\n') {
      out += '\n';
    }
  }
  return out;
}

}  // namespace XMLEscaping
}  // namespace esd

#endif
