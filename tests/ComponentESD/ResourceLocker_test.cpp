// The lock: its file, exclusion within and across processes, a broken or planted lock file, and
// a release that hands the lock to a waiter.
#include "xplat/ResourceLocker.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/EnvWrapper.h"
#include "xplat/ScopedEnv.h"

namespace {

using namespace testing_support;

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

mode_t ModeOf(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 ? info.st_mode : 0;
}

// A relocated machine root and runtime folder, so lock files land in a temporary folder.
class ResourceLockerTest : public ::testing::Test {
 protected:
  ResourceLockerTest() : mScope(&mEnv) {
    mEnv.SetRoot(mDir / "root");
    mEnv.SetVariable("XDG_RUNTIME_DIR", mDir / "run");
    std::filesystem::create_directories(AllUsersDir());
    // A runtime folder counts only when it is the caller's own, mode 0700.
    std::filesystem::create_directories(mDir / "run");
    std::filesystem::permissions(mDir / "run", std::filesystem::perms::owner_all);
  }
  std::string AllUsersDir() const { return mDir / "root/var/lib/Vantu/Updater5"; }

  TempDir mDir;
  TestEnv mEnv;
  esd::ScopedEnv mScope;
};

// Looks at the lock file whenever the locker opens a file: another member of the group may open
// it from the moment it appears, and is refused while it has fewer bits than its own.
class ModeWatch : public esd::EnvWrapper {
 public:
  ModeWatch(const std::string& path, mode_t mode)
      : EnvWrapper(esd::Env::Default()), mPath(path), mMode(S_IFREG | mode), mScope(this) {}
  int OpenFileAt(int folder, const std::string& name, int flags, mode_t mode) override {
    const int fd = EnvWrapper::OpenFileAt(folder, name, flags, mode);
    const mode_t now = ModeOf(mPath);
    sawFewerBits = sawFewerBits || (now != 0 && now != mMode);
    return fd;
  }
  bool sawFewerBits = false;

