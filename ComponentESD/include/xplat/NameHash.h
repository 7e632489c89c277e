#ifndef ESD_XPLAT_NAMEHASH_H
#define ESD_XPLAT_NAMEHASH_H

#include <string>

namespace esd {

// Turns a name of any length into a fixed 24-character token: the Base64 text of the MD5 digest
// of the name's bytes, always ending in "==". Equal names give equal tokens, names differing in
// case give different ones. The token may contain "+" and "/", so callers that build file or
// semaphore names from it must allow for them. An empty name is a programming error.
std::string GetNameHashValue(std::string inString);

}  // namespace esd

#endif
