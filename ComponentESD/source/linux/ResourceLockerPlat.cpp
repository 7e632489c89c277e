#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <mutex>

#include "xplat/Env.h"
#include "xplat/FolderFinder.h"
#include "xplat/GlobalPLXSysAccessor.h"
#include "xplat/NameHash.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ResourceLockerPlat.h"
#include "linux/UniqueFd.h"

namespace esd {

namespace {

const useconds_t kPollInterval = 1000;  // microseconds

// Group members share a machine-wide lock; a per-user lock file is its user's alone.
const mode_t kSharedLockFileMode = 0660;
const mode_t kPrivateLockFileMode = 0600;

// Byte 0 of a lock file is the lock; byte 1 carries the waiters' announcements (see below).
const off_t kLockByte = 0;
const off_t kWaiterByte = 1;

Env* Os() { return Env::Default(); }

// A clock that never jumps with the wall clock, so a changed system time neither cuts a wait
// short nor stretches it.
std::uint64_t Microseconds() { return Os()->MonotonicMicroseconds(); }

// now + timeoutMs, saturating instead of wrapping for absurdly long time-outs.
std::uint64_t Deadline(std::uint64_t now, unsigned long timeoutMs) {
  const std::uint64_t maximum = std::numeric_limits<std::uint64_t>::max();
  if (timeoutMs > (maximum - now) / 1000u) return maximum;
  return now + static_cast<std::uint64_t>(timeoutMs) * 1000u;
}

// Sets (or with F_UNLCK drops) a lock of this open file description on one byte, not waiting.
bool SetByteLock(int fd, short type, off_t start) {
  errno = Os()->LockFileByte(fd, type, start);
  return errno == 0;
}

// Whether another open file description holds a lock on the byte that `type` would conflict with.
bool OthersLockByte(int fd, short type, off_t start) {
  return Os()->IsFileByteLocked(fd, type, start);
}

// Whether `path` still names the file with this device and inode. lstat: a link planted in its
// place is not the lock file.
bool NamesFile(const std::string& path, dev_t device, ino_t inode) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0 && info.st_dev == device && info.st_ino == inode;
}

int OpenNoLinks(const std::string& path, int flags, mode_t mode) {
  const int fd = Os()->OpenFileAt(AT_FDCWD, path, flags | O_NOFOLLOW | O_NONBLOCK, mode);
  if (fd >= 0) return fd;
  errno = -fd;
  return -1;
}

// Makes a missing lock file appear at its name with its whole mode: made unnamed in its folder,
// given its bits on the descriptor, then linked in. Made by name, it would first carry only the
// bits the umask left, and another member of the group opening it in that moment would be
// refused and give up on the lock. -1 with errno set: EEXIST when another process linked one in
// first; any other error when the file system cannot make unnamed files.
int CreateLockFile(const std::string& path, mode_t mode) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == 0 ? "/" : path.substr(0, slash);
  UniqueFd fd(OpenNoLinks(folder, O_TMPFILE | O_RDWR, mode));
  if (!fd.valid() || fchmod(fd.get(), mode) != 0) return -1;
  const std::string self = "/proc/self/fd/" + std::to_string(fd.get());
  if (linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) != 0) return -1;
  return fd.Release();
}

// Opens (creating when missing) the lock file, refusing links and anything but a regular file;
// the O_NONBLOCK keeps a planted FIFO from stalling the open. A lock file this user owns gets
// its mode on the descriptor, whatever the umask said. On a read-only file system an existing
// lock file is opened for reading, and `lockType` becomes a shared lock: nobody changes the
// resource through that mount, and a writer elsewhere still excludes it. -1 on failure, with
// errno set.
int OpenLockFile(const std::string& path, mode_t mode, short& lockType, dev_t& device,
                 ino_t& inode) {
  lockType = F_WRLCK;
  int fd = OpenNoLinks(path, O_RDWR, 0);
  if (fd < 0 && errno == ENOENT) {
    fd = CreateLockFile(path, mode);
    if (fd < 0 && errno == EEXIST) fd = OpenNoLinks(path, O_RDWR, 0);
    // Without unnamed files the bits follow the creation, as the fchmod below gives them.
    else if (fd < 0) fd = OpenNoLinks(path, O_RDWR | O_CREAT, mode);
  }
  if (fd < 0 && errno == EROFS) {
    lockType = F_RDLCK;
    fd = OpenNoLinks(path, O_RDONLY, 0);
  }
  if (fd < 0) return -1;
  struct stat info {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(fd);
    errno = EINVAL;
    return -1;
  }
  if (lockType == F_WRLCK && info.st_uid == geteuid() && (info.st_mode & 07777) != mode)
    fchmod(fd, mode);
  device = info.st_dev;
  inode = info.st_ino;
  return fd;
}

