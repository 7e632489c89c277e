#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/FileStamp.h"
#include "support/LockFiles.h"
#include "support/PrivateMounts.h"
#include "support/TempDir.h"
#include "xplat/ResourceLocker.h"

namespace fs = std::filesystem;

namespace testing_support {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/vantu-test-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
  mPath = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  // Tests may leave read-only folders behind; make them removable first.
  for (auto it = fs::recursive_directory_iterator(mPath, ignored);
       it != fs::recursive_directory_iterator(); it.increment(ignored)) {
    if (it->is_directory(ignored) && !it->is_symlink(ignored))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
  }
  fs::permissions(mPath, fs::perms::owner_all, fs::perm_options::add, ignored);
  // A detached updater started by a test's last call may still write its report while the
  // folder goes, which makes one pass fail on a folder that is no longer empty.
  for (int attempt = 0; attempt < 50 && fs::exists(mPath, ignored); ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    fs::remove_all(mPath, ignored);
  }
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

FileStamp StampOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return {};
  return {info.st_ino, info.st_mtim.tv_sec * 1000000000LL + info.st_mtim.tv_nsec};
}

// ---- Lock files

LockFileGuard::LockFileGuard(const std::string& resourceName)
    : mPath(LockFilePath(resourceName)) {}

LockFileGuard::~LockFileGuard() {
  if (!mPath.empty()) ::unlink(mPath.c_str());
}

std::string UniqueResourceName(const std::string& tag) {
  static std::atomic<unsigned> counter{0};
  return "/tmp/esd-lock-test/" + std::to_string(::getpid()) + "-" + std::to_string(++counter) +
         "/" + tag;
}

std::string LockFilePath(const std::string& resourceName) {
  std::string path;
  return esd::ResourceLocker::GetLockFilePath(resourceName, path, false) ? path : std::string();
}

bool LockIsHeld(const std::string& resourceName) {
  const int fd = ::open(LockFilePath(resourceName).c_str(),
                        O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return false;
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  range.l_len = 1;
  const bool held = ::fcntl(fd, F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
  ::close(fd);
  return held;
}

// ---- Private mounts

namespace {

// Fills `why` from errno and fails.
bool Fail(std::string& why, const std::string& what) {
  why = what + ": " + std::strerror(errno);
  return false;
}

bool WriteProcFile(const std::string& path, const std::string& text) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return ok;
}

}  // namespace

bool EnterPrivateMountNamespace(std::string& why) {
  if (::unshare(CLONE_NEWNS) != 0) {
    // A user namespace in which the caller keeps its ids but may mount.
    const std::string uid = std::to_string(::geteuid()), gid = std::to_string(::getegid());
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return Fail(why, "unshare");
    if (!WriteProcFile("/proc/self/uid_map", uid + " " + uid + " 1\n") ||
        !WriteProcFile("/proc/self/setgroups", "deny") ||
        !WriteProcFile("/proc/self/gid_map", gid + " " + gid + " 1\n"))
      return Fail(why, "user namespace id maps");
  }
  // Otherwise mounts made here would propagate back to the shared namespace.
  if (::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0)
    return Fail(why, "making / private");
  return true;
}

bool MountTmpfs(const std::string& folder, const std::string& options, std::string& why) {
  if (::mount("tmpfs", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0)
    return Fail(why, "mount tmpfs " + options + " on " + folder);
  return true;
}

bool MountReadOnly(const std::string& folder, std::string& why) {
  if (::mount(folder.c_str(), folder.c_str(), "none", MS_BIND | MS_REC, nullptr) != 0 ||
      ::mount("none", folder.c_str(), "none", MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
    return Fail(why, "read-only bind mount " + folder);
  return true;
}

bool UsePrivateSemaphores(std::string& why) { return MountTmpfs("/dev/shm", "mode=1777", why); }

}  // namespace testing_support
