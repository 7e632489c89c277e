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
#include "xplat/NameHash.h"

namespace {

using testing_support::Pipe;
using testing_support::SemaphoreExists;
using testing_support::SemaphoreGuard;
using testing_support::StartChild;
using testing_support::UniqueResourceName;
using testing_support::WaitChild;

using Clock = std::chrono::steady_clock;

long MillisecondsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// Starts a child that takes the lock, signals `held`, then keeps it until `release` arrives
// (or, with release null, for holdMs). Exit status 0 means the child took and released it.
pid_t StartHolder(const std::string& resource, Pipe& held, Pipe* release, int holdMs = 0) {
  return StartChild([&resource, &held, release, holdMs] {
    esd::ResourceLocker locker(resource, 0);
    if (!locker.Lock()) return 1;
    held.Signal();
    if (release != nullptr) {
      if (!release->Wait()) return 2;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(holdMs));
    }
    return locker.Unlock(false) ? 0 : 3;
  });
}

// A resource whose hash holds a "/", which Linux does not accept inside a semaphore name.
std::string ResourceWithSlashInHash() {
  for (int i = 0;; ++i) {
    std::string name = UniqueResourceName("slash-" + std::to_string(i));
    if (esd::GetNameHashValue(name).find('/') != std::string::npos) return name;
  }
}