// The folder a machine-wide resource locks in: the one holding it, when the resource is an
// absolute path inside the all-users application support folder. Empty for any other resource.
std::string MachineLockFolder(const std::string& resourceName) {
  if (resourceName.empty() || resourceName[0] != '/') return std::string();
  std::string allUsers;
  if (!FolderFinder::GetFolderPath(FolderFinder::kLocalApplicationSupport, allUsers, false))
    return std::string();
  if (allUsers.empty() || allUsers.back() != '/') allUsers += '/';
  if (resourceName.compare(0, allUsers.size(), allUsers) != 0) return std::string();
  const size_t slash = resourceName.rfind('/');
  if (slash < allUsers.size() - 1 || slash + 1 == resourceName.size()) return std::string();
  return resourceName.substr(0, slash);
}

// Waiters poll once a millisecond, so a process that releases a lock and asks for it again at
// once (a host making several calls in a row) would take it back nearly every time and starve
// them. Waiters therefore hold a shared lock on the lock file's waiter byte while they wait, and
// a holder that finds one when it lets go gives way: its next attempt on that lock, on the same
// thread, waits until another process has been seen holding it, or for kHandOverTime at most
// (the waiter may have given up meanwhile). A process alone never waits for this.
const std::uint64_t kHandOverTime = 10 * kPollInterval;  // microseconds

// The last lock this thread released while others waited; plain data, so that no thread-exit
// work is left behind in a host that unloads the library.
struct ContendedRelease {
  dev_t device;
  ino_t inode;
  std::uint64_t at;
  bool pending;
};
thread_local ContendedRelease tContendedRelease = {0, 0, 0, false};

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
void GiveWayAfterContendedRelease(int fd, dev_t device, ino_t inode, std::uint64_t deadline) {
  if (!tContendedRelease.pending || tContendedRelease.device != device ||
      tContendedRelease.inode != inode)
    return;
  tContendedRelease.pending = false;
  const std::uint64_t until = std::min(tContendedRelease.at + kHandOverTime, deadline);
  while (Microseconds() < until && !OthersLockByte(fd, F_WRLCK, kLockByte)) Os()->SleepMicroseconds(kPollInterval);
}

// The locks this process holds. A child forked without exec shares the parent's open file
// descriptions, and with them the locks: a child that lives on would keep a lock its parent has
// released. So the child closes its copies at once and its copies of the lockers hold nothing.
std::mutex gHeldMutex;
ResourceLocker::ResourceLockerPlat* gFirstHeld = nullptr;

}  // namespace

void ResourceLocker::ResourceLockerPlat::Remember() {
  static const int registered = pthread_atfork([] { gHeldMutex.lock(); },
                                               [] { gHeldMutex.unlock(); },
                                               [] {
                                                 ForgetAllInChild();
                                                 gHeldMutex.unlock();
                                               });
  (void)registered;
  std::lock_guard<std::mutex> lock(gHeldMutex);
  mPrevHeld = nullptr;
  mNextHeld = gFirstHeld;
  if (gFirstHeld) gFirstHeld->mPrevHeld = this;
  gFirstHeld = this;
}

void ResourceLocker::ResourceLockerPlat::Forget() {
  std::lock_guard<std::mutex> lock(gHeldMutex);
  if (mPrevHeld) mPrevHeld->mNextHeld = mNextHeld;
  else gFirstHeld = mNextHeld;
  if (mNextHeld) mNextHeld->mPrevHeld = mPrevHeld;
  mPrevHeld = mNextHeld = nullptr;
}

// Runs in the forked child with gHeldMutex held.
void ResourceLocker::ResourceLockerPlat::ForgetAllInChild() {
  for (ResourceLockerPlat* plat = gFirstHeld; plat != nullptr;) {
    ResourceLockerPlat* next = plat->mNextHeld;
    close(plat->mLockFile);
    plat->mLockFile = -1;
    plat->mPrevHeld = plat->mNextHeld = nullptr;
    plat = next;
  }
  gFirstHeld = nullptr;
}

// Linux accepts no "/" in a semaphore name after the leading one, and the Base64 hash may hold
// some; "_" is outside the Base64 alphabet, so the mapping cannot make two hashes collide.
std::string ResourceLocker::GetSemaphoreName(const std::string& resourceName) {
  return "/" + GetLockFileName(resourceName);
}

std::string ResourceLocker::GetLockFileName(const std::string& resourceName) {
  std::string name = GetNameHashValue(resourceName);
  std::replace(name.begin(), name.end(), '/', '_');
  return name;
}

