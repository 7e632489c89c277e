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

// (The system framework resolving to the C library is what every lock stands on.)
TEST(PLXFrameworkBundle, LibrariesThatCannotBeLoadedThrow) {
  testing_support::TempDir dir;
  testing_support::WriteFile(dir / "not-a-library.so", "plain text\n");
  const std::string notALibrary = dir / "not-a-library.so";
  for (const char* name : {"Nonexistent.framework", "libesd-does-not-exist.so.1",
                           notALibrary.c_str()}) {
    SCOPED_TRACE(name);
    EXPECT_EQ("unable to load bundle",
              RuntimeErrorOf([name] { esd::PLXFrameworkBundle bundle(name); }));
    EXPECT_EQ("unable to load bundle", RuntimeErrorOf([name] { AccessorOver accessor(name); }));
  }
}

TEST(PLXSysAccessor, AnyMissingFunctionFailsTheWholeTable) {
  // The dynamic loader itself exports none of the names.
  EXPECT_EQ("missing symbol", RuntimeErrorOf([] { AccessorOver accessor(LD_SO); }));
  // This one exports all but the last.
  EXPECT_EQ("missing symbol",
            RuntimeErrorOf([] { AccessorOver accessor(PARTIAL_SYSTEM_LIBRARY); }));
}

}  // namespace
