#ifndef TESTS_SUPPORT_LOCKHOLDER_H
#define TESTS_SUPPORT_LOCKHOLDER_H

#include <sys/types.h>

#include <string>

#include "support/ChildProcess.h"

namespace testing_support {

// Another process holding the lock of `resource` (taken with time-out 0) until Release() or
// holdMs, whichever comes first. The destructor releases and waits.
class LockHolder {
 public:
  LockHolder(const std::string& resource, int holdMs);
  ~LockHolder();
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;

  bool Locked() const { return mLocked; }
  void Release();
  // 0 when the process took the lock and released it cleanly.
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
