#ifndef ESD_SOURCE_XPLAT_XMLTREEWRITER_H
#define ESD_SOURCE_XPLAT_XMLTREEWRITER_H

#include <ostream>

#include "xplat/XMLDocumentNode.h"

namespace esd {
namespace XMLTreeWriter {

// Judges one element node as the writer reaches it.
using NodeCheck = bool (*)(const XMLDocumentNode& node);

// Writes `subtree` in the text form of operator<< (which is this function with no check). With
// a check, every node below its top is also passed to it right as it is written, while
// its data is at hand, and the result is whether all passed; the text written is the same
// either way. The stream is flushed at the end.
bool Write(std::ostream& stream, const XMLDocumentNode& subtree, NodeCheck check);

}  // namespace XMLTreeWriter
}  // namespace esd

#endif
