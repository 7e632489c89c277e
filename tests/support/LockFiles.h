#ifndef TESTS_SUPPORT_LOCKFILES_H
#define TESTS_SUPPORT_LOCKFILES_H

#include <string>

namespace testing_support {

// Removes the lock file of a resource when the guard dies, so that a test locking in the test
// runner's own runtime folder leaves nothing behind. The path is taken when the guard is made,
// under the Env in force then.
class LockFileGuard {
 public:
  explicit LockFileGuard(const std::string& resourceName);
  ~LockFileGuard();
  LockFileGuard(const LockFileGuard&) = delete;
  LockFileGuard& operator=(const LockFileGuard&) = delete;

 private:
  std::string mPath;
};

// A resource name no other test run (or other test of this run) uses: it holds the process id,
// a counter and the caller's tag.
std::string UniqueResourceName(const std::string& tag);

// The resource's lock file where the library puts it; empty when there is no folder for it.
std::string LockFilePath(const std::string& resourceName);

// True while some process holds the resource's lock (asked of the kernel, taking nothing).
bool LockIsHeld(const std::string& resourceName);

}  // namespace testing_support

#endif