TEST(ResourceLocker, SemaphoreNameIsAValidLinuxNameDerivedFromTheHash) {
  const std::string resource = ResourceWithSlashInHash();
  const std::string name = esd::ResourceLocker::GetSemaphoreName(resource);
  std::string expected = "/" + esd::GetNameHashValue(resource);
  for (size_t i = 1; i < expected.size(); ++i) {
    if (expected[i] == '/') expected[i] = '_';
  }
  EXPECT_EQ(expected, name);
  EXPECT_EQ(25u, name.size());
  EXPECT_EQ(std::string::npos, name.find('/', 1));
  EXPECT_EQ(name, esd::ResourceLocker::GetSemaphoreName(resource));

  SemaphoreGuard guard(resource);
  {
    esd::ResourceLocker locker(resource, 0);
    ASSERT_TRUE(locker.Lock());
    ASSERT_TRUE(SemaphoreExists(resource));
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
  EXPECT_TRUE(SemaphoreExists(resource));
  EXPECT_TRUE(locker.Unlock(false));
  EXPECT_FALSE(locker.HasLock());
  EXPECT_THROW(locker.Unlock(false), esd::no_resource_lock);
  EXPECT_THROW(locker.Unlock(false), std::runtime_error);
}

TEST(ResourceLocker, LockersInOneProcessExcludeEachOther) {
  const std::string resource = UniqueResourceName("same");
  const std::string other = UniqueResourceName("other");
  SemaphoreGuard guard(resource);
  SemaphoreGuard otherGuard(other);

  esd::ResourceLocker first(resource, 0);
  esd::ResourceLocker second(resource, 20);
  esd::ResourceLocker unrelated(other, 0);
  EXPECT_FALSE(first.HasLock());
  ASSERT_TRUE(first.Lock());
  EXPECT_FALSE(second.Lock());
  EXPECT_FALSE(second.HasLock());
  EXPECT_TRUE(unrelated.Lock());  // a different resource is a different lock

  EXPECT_TRUE(first.Unlock(false));
  EXPECT_FALSE(SemaphoreExists(resource));
  EXPECT_TRUE(second.Lock());
  EXPECT_FALSE(first.Lock());
  EXPECT_TRUE(second.Unlock(false));
  EXPECT_TRUE(unrelated.Unlock(false));
  EXPECT_FALSE(SemaphoreExists(other));
}

TEST(ResourceLocker, WaitsForAnotherProcessUntilTheTimeOut) {
  const std::string resource = UniqueResourceName("timeout");
  SemaphoreGuard guard(resource);
  Pipe held, release;
  pid_t holder = StartHolder(resource, held, &release);
  ASSERT_TRUE(held.Wait());

  esd::ResourceLocker immediate(resource, 0);
  Clock::time_point start = Clock::now();
  EXPECT_FALSE(immediate.Lock());
  EXPECT_LT(MillisecondsSince(start), 1000);  // one attempt, not a wait

  esd::ResourceLocker patient(resource, 50);
  start = Clock::now();
  EXPECT_FALSE(patient.Lock());
  EXPECT_GE(MillisecondsSince(start), 50);
  EXPECT_FALSE(patient.HasLock());
  EXPECT_THROW(patient.Unlock(false), esd::no_resource_lock);

  release.Signal();
  EXPECT_EQ(0, WaitChild(holder));
  EXPECT_FALSE(SemaphoreExists(resource));
  EXPECT_TRUE(immediate.Lock());
}

TEST(ResourceLocker, GetsTheLockWhenTheHolderReleasesWithinTheTimeOut) {
  const std::string resource = UniqueResourceName("handover");
  SemaphoreGuard guard(resource);
  Pipe held;
  pid_t holder = StartHolder(resource, held, nullptr, 100);
  ASSERT_TRUE(held.Wait());

  esd::ResourceLocker waiter(resource, 10000);
  EXPECT_TRUE(waiter.Lock());
  EXPECT_EQ(0, WaitChild(holder));  // the holder's own Unlock succeeded, so it released first
  EXPECT_TRUE(waiter.HasLock());
  EXPECT_TRUE(waiter.Unlock(false));
}

// Only one of several processes racing for a free lock may win each round.
TEST(ResourceLocker, RacingProcessesNeverHoldTogether) {
  const std::string resource = UniqueResourceName("race");
  const std::string marker = UniqueResourceName("race-marker");  // a second lock as a witness
  SemaphoreGuard guard(resource);
  SemaphoreGuard markerGuard(marker);

  pid_t children[4];
  for (pid_t& child : children) {
    child = StartChild([&resource, &marker] {
      for (int round = 0; round < 50; ++round) {
        esd::ResourceLocker locker(resource, 10000);
        if (!locker.Lock()) return 1;
        // Inside the lock nobody else may hold the witness either.
        esd::ResourceLocker witness(marker, 0);
        if (!witness.Lock()) return 2;
        if (!witness.Unlock(false)) return 3;
        if (!locker.Unlock(false)) return 4;
      }
      return 0;
    });
  }
  for (pid_t child : children) EXPECT_EQ(0, WaitChild(child));
  EXPECT_FALSE(SemaphoreExists(resource));
  EXPECT_FALSE(SemaphoreExists(marker));
}

TEST(ResourceLocker, ForcedUnlockBreaksAnotherProcessesLock) {
  const std::string resource = UniqueResourceName("forced");
  SemaphoreGuard guard(resource);
  Pipe held, broken, retaken, childChecked;
  pid_t holder = StartChild([&] {
    int status = 0;
    {
      esd::ResourceLocker locker(resource, 0);
      if (!locker.Lock()) return 1;
      held.Signal();
      if (!broken.Wait()) return 2;
      // The name is gone, so this Unlock fails and the object still counts as holding.
      if (locker.Unlock(false)) status = 3;
      if (!locker.HasLock()) status = 4;
      childChecked.Signal();
      if (!retaken.Wait()) return 5;
    }  // the destructor tries the unlink once more
    return status;
  });
  ASSERT_TRUE(held.Wait());

  esd::ResourceLocker breaker(resource, 0);
  EXPECT_TRUE(breaker.Unlock(true));
  EXPECT_FALSE(breaker.HasLock());
  EXPECT_FALSE(SemaphoreExists(resource));
  broken.Signal();
  ASSERT_TRUE(childChecked.Wait());

  // The lock is free again for anyone; the old holder's destructor still removes its name,
  // because it cannot tell the new semaphore from its own.
  EXPECT_TRUE(breaker.Lock());
  retaken.Signal();
  EXPECT_EQ(0, WaitChild(holder));
  EXPECT_FALSE(SemaphoreExists(resource));
  EXPECT_TRUE(breaker.HasLock());
  EXPECT_FALSE(breaker.Unlock(false));

  // Breaking a lock that nobody holds has nothing to remove.
  esd::ResourceLocker idle(UniqueResourceName("never-locked"), 0);
  EXPECT_FALSE(idle.Unlock(true));
}

TEST(ResourceLocker, LockOfADeadProcessStaysUntilForced) {
  const std::string resource = UniqueResourceName("dead");
  SemaphoreGuard guard(resource);
  pid_t holder = StartChild([&resource] {
    esd::ResourceLocker locker(resource, 0);
    if (!locker.Lock()) return 1;
    kill(getpid(), SIGKILL);
    return 2;
  });
  EXPECT_EQ(-1, WaitChild(holder));  // killed, not exited
  EXPECT_TRUE(SemaphoreExists(resource));

  esd::ResourceLocker next(resource, 20);
  EXPECT_FALSE(next.Lock());
  EXPECT_TRUE(next.Unlock(true));
  EXPECT_TRUE(next.Lock());
  EXPECT_TRUE(next.Unlock(false));
  EXPECT_FALSE(SemaphoreExists(resource));
}

}  // namespace
