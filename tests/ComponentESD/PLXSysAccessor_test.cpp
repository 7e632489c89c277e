#include "xplat/PLXSysAccessor.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gnu/lib-names.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
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

TEST(PLXFrameworkBundle, SystemFrameworkIsTheCLibrary) {
  esd::PLXFrameworkBundle bundle("System.framework");
  void* viaBundle = bundle.GetFunctionPointerForName("sem_unlink");
  ASSERT_NE(nullptr, viaBundle);

  void* libc = dlopen(LIBC_SO, RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(nullptr, libc);
  EXPECT_EQ(dlsym(libc, "sem_unlink"), viaBundle);
  dlclose(libc);

  EXPECT_EQ(nullptr, bundle.GetFunctionPointerForName("esd_no_such_function"));
}

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

TEST(PLXFrameworkBundleDeathTest, NullFunctionNameIsAnAssertion) {
  esd::PLXFrameworkBundle bundle("System.framework");
  EXPECT_DEATH(bundle.GetFunctionPointerForName(nullptr), "failed assertion `inFunctionName'");
}

TEST(PLXSysAccessor, ForwardsToTheCLibrary) {
  esd::PLXSysAccessor accessor;
  const std::string variable = "ESD_ACCESSOR_TEST_" + std::to_string(getpid());

  ASSERT_EQ(0, accessor.setenv(variable.c_str(), "first", 1));
  EXPECT_EQ(0, accessor.setenv(variable.c_str(), "second", 0));  // no overwrite
  EXPECT_STREQ("first", accessor.getenv(variable.c_str()));
  EXPECT_EQ(0, accessor.unsetenv(variable.c_str()));
  EXPECT_EQ(nullptr, std::getenv(variable.c_str()));

  testing_support::TempDir dir;
  testing_support::WriteFile(dir / "present", "0123456789");
  EXPECT_EQ(0, accessor.access((dir / "present").c_str(), F_OK));
  EXPECT_EQ(-1, accessor.access((dir / "absent").c_str(), F_OK));

  // The stream functions work on streams of the process's own C library.
  FILE* file = std::fopen((dir / "present").c_str(), "r");
  ASSERT_NE(nullptr, file);
  EXPECT_EQ(0, accessor.fseek(file, 4, SEEK_SET));
  char bytes[4] = {};
  EXPECT_EQ(3u, accessor.fread(bytes, 1, 3, file));
  EXPECT_STREQ("456", bytes);
  EXPECT_EQ(7, accessor.ftell(file));
  std::fclose(file);

  FILE* pipe = accessor.popen("exit 3", "r");
  ASSERT_NE(nullptr, pipe);
  EXPECT_EQ(3 << 8, accessor.pclose(pipe));

  // The semaphore functions keep the variadic mode and initial value intact.
  const std::string semaphore = "/esd-accessor-test-" + std::to_string(getpid());
  sem_t* handle = accessor.sem_open(semaphore.c_str(), O_CREAT | O_EXCL, 0600, 3);
  ASSERT_NE(SEM_FAILED, handle);
  int value = 0;
  EXPECT_EQ(0, sem_getvalue(handle, &value));
  EXPECT_EQ(3, value);
  EXPECT_EQ(SEM_FAILED, accessor.sem_open(semaphore.c_str(), O_CREAT | O_EXCL, 0600, 1));
  EXPECT_EQ(EEXIST, errno);
  EXPECT_EQ(0, accessor.sem_close(handle));
  EXPECT_EQ(0, accessor.sem_unlink(semaphore.c_str()));
}

TEST(PLXSysAccessor, AnyMissingFunctionFailsTheWholeTable) {
  // The dynamic loader itself exports none of the names.
  EXPECT_EQ("missing symbol", RuntimeErrorOf([] { AccessorOver accessor(LD_SO); }));
  // This one exports all but the last.
  EXPECT_EQ("missing symbol",
            RuntimeErrorOf([] { AccessorOver accessor(PARTIAL_SYSTEM_LIBRARY); }));
}

}  // namespace
