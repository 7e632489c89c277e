#ifndef TESTS_SUPPORT_TEMPDIR_H
#define TESTS_SUPPORT_TEMPDIR_H

// What tests set up around them: temporary folders and files, lock files, private mounts.

#include <sys/types.h>

#include <string>

namespace testing_support {

// A fresh folder under ${TMPDIR:-/tmp}, removed with everything in it when the object dies.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return mPath; }
  std::string operator/(const std::string& name) const { return mPath + "/" + name; }

 private:
  std::string mPath;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);

// What changes when a file is rewritten, even with the same bytes: a journaled save replaces
// the inode, and any write moves the modification time. Zero when the file cannot be read.
struct FileStamp {
  ino_t inode = 0;
  long long mtimeNs = 0;
  bool operator==(const FileStamp& other) const {
    return inode == other.inode && mtimeNs == other.mtimeNs;
  }
};
FileStamp StampOf(const std::string& path);

// Removes a resource's lock file (its path under the Env in force when made) when it dies.
class LockFileGuard {
 public:
  explicit LockFileGuard(const std::string& resourceName);
  ~LockFileGuard();
  LockFileGuard(const LockFileGuard&) = delete;
  LockFileGuard& operator=(const LockFileGuard&) = delete;

 private:
  std::string mPath;
};

// A resource name no other test or test run uses (process id, counter, tag).
std::string UniqueResourceName(const std::string& tag);

// The resource's lock file where the library puts it; empty when there is no folder for it.
std::string LockFilePath(const std::string& resourceName);

// True while some process holds the resource's lock (asked of the kernel, taking nothing). Byte 1
// instead of 0: whether a waiter has announced itself there.
bool LockIsHeld(const std::string& resourceName, off_t byte = 0);

// Mounts only the calling process and its later children see, gone with the namespace's last
// process. Enter from a single-threaded process: as root it unshares the mount namespace,
// otherwise it tries a user namespace that keeps the caller's ids. False with `why` filled when
// the kernel allows neither (callers then skip).
bool EnterPrivateMountNamespace(std::string& why);

// A fresh tmpfs at the existing `folder`, with options such as "size=64k" or "nr_inodes=8".
bool MountTmpfs(const std::string& folder, const std::string& options, std::string& why);

// `folder` and everything below read-only (EROFS even for root).
bool MountReadOnly(const std::string& folder, std::string& why);

// An empty /dev/shm of the namespace's own.
bool UsePrivateSemaphores(std::string& why);

}  // namespace testing_support

#endif
