#ifndef VANTUUPDATERSHARED_XPLAT_STOREROOT_H
#define VANTUUPDATERSHARED_XPLAT_STOREROOT_H

#include <string>

#include "xplat/XMLDocumentNode.h"

// The one element under a store's document node that holds its records.
namespace StoreRoot {

// The document's top element when it is named `name`. When it is not (a new store, or a file
// another program wrote), a new, empty one takes the place of whatever the document held, so the
// repaired store can be saved. Null only when that element cannot be made.
esd::XMLDocumentNode* FindOrAdd(esd::XMLDocumentNode* document, const std::string& name);

}  // namespace StoreRoot

#endif
