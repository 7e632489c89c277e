// A lock that others wait for is handed over instead of being taken back by its releaser.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/LockFiles.h"
#include "xplat/ResourceLocker.h"

namespace {

using testing_support::LockFileGuard;
using testing_support::LockFilePath;
using testing_support::Pipe;
using testing_support::StartChild;
using testing_support::UniqueResourceName;
using testing_support::WaitChild;

// Whether a waiter has announced itself: it holds a shared lock on the lock file's second byte.
bool SomeoneWaits(const std::string& resource) {
  const int fd = ::open(LockFilePath(resource).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  range.l_start = 1;
  range.l_len = 1;
  const bool waits = ::fcntl(fd, F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
  ::close(fd);
  return waits;
}

// A waiter polls once a millisecond; the releaser, still running, would otherwise take the lock
// back before the waiter looks again, call after call.
TEST(ResourceLockerHandOver, AReleasingProcessLetsAWaiterGoFirst) {
  const std::string resource = UniqueResourceName("handover");
  LockFileGuard guard(resource);
  esd::ResourceLocker mine(resource, 10000);
  ASSERT_TRUE(mine.Lock());
  EXPECT_FALSE(SomeoneWaits(resource));

  Pipe got;
  const pid_t waiter = StartChild([&] {
    esd::ResourceLocker locker(resource, 10000);
    if (!locker.Lock()) return 1;
    got.Signal();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return locker.Unlock(false) ? 0 : 2;
  });
  for (int i = 0; i < 10000 && !SomeoneWaits(resource); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_TRUE(SomeoneWaits(resource));

  ASSERT_TRUE(mine.Unlock(false));
  esd::ResourceLocker again(resource, 10000);
  ASSERT_TRUE(again.Lock());
  EXPECT_TRUE(got.Wait(0)) << "the releaser took the lock back before the waiter had it";
  EXPECT_EQ(0, WaitChild(waiter));

  // A waiter that gave up takes its announcement with it: nobody gives way to it, and a time-out
  // of zero still gets the lock at once.
  const pid_t quitter = StartChild([&] {
    esd::ResourceLocker locker(resource, 20);
    return locker.Lock() ? 1 : 0;
  });
  EXPECT_EQ(0, WaitChild(quitter));
  EXPECT_FALSE(SomeoneWaits(resource));
  ASSERT_TRUE(again.Unlock(false));
  esd::ResourceLocker next(resource, 0);
  EXPECT_TRUE(next.Lock());
  EXPECT_TRUE(next.Unlock(false));
}

}  // namespace
