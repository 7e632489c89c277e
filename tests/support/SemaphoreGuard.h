#ifndef TESTS_SUPPORT_SEMAPHOREGUARD_H
#define TESTS_SUPPORT_SEMAPHOREGUARD_H

#include <string>

namespace testing_support {

// Removes the lock semaphore of a resource when the guard dies, whoever holds it, so a failed
// or crashed test body never leaves /dev/shm/sem.* behind. Declare it before any locker on the
// same resource so it runs after their destructors.
class SemaphoreGuard {
 public:
  explicit SemaphoreGuard(std::string resourceName);
  ~SemaphoreGuard();
  SemaphoreGuard(const SemaphoreGuard&) = delete;
  SemaphoreGuard& operator=(const SemaphoreGuard&) = delete;

 private:
  std::string mResourceName;
};

// A resource name no other test run (or other test of this run) uses: it holds the process id,
// a counter and the caller's tag.
std::string UniqueResourceName(const std::string& tag);

// The file through which Linux shows a resource's lock semaphore: /dev/shm/sem.NAME.
std::string SemaphoreFilePath(const std::string& resourceName);

// True while the resource's lock semaphore exists, that is while someone holds the lock.
bool SemaphoreExists(const std::string& resourceName);

}  // namespace testing_support

#endif
