#ifndef TESTS_SUPPORT_LOCKFILES_H
#define TESTS_SUPPORT_LOCKFILES_H

#include <string>

namespace testing_support {

// Removes a resource's lock file (its path under the Env in force when made) when it dies.
class LockFileGuard {
 public:
  explicit LockFileGuard(const std::string& resourceName);
  ~LockFileGuard();
  LockFileGuard(const LockFileGuard&) = delete;
  LockFileGuard& operator=(const LockFileGuard&) = delete;

 private:
  std::string mPath;
};

// A resource name no other test or test run uses (process id, counter, tag).
std::string UniqueResourceName(const std::string& tag);

// The resource's lock file where the library puts it; empty when there is no folder for it.
std::string LockFilePath(const std::string& resourceName);

// True while some process holds the resource's lock (asked of the kernel, taking nothing).
bool LockIsHeld(const std::string& resourceName);

}  // namespace testing_support

#endif
