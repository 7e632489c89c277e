#include "xplat/PrefsLockScope.h"

#include "xplat/LockPolicyInterface.h"
#include "xplat/PrefsWriter.h"

namespace esd {

PrefsLockScope::PrefsLockScope(PrefsWriter& writer) : mWriter(writer), mTook(false), mHeld(true) {
  LockPolicyInterface* lock = writer.GetLockPolicy();
  if (!lock) return;
  if (!lock->HasLock()) mTook = writer.LockPrefs();
  mHeld = lock->HasLock();
}

PrefsLockScope::~PrefsLockScope() {
  try {
    Release();
  } catch (...) {
    // A lock broken by someone else cannot be released here; its owner's destructor retries.
  }
}

bool PrefsLockScope::Release() {
  if (!mTook) return true;
  mTook = false;
  LockPolicyInterface* lock = mWriter.GetLockPolicy();
  if (!lock || !lock->HasLock()) return false;
  return lock->Unlock(false);
}

}  // namespace esd