bool ResourceLocker::GetLockFilePath(const std::string& resourceName, std::string& path,
                                     bool create) {
  std::string folder = MachineLockFolder(resourceName);
  if (folder.empty() &&
      !FolderFinder::GetFolderPath(FolderFinder::kUserTemporaryItems, folder, create))
    return false;
  path = folder + "/" + GetLockFileName(resourceName);
  return true;
}

ResourceLocker::ResourceLockerPlat::ResourceLockerPlat(const std::string& resourceName,
                                                       unsigned long timeoutMs)
    : mSysAccessor(GlobalPLXSysAccessor::GetGlobalPLXSysAccessor()),
      mLockFile(-1),
      mResourceName(resourceName),
      mTimeout(timeoutMs),
      mLockMode(kPrivateLockFileMode),
      mDevice(0),
      mInode(0),
      mPrevHeld(nullptr),
      mNextHeld(nullptr) {}

// Unlock(false) cannot throw here because the lock is held. When it fails (someone broke the
// lock), the file is let go anyway: nobody can use this lock after this.
ResourceLocker::ResourceLockerPlat::~ResourceLockerPlat() {
  if (HasLock() && !Unlock(false)) Release();
}

// Taking the write lock on the lock file is taking the resource's lock. A lock file that was
// removed or replaced between the open and the lock (a broken lock) is not the lock any more:
// the attempt is made again on what the name leads to now. Errors that waiting cannot cure end
// the attempt at once.
bool ResourceLocker::ResourceLockerPlat::Lock() {
  if (HasLock()) throw resource_lock_fail(mResourceName, "A resource is already being locked");

  const std::uint64_t deadline = Deadline(Microseconds(), mTimeout);
  if (!FindLockFile()) return false;
  const std::string& path = mLockPath;
  const mode_t mode = mLockMode;
  short lockType = F_WRLCK;
  dev_t device = 0;
  ino_t inode = 0;
  int fd = OpenLockFile(path, mode, lockType, device, inode);
  if (fd < 0) return false;
  GiveWayAfterContendedRelease(fd, device, inode, deadline);
  bool announced = false;
  for (;;) {
    if (SetByteLock(fd, lockType, kLockByte)) {
      if (NamesFile(path, device, inode)) {
        if (announced) SetByteLock(fd, F_UNLCK, kWaiterByte);
        mLockFile = fd;
        mDevice = device;
        mInode = inode;
        Remember();
        return true;
      }
    } else if (errno != EAGAIN && errno != EACCES) {
      close(fd);
      return false;
    } else if (!announced) {
      announced = SetByteLock(fd, F_RDLCK, kWaiterByte);
    }
    if (!NamesFile(path, device, inode)) {
      close(fd);
      fd = OpenLockFile(path, mode, lockType, device, inode);
      if (fd < 0) return false;
      announced = false;
      if (Microseconds() < deadline) continue;
    } else {
      Os()->SleepMicroseconds(JitteredPollInterval());
    }
    if (!(Microseconds() < deadline)) {
      close(fd);
      return false;
    }
  }
}

// An ordinary Unlock leaves the lock file in place for the next locker; a forced one removes
// its name, which is how a lock is broken.
bool ResourceLocker::ResourceLockerPlat::Unlock(bool force) {
  if (!HasLock() && !force) {
    throw no_resource_lock("Resource unknown", "This object is not locking an item");
  }
  if (force) {
    if (!HasLock() && !FindLockFile()) return false;
    if (Os()->RemoveFile(mLockPath) != 0) return false;
    if (HasLock()) Release();
    return true;
  }
  if (!NamesFile(mLockPath, mDevice, mInode)) return false;
  const bool contended = OthersLockByte(mLockFile, F_WRLCK, kWaiterByte);
  Release();
  if (contended) tContendedRelease = {mDevice, mInode, Microseconds(), true};
  return true;
}

bool ResourceLocker::ResourceLockerPlat::HasLock() const { return mLockFile >= 0; }

// Looked up once per locker: every take and release after the first costs no folder lookup.
bool ResourceLocker::ResourceLockerPlat::FindLockFile() {
  if (!mLockPath.empty()) return true;
  const std::string machineFolder = MachineLockFolder(mResourceName);
  std::string folder = machineFolder;
  if (folder.empty() &&
      !FolderFinder::GetFolderPath(FolderFinder::kUserTemporaryItems, folder, true))
    return false;
  mLockMode = machineFolder.empty() ? kPrivateLockFileMode : kSharedLockFileMode;
  mLockPath = folder + "/" + ResourceLocker::GetLockFileName(mResourceName);
  return true;
}

// Closing the file description drops its locks.
void ResourceLocker::ResourceLockerPlat::Release() {
  Forget();
  close(mLockFile);
  mLockFile = -1;
}

}  // namespace esd
