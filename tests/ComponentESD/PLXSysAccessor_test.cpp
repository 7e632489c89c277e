#include "xplat/PLXSysAccessor.h"

#include <gnu/lib-names.h>

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/TempDir.h"
#include "xplat/PLXFrameworkBundle.h"

namespace {

// The accessor's table built from a library other than the C library.
class AccessorOver : public esd::PLXSysAccessor {
 public:
  explicit AccessorOver(const char* library) : PLXSysAccessor(library) {}
};

// Runs `make` and returns the std::runtime_error text it threw, or "" when it threw nothing.
template <typename Make>
std::string RuntimeErrorOf(Make make) {
  try {
    make();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

// A library that cannot be loaded fails the bundle and the accessor; one that lacks any of the
// names fails the whole table: the dynamic loader exports none, the partial library all but the
// last. (The system framework resolving to the C library is what every lock stands on.)
TEST(PLXSysAccessor, LibrariesThatCannotBeLoadedOrLackANameThrow) {
  testing_support::TempDir dir;
  testing_support::WriteFile(dir / "not-a-library.so", "plain text\n");
  const std::string notALibrary = dir / "not-a-library.so";
  for (const char* name : {"Nonexistent.framework", "libesd-does-not-exist.so.1",
                           notALibrary.c_str(), LD_SO, PARTIAL_SYSTEM_LIBRARY}) {
    const bool loads = name == std::string(LD_SO) || name == std::string(PARTIAL_SYSTEM_LIBRARY);
    EXPECT_EQ(loads ? "" : "unable to load bundle",
              RuntimeErrorOf([name] { esd::PLXFrameworkBundle bundle(name); })) << name;
    EXPECT_EQ(loads ? "missing symbol" : "unable to load bundle",
              RuntimeErrorOf([name] { AccessorOver accessor(name); })) << name;
  }
}

}  // namespace
