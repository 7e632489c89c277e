#include "xplat/NameHash.h"

#include <iterator>

#include "xplat/Base64.h"
#include "xplat/ESDAssert.h"
#include "xplat/MD5Hash.h"

namespace esd {

std::string GetNameHashValue(std::string inString) {
  ESD_ASSERT(!inString.empty());
  MD5Hash hash;
  hash.Update(inString.begin(), inString.end());
  unsigned char digest[MD5Hash::kDigestSize];
  hash.Finalize(digest);
  std::string token;
  token.reserve(24);
  Base64Encode(std::begin(digest), std::end(digest), std::back_inserter(token));
  return token;
}

}  // namespace esd
