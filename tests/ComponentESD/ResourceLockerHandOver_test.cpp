// A lock that others wait for is handed over instead of being taken back by its releaser.
#include <fcntl.h>
#include <semaphore.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/SemaphoreGuard.h"
#include "xplat/ResourceLocker.h"

namespace {

using testing_support::Pipe;
using testing_support::SemaphoreGuard;
using testing_support::StartChild;
using testing_support::UniqueResourceName;
using testing_support::WaitChild;

// The count of the resource's lock semaphore (1 plus one for each waiter's announcement), or -1
// while nobody holds the lock.
int SemaphoreCount(const std::string& resource) {
  const std::string name = esd::ResourceLocker::GetSemaphoreName(resource);
  sem_t* semaphore = sem_open(name.c_str(), 0);
  if (semaphore == SEM_FAILED) return -1;
  int count = -1;
  sem_getvalue(semaphore, &count);
  sem_close(semaphore);
  return count;
}

// A waiter polls once a millisecond; the releaser, still running, would otherwise take the lock
// back before the waiter looks again, call after call.
TEST(ResourceLockerHandOver, AReleasingProcessLetsAWaiterGoFirst) {
  const std::string resource = UniqueResourceName("handover");
  SemaphoreGuard guard(resource);
  esd::ResourceLocker mine(resource, 10000);
  ASSERT_TRUE(mine.Lock());
  EXPECT_EQ(1, SemaphoreCount(resource));

  Pipe got;
  const pid_t waiter = StartChild([&] {
    esd::ResourceLocker locker(resource, 10000);
    if (!locker.Lock()) return 1;
    got.Signal();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return locker.Unlock(false) ? 0 : 2;
  });
  // The waiter has announced itself once the count went up.
  for (int i = 0; i < 10000 && SemaphoreCount(resource) < 2; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_GE(SemaphoreCount(resource), 2);

  ASSERT_TRUE(mine.Unlock(false));
  esd::ResourceLocker again(resource, 10000);
  ASSERT_TRUE(again.Lock());
  EXPECT_TRUE(got.Wait(0)) << "the releaser took the lock back before the waiter had it";
  EXPECT_EQ(0, WaitChild(waiter));

  // A waiter that gave up is waited for only briefly, and a time-out of zero still makes its
  // attempt at once.
  for (const unsigned long timeout : {10000ul, 0ul}) {
    const pid_t quitter = StartChild([&] {
      esd::ResourceLocker locker(resource, 0);
      return locker.Lock() ? 1 : 0;
    });
    EXPECT_EQ(0, WaitChild(quitter));
    ASSERT_GE(SemaphoreCount(resource), 2);
    ASSERT_TRUE(again.Unlock(false));
    esd::ResourceLocker next(resource, timeout);
    EXPECT_TRUE(next.Lock()) << timeout;
    ASSERT_TRUE(next.Unlock(false));
    ASSERT_TRUE(again.Lock());
  }
  EXPECT_TRUE(again.Unlock(false));
}

}  // namespace
