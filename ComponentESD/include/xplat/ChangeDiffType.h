#ifndef ESD_XPLAT_CHANGEDIFFTYPE_H
#define ESD_XPLAT_CHANGEDIFFTYPE_H

#include <sstream>
#include <string>

namespace esd {

// The one conversion between text and typed values. The value is written into a string stream
// with its standard inserter and read back with the target's standard extractor; the whole text
// must be consumed (surrounding blanks aside). So "12a", "1 2" and "" fail, a bool reads only
// "0" or "1", and a text target takes a single word. On failure `out` is unspecified.
template <class From, class To>
struct ChangeDiffTypeImpl {
  static bool ChangeType(const From& in, To& out) {
    std::stringstream stream;
    stream << in;
    if (stream.fail()) return false;
    stream >> out;
    if (stream.fail()) return false;
    stream >> std::ws;
    return stream.eof();
  }
};

// Shorthand that lets the compiler deduce both types.
template <class From, class To>
bool ChangeType(const From& in, To& out) {
  return ChangeDiffTypeImpl<From, To>::ChangeType(in, out);
}

}  // namespace esd

#endif
