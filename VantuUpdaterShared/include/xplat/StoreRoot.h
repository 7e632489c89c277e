#ifndef VANTUUPDATERSHARED_XPLAT_STOREROOT_H
#define VANTUUPDATERSHARED_XPLAT_STOREROOT_H

#include <string>

#include "xplat/XMLDocumentNode.h"

// The one element under a store's document node that holds its records.
namespace StoreRoot {

// The document's child element named `name`, of which a store has one (two are a programming
// error, asserted); a new, empty one is appended when the document has none (a new store, or a
// file another program left without it). Null only when that element cannot be made.
esd::XMLDocumentNode* FindOrAdd(esd::XMLDocumentNode* document, const std::string& name);

}  // namespace StoreRoot

#endif
