#include "xplat/ResourceLocker.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/SemaphoreGuard.h"

namespace {

using testing_support::Pipe;
using testing_support::SemaphoreExists;
using testing_support::SemaphoreGuard;
using testing_support::StartChild;
using testing_support::UniqueResourceName;
using testing_support::WaitChild;

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The name is "/" and the name hash, with a "/" inside the hash (which Linux refuses) made "_";
// every process must derive the same one. The semaphore is private to its owner.
TEST(ResourceLocker, SemaphoreNameIsAValidLinuxNameDerivedFromTheHash) {
  EXPECT_EQ("/MlvTMiyOLj_i+mGbuGxF2w==", esd::ResourceLocker::GetSemaphoreName("lock-5"));
  const std::string resource = UniqueResourceName("mode");
  SemaphoreGuard guard(resource);
  {
    esd::ResourceLocker locker(resource, 0);
    ASSERT_TRUE(locker.Lock());
    struct stat info {};
    ASSERT_EQ(0, stat(testing_support::SemaphoreFilePath(resource).c_str(), &info));
    EXPECT_EQ(0700u, info.st_mode & 0777u);
    EXPECT_EQ(geteuid(), info.st_uid);
  }
  EXPECT_FALSE(SemaphoreExists(resource));  // released by the destructor
}

TEST(ResourceLocker, MisuseThrowsTheExactExceptions) {
  const std::string resource = UniqueResourceName("misuse");
  SemaphoreGuard guard(resource);
  esd::ResourceLocker locker(resource, 0);
  try {
    locker.Unlock(false);
    ADD_FAILURE() << "Unlock(false) without the lock did not throw";
  } catch (const esd::no_resource_lock& error) {
    EXPECT_STREQ("This object is not locking an item", error.what());
    EXPECT_EQ("Resource unknown", error.GetResourceName());
  }
  ASSERT_TRUE(locker.Lock());
  try {
    locker.Lock();
    ADD_FAILURE() << "a second Lock did not throw";
  } catch (const esd::resource_lock_fail& error) {
    EXPECT_STREQ("A resource is already being locked", error.what());
    EXPECT_EQ(resource, error.GetResourceName());
  }
  EXPECT_TRUE(locker.HasLock());  // the failed second Lock keeps the first one
  EXPECT_TRUE(locker.Unlock(false));
  EXPECT_THROW(locker.Unlock(false), std::runtime_error);
}

// Two lockers of one resource exclude each other within one process too; other resources do not.
TEST(ResourceLocker, LockersInOneProcessExcludeEachOther) {
  const std::string resource = UniqueResourceName("same"), other = UniqueResourceName("other");
  SemaphoreGuard guard(resource), otherGuard(other);
  esd::ResourceLocker first(resource, 0), second(resource, 20), unrelated(other, 0);
  ASSERT_TRUE(first.Lock());
  EXPECT_FALSE(second.Lock() || second.HasLock());
  EXPECT_TRUE(unrelated.Lock());
  EXPECT_TRUE(first.Unlock(false));
  EXPECT_TRUE(second.Lock());
  EXPECT_TRUE(second.Unlock(false) && unrelated.Unlock(false));
  EXPECT_FALSE(SemaphoreExists(resource) || SemaphoreExists(other));
}

// A time-out of zero makes one attempt; a longer one waits it out, and gets the lock when the
// other process lets go within it.
TEST(ResourceLocker, WaitsForAnotherProcessUntilTheTimeOut) {
  const std::string resource = UniqueResourceName("timeout");
  SemaphoreGuard guard(resource);
  Pipe held, release;
  const pid_t holder = StartChild([&] {
    esd::ResourceLocker locker(resource, 0);
    if (!locker.Lock()) return 1;
    held.Signal();
    if (!release.Wait()) return 2;
    std::this_thread::sleep_for(milliseconds(100));
    return locker.Unlock(false) ? 0 : 3;
  });
  ASSERT_TRUE(held.Wait());

  esd::ResourceLocker immediate(resource, 0), patient(resource, 50);
  Clock::time_point start = Clock::now();
  EXPECT_FALSE(immediate.Lock());
  EXPECT_LT(Clock::now() - start, milliseconds(1000));
  start = Clock::now();
  EXPECT_FALSE(patient.Lock());
  EXPECT_GE(Clock::now() - start, milliseconds(50));
  EXPECT_THROW(patient.Unlock(false), esd::no_resource_lock);

  release.Signal();
  esd::ResourceLocker waiter(resource, 10000);
  EXPECT_TRUE(waiter.Lock());
  EXPECT_EQ(0, WaitChild(holder));  // the holder's own Unlock succeeded, so it released first
  EXPECT_TRUE(waiter.Unlock(false));
}

// Force removes another process's lock; that holder's Unlock then fails and it still counts as
// holding, and its destructor removes the name again (it cannot tell the new semaphore apart).
TEST(ResourceLocker, ForcedUnlockBreaksAnotherProcessesLock) {
  const std::string resource = UniqueResourceName("forced");
  SemaphoreGuard guard(resource);
  Pipe held, broken, retaken, childChecked;
  const pid_t holder = StartChild([&] {
    int status = 0;
    {
      esd::ResourceLocker locker(resource, 0);
      if (!locker.Lock()) return 1;
      held.Signal();
      if (!broken.Wait()) return 2;
      if (locker.Unlock(false) || !locker.HasLock()) status = 3;
      childChecked.Signal();
      if (!retaken.Wait()) return 5;
    }
    return status;
  });
  ASSERT_TRUE(held.Wait());
  esd::ResourceLocker breaker(resource, 0);
  EXPECT_TRUE(breaker.Unlock(true));
  EXPECT_FALSE(breaker.HasLock());
  EXPECT_FALSE(SemaphoreExists(resource));
  broken.Signal();
  ASSERT_TRUE(childChecked.Wait());

  EXPECT_TRUE(breaker.Lock());
  retaken.Signal();
  EXPECT_EQ(0, WaitChild(holder));
  EXPECT_FALSE(SemaphoreExists(resource));
  EXPECT_FALSE(breaker.Unlock(false));
}

// A killed holder leaves its lock until someone forces it; forcing a free lock removes nothing.
TEST(ResourceLocker, LockOfADeadProcessStaysUntilForced) {
  const std::string resource = UniqueResourceName("dead");
  SemaphoreGuard guard(resource);
  const pid_t holder = StartChild([&resource] {
    esd::ResourceLocker locker(resource, 0);
    if (!locker.Lock()) return 1;
    kill(getpid(), SIGKILL);
    return 2;
  });
  EXPECT_EQ(-1, WaitChild(holder));
  EXPECT_TRUE(SemaphoreExists(resource));
  esd::ResourceLocker next(resource, 20);
  EXPECT_FALSE(next.Lock());
  EXPECT_TRUE(next.Unlock(true));
  EXPECT_FALSE(next.Unlock(true));
  EXPECT_TRUE(next.Lock());
  EXPECT_TRUE(next.Unlock(false));
  EXPECT_FALSE(SemaphoreExists(resource));
}

}  // namespace
