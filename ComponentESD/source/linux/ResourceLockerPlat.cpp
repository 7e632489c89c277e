#include <fcntl.h>
#include <semaphore.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <limits>

#include "xplat/GlobalPLXSysAccessor.h"
#include "xplat/NameHash.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ResourceLockerPlat.h"

namespace esd {

namespace {

const unsigned short kSemaphoreMode = 0700;
const unsigned int kSemaphoreInitialValue = 1;
const useconds_t kPollInterval = 1000;  // microseconds

// A clock that never jumps with the wall clock, so a changed system time neither cuts a wait
// short nor stretches it.
std::uint64_t Microseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000u +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
}

// now + timeoutMs, saturating instead of wrapping for absurdly long time-outs.
std::uint64_t Deadline(std::uint64_t now, unsigned long timeoutMs) {
  const std::uint64_t maximum = std::numeric_limits<std::uint64_t>::max();
  if (timeoutMs > (maximum - now) / 1000u) return maximum;
  return now + static_cast<std::uint64_t>(timeoutMs) * 1000u;
}

}  // namespace

// Linux accepts no "/" in a semaphore name after the leading one, and the Base64 hash may hold
// some; "_" is outside the Base64 alphabet, so the mapping cannot make two hashes collide.
std::string ResourceLocker::GetSemaphoreName(const std::string& resourceName) {
  std::string name = "/" + GetNameHashValue(resourceName);
  std::replace(name.begin() + 1, name.end(), '/', '_');
  return name;
}

ResourceLocker::ResourceLockerPlat::ResourceLockerPlat(const std::string& resourceName,
                                                       unsigned long timeoutMs)
    : mSysAccessor(GlobalPLXSysAccessor::GetGlobalPLXSysAccessor()),
      mSemaphore(SEM_FAILED),
      mResourceName(resourceName),
      mTimeout(timeoutMs) {}

// Unlock(false) cannot throw here because the lock is held. When the name is already gone
// (someone broke the lock), the handle is closed anyway: nobody can use it after this.
ResourceLocker::ResourceLockerPlat::~ResourceLockerPlat() {
  if (!HasLock()) return;
  if (!Unlock(false)) {
    mSysAccessor.sem_close(mSemaphore);
    mSemaphore = SEM_FAILED;
  }
}

// The semaphore's count is never used: creating it exclusively is taking the lock. Failures
// of any kind (the name exists, no permission) are retried until the deadline, so a lock being
// broken and re-created by others in between does not end the wait early.
bool ResourceLocker::ResourceLockerPlat::Lock() {
  if (HasLock()) throw resource_lock_fail(mResourceName, "A resource is already being locked");

  const std::uint64_t deadline = Deadline(Microseconds(), mTimeout);
  for (;;) {
    const std::string name = GetSemaphoreName(mResourceName);
    mSemaphore = mSysAccessor.sem_open(name.c_str(), O_CREAT | O_EXCL, kSemaphoreMode,
                                       kSemaphoreInitialValue);
    if (mSemaphore != SEM_FAILED) break;
    usleep(kPollInterval);
    if (!(Microseconds() < deadline)) break;
  }
  return HasLock();
}

// A failed unlink leaves the handle in place on purpose: the object keeps counting as holding,
// and its destructor tries again.
bool ResourceLocker::ResourceLockerPlat::Unlock(bool force) {
  if (!HasLock() && !force) {
    throw no_resource_lock("Resource unknown", "This object is not locking an item");
  }
  if (mSysAccessor.sem_unlink(GetSemaphoreName(mResourceName).c_str()) != 0) return false;
  if (HasLock()) {
    mSysAccessor.sem_close(mSemaphore);
    mSemaphore = SEM_FAILED;
  }
  return true;
}

bool ResourceLocker::ResourceLockerPlat::HasLock() const { return mSemaphore != SEM_FAILED; }

}  // namespace esd
