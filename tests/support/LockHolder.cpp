#include "support/LockHolder.h"

#include "xplat/ResourceLocker.h"

namespace testing_support {

LockHolder::LockHolder(const std::string& resource, int holdMs) {
  Pipe locked;
  mPid = StartChild([&]() {
    esd::ResourceLocker locker(resource, 0);
    if (!locker.Lock()) return 91;
    locked.Signal();
    mRelease.Wait(holdMs);
    return locker.Unlock(false) ? 0 : 92;
  });
  mLocked = mPid > 0 && locked.Wait();
}

LockHolder::~LockHolder() {
  Release();
  Wait();
}

void LockHolder::Release() {
  if (mPid > 0 && !mReleased) mRelease.Signal();
  mReleased = true;
}

int LockHolder::Wait() {
  if (mPid > 0) mStatus = WaitChild(mPid);
  mPid = -1;
  return mStatus;
}

}  // namespace testing_support
