#ifndef ESD_XPLAT_XMLWRITECHECK_H
#define ESD_XPLAT_XMLWRITECHECK_H

#include <ostream>

#include "xplat/XMLDocumentNode.h"

namespace esd {
namespace XMLWriteCheck {

// True only when the text operator<< writes for `document` is certainly a well-formed document
// that the builder will load again: a document node declaring version "1.0" (with at most the
// encoding "UTF-8"), exactly one element below it, element and attribute names of plain ASCII
// name characters, attribute values without '<', '&' or '"', and nothing but printable ASCII,
// tab, line feed, carriage return and well-formed UTF-8 of ordinary characters anywhere.
//
// False means "not vouched for", not "broken": the check is deliberately narrower than XML (a
// name with non-ASCII letters, a C1 control character, a declared version "1.1" are all
// refused), and a caller that still wants to write such a tree parses its text instead. One
// pass over the tree, a small fraction of what a parse of the text costs.
bool WritesWellFormed(const XMLDocumentNode& document);

// Writes `document` to `stream` exactly as operator<< does and returns WritesWellFormed(document),
// in one walk over the tree instead of two: for a large tree, reaching its nodes in memory costs
// more than checking them.
bool WriteVouched(std::ostream& stream, const XMLDocumentNode& document);

}  // namespace XMLWriteCheck
}  // namespace esd

#endif
