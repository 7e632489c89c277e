#include <fcntl.h>
#include <semaphore.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

// Waiters poll once a millisecond, so a process that releases a lock and asks for it again at
// once (a host making several calls in a row) would take it back nearly every time and starve
// them. Waiters therefore raise the count of the holder's semaphore, which nothing else uses, and
// a holder that finds it raised when it lets go gives way: its next attempt on that lock, on the
// same thread, waits until another process has been seen holding it, or for kHandOverTime at
// most (the waiter may have given up meanwhile). A process alone never waits for this.
const std::uint64_t kHandOverTime = 10 * kPollInterval;  // microseconds

// The last lock this thread released while others waited; plain data, so that no thread-exit
// work is left behind in a host that unloads the library.
struct ContendedRelease {
  char name[64];
  std::uint64_t at;
};
thread_local ContendedRelease tContendedRelease = {{0}, 0};

void RememberContendedRelease(const std::string& name) {
  if (name.size() >= sizeof tContendedRelease.name) return;
  std::copy(name.begin(), name.end(), tContendedRelease.name);
  tContendedRelease.name[name.size()] = '\0';
  tContendedRelease.at = Microseconds();
}

// Whether someone holds `name` now (one whose semaphore we may not open holds it too). With
// announce, also tells the holder that someone waits. Opening an existing semaphore costs a poller
// far less than a failed exclusive creation, which makes and removes a file each time.
bool IsHeld(PLXSysAccessor& sys, const std::string& name, bool announce) {
  sem_t* semaphore = sys.sem_open(name.c_str(), 0, 0, 0);
  if (semaphore == SEM_FAILED) return errno != ENOENT;
  if (announce) sem_post(semaphore);
  sys.sem_close(semaphore);
  return true;
}

// Half to one and a half poll intervals, a different fraction each time. Waiters sleeping whole
// intervals keep their phase, and the one whose phase falls just after the usual release time
// would win nearly every hand-over while another lost dozens in a row. Seeded again in a forked
// child, which would otherwise draw the same fractions as its parent.
useconds_t JitteredPollInterval() {
  static thread_local std::uint64_t state = 0;
  static thread_local pid_t owner = 0;
  const pid_t self = getpid();
  if (state == 0 || owner != self) {
    state = (Microseconds() ^ (static_cast<std::uint64_t>(self) << 32)) | 1;
    owner = self;
  }
  state ^= state << 13;
  state ^= state >> 7;
  state ^= state << 17;
  return static_cast<useconds_t>(kPollInterval / 2 + state % kPollInterval);
}

// See kHandOverTime. Returns at the deadline at the latest, so a Lock still makes its attempt.
void GiveWayAfterContendedRelease(PLXSysAccessor& sys, const std::string& name,
                                  std::uint64_t deadline) {
  if (name != tContendedRelease.name) return;
  tContendedRelease.name[0] = '\0';
  const std::uint64_t until = std::min(tContendedRelease.at + kHandOverTime, deadline);
  while (Microseconds() < until && !IsHeld(sys, name, true)) usleep(kPollInterval);
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

// Creating the semaphore exclusively is taking the lock; its count only carries the waiters'
// announcements. Failures of any kind (the name exists, no permission) are retried until the
// deadline, one attempt per poll interval at most, so a lock being broken and re-created by
// others in between does not end the wait early.
bool ResourceLocker::ResourceLockerPlat::Lock() {
  if (HasLock()) throw resource_lock_fail(mResourceName, "A resource is already being locked");

  const std::uint64_t deadline = Deadline(Microseconds(), mTimeout);
  const std::string name = GetSemaphoreName(mResourceName);
  GiveWayAfterContendedRelease(mSysAccessor, name, deadline);
  for (;;) {
    mSemaphore = mSysAccessor.sem_open(name.c_str(), O_CREAT | O_EXCL, kSemaphoreMode,
                                       kSemaphoreInitialValue);
    if (mSemaphore != SEM_FAILED) return true;
    // About every millisecond the waiter looks whether the lock is still held, announcing
    // itself to the holder each time, and tries to create the semaphore again once it looks
    // free.
    IsHeld(mSysAccessor, name, true);
    do {
      usleep(JitteredPollInterval());
      if (!(Microseconds() < deadline)) return false;
    } while (IsHeld(mSysAccessor, name, true));
  }
}

// A failed unlink leaves the handle in place on purpose: the object keeps counting as holding,
// and its destructor tries again.
bool ResourceLocker::ResourceLockerPlat::Unlock(bool force) {
  if (!HasLock() && !force) {
    throw no_resource_lock("Resource unknown", "This object is not locking an item");
  }
  const std::string name = GetSemaphoreName(mResourceName);
  int count = 0;
  const bool contended = HasLock() && sem_getvalue(mSemaphore, &count) == 0 &&
                         count > static_cast<int>(kSemaphoreInitialValue);
  if (mSysAccessor.sem_unlink(name.c_str()) != 0) return false;
  if (HasLock()) {
    mSysAccessor.sem_close(mSemaphore);
    mSemaphore = SEM_FAILED;
  }
  if (contended) RememberContendedRelease(name);
  return true;
}

bool ResourceLocker::ResourceLockerPlat::HasLock() const { return mSemaphore != SEM_FAILED; }

}  // namespace esd
