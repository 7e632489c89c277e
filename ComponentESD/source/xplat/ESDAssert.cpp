#include "xplat/ESDAssert.h"

#include <cstdio>
#include <cstdlib>

namespace esd {

void AssertionFailed(const char* file, unsigned line, const char* condition) {
  std::fprintf(stderr, "%s:%u: failed assertion `%s'\n", file, line, condition);
  std::fflush(stderr);
  std::abort();
}

}  // namespace esd
