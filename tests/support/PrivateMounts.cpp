#include "support/PrivateMounts.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace testing_support {

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
