#ifndef TESTS_SUPPORT_LOCKHOLDER_H
#define TESTS_SUPPORT_LOCKHOLDER_H

#include <sys/types.h>

#include <string>

#include "support/ChildProcess.h"

namespace testing_support {

// Another process holding the inter-process lock of `resource`: it takes the lock (time-out 0)
// and keeps it until Release() is called or holdMs have passed, whichever comes first.
class LockHolder {
 public:
  LockHolder(const std::string& resource, int holdMs);
  // Releases the lock and waits for the process.
  ~LockHolder();
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;

  // Whether the process took the lock.
  bool Locked() const { return mLocked; }
  // Tells the process to let go now.
  void Release();
  // Waits for the process: 0 when it took the lock and released it cleanly.
  int Wait();

 private:
  Pipe mRelease;
  pid_t mPid = -1;
  bool mLocked = false;
  bool mReleased = false;
  int mStatus = -1;
};

}  // namespace testing_support

#endif