 private:
  std::string mPath;
  mode_t mMode;
  esd::ScopedEnv mScope;
};

// The lock file's name is the name hash with "/" made "_"; a machine-wide store locks beside
// itself and shares its lock with the folder's group, anything else locks privately in the
// runtime folder. The bits are those whatever the umask, from the moment the file appears, and
// the file stays after the release.
TEST_F(ResourceLockerTest, LockFileNamePlaceAndMode) {
  EXPECT_EQ("MlvTMiyOLj_i+mGbuGxF2w==", esd::ResourceLocker::GetLockFileName("lock-5"));
  EXPECT_EQ("/MlvTMiyOLj_i+mGbuGxF2w==", esd::ResourceLocker::GetSemaphoreName("lock-5"));
  const struct {
    std::string resource, folder;
    mode_t mode;
  } cases[] = {
      {"lock-5", mDir / "run", 0600},
      {mDir / "home/.local/share/Vantu/Updater5/VantuMissingComps.xml", mDir / "run", 0600},
      {AllUsersDir() + "/VantuESDGlobalApps.xml", AllUsersDir(), 0660},
      {mDir / "root/var/library/x.xml", mDir / "run", 0600},
  };
  for (const mode_t mask : {0000, 0077}) {
    const mode_t old = ::umask(mask);
    for (const auto& c : cases) {
      const std::string path = c.folder + "/" + esd::ResourceLocker::GetLockFileName(c.resource);
      EXPECT_EQ(path, LockFilePath(c.resource));
      esd::ResourceLocker locker(c.resource, 0);
      ModeWatch watch(path, c.mode);
      ASSERT_TRUE(locker.Lock()) << c.resource;
      EXPECT_FALSE(watch.sawFewerBits) << c.resource << " umask " << mask;
      EXPECT_TRUE(LockIsHeld(c.resource));
      EXPECT_EQ(S_IFREG | c.mode, ModeOf(path)) << c.resource << " umask " << mask;
      ASSERT_TRUE(locker.Unlock(false));
      EXPECT_FALSE(LockIsHeld(c.resource));
      EXPECT_NE(0u, ModeOf(path));
      ::unlink(path.c_str());
    }
    ::umask(old);
  }
}

// What `call` threw of type Error, as "message / resource", or "" when it threw nothing.
template <typename Error>
std::string Thrown(const std::function<void()>& call) {
  try {
    call();
  } catch (const Error& error) {
    return error.what() + (" / " + error.GetResourceName());
  }
  return "";
}

// Misuse throws the exact exceptions, and a failed second Lock keeps the first. Two lockers of
// one resource exclude each other within one process too; other resources do not.
TEST_F(ResourceLockerTest, MisuseThrowsAndLockersInOneProcessExcludeEachOther) {
  esd::ResourceLocker first("same", 0), second("same", 20), unrelated("other", 0);
  EXPECT_EQ("This object is not locking an item / Resource unknown",
            Thrown<esd::no_resource_lock>([&] { first.Unlock(false); }));
  ASSERT_TRUE(first.Lock());
  EXPECT_EQ("A resource is already being locked / same",
            Thrown<esd::resource_lock_fail>([&] { first.Lock(); }));
  EXPECT_TRUE(first.HasLock());
  EXPECT_FALSE(second.Lock() || second.HasLock());
  EXPECT_TRUE(unrelated.Lock());
  EXPECT_TRUE(first.Unlock(false));
  EXPECT_THROW(first.Unlock(false), std::runtime_error);
  EXPECT_TRUE(second.Lock());
  EXPECT_TRUE(second.Unlock(false) && unrelated.Unlock(false));
  EXPECT_FALSE(LockIsHeld("same") || LockIsHeld("other"));
}

// A lock file removed (a forced Unlock) or replaced under its holder: the next locker takes the
// lock on the new file, and the holder learns it at its own Unlock, which fails and leaves it
// holding; its destructor then lets go of the old file without disturbing the new holder.
TEST_F(ResourceLockerTest, BrokenLockIsDetectedByItsHolder) {
  const std::string path = LockFilePath("broken");
  const std::function<bool()> breakers[] = {
      [] { return esd::ResourceLocker("broken", 0).Unlock(true); },
      [&] {
        WriteFile(path + ".new", "");
        return ::rename((path + ".new").c_str(), path.c_str()) == 0;
      },
  };
  for (const auto& breakLock : breakers) {
    esd::ResourceLocker next("broken", 0);
    {
      esd::ResourceLocker holder("broken", 0);
      ASSERT_TRUE(holder.Lock());
      ASSERT_TRUE(breakLock());
      EXPECT_FALSE(holder.Unlock(false));
      EXPECT_TRUE(holder.HasLock());
      EXPECT_TRUE(next.Lock());
    }
    EXPECT_TRUE(LockIsHeld("broken"));
    EXPECT_TRUE(next.Unlock(false));
  }
  esd::ResourceLocker breaker("broken", 0);
  EXPECT_TRUE(breaker.Unlock(true));
  EXPECT_FALSE(breaker.Unlock(true));  // nothing left to remove
}

// What stands at the lock file's name and is not a regular file is never locked, followed or
// opened for long: Lock answers false at once.
TEST_F(ResourceLockerTest, RefusesWhatIsNotARegularFile) {
  const std::string path = LockFilePath("planted");
  WriteFile(mDir / "target", "");
  const std::function<int()> plants[] = {
      [&] { return ::symlink((mDir / "target").c_str(), path.c_str()); },
      [&] { return ::mkfifo(path.c_str(), 0600); },
      [&] { return ::mkdir(path.c_str(), 0700); },
  };
  for (const auto& plant : plants) {
    ASSERT_EQ(0, plant());
    esd::ResourceLocker locker("planted", 2000);
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(locker.Lock());
    EXPECT_LT(Clock::now() - start, milliseconds(1000));
    std::filesystem::remove(path);
  }
  EXPECT_EQ("", ReadFile(mDir / "target"));
}

// Whether a waiter has announced itself: it holds a shared lock on the lock file's second byte.
bool SomeoneWaits(const std::string& resource) { return LockIsHeld(resource, 1); }

// A lock that others wait for is handed over: a waiter polls once a millisecond, and the
// releaser, still running, would otherwise take the lock back before the waiter looks again.
TEST_F(ResourceLockerTest, AReleasingProcessLetsAWaiterGoFirst) {
  esd::ResourceLocker mine("handover", 10000);
  ASSERT_TRUE(mine.Lock());
  EXPECT_FALSE(SomeoneWaits("handover"));
  Pipe got;
  const pid_t waiter = StartChild([&] {
    esd::ResourceLocker locker("handover", 10000);
    if (!locker.Lock()) return 1;
    got.Signal();
    std::this_thread::sleep_for(milliseconds(50));
    return locker.Unlock(false) ? 0 : 2;
  });
  ASSERT_TRUE(WaitUntil([] { return SomeoneWaits("handover"); }, 10000, 1000));
  ASSERT_TRUE(mine.Unlock(false));
  esd::ResourceLocker again("handover", 10000);
  ASSERT_TRUE(again.Lock());
  EXPECT_TRUE(got.Wait(0)) << "the releaser took the lock back before the waiter had it";
  EXPECT_EQ(0, WaitChild(waiter));

  // A waiter that gave up takes its announcement with it: nobody gives way to it, and a time-out
  // of zero still gets the lock at once.
  esd::ResourceLocker quitter("handover", 20);
  EXPECT_FALSE(quitter.Lock());
  EXPECT_FALSE(SomeoneWaits("handover"));
  ASSERT_TRUE(again.Unlock(false));
  esd::ResourceLocker next("handover", 0);
  EXPECT_TRUE(next.Lock());
  EXPECT_TRUE(next.Unlock(false));
}

}  // namespace
