#include "support/PrivateMounts.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace testing_support {

namespace {

std::string Describe(const std::string& what) { return what + ": " + std::strerror(errno); }

bool WriteProcFile(const std::string& path, const std::string& text) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return ok;
}

// A user namespace in which the caller keeps its own ids but holds the capabilities needed to
// mount inside the mount namespace created with it.
bool EnterUserAndMountNamespace(std::string& why) {
  const uid_t uid = ::geteuid();
  const gid_t gid = ::getegid();
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    why = Describe("unshare(CLONE_NEWUSER | CLONE_NEWNS)");
    return false;
  }
  const std::string uidMap = std::to_string(uid) + " " + std::to_string(uid) + " 1\n";
  const std::string gidMap = std::to_string(gid) + " " + std::to_string(gid) + " 1\n";
  if (!WriteProcFile("/proc/self/uid_map", uidMap) ||
      !WriteProcFile("/proc/self/setgroups", "deny") ||
      !WriteProcFile("/proc/self/gid_map", gidMap)) {
    why = Describe("user namespace id maps");
    return false;
  }
  return true;
}

}  // namespace

bool EnterPrivateMountNamespace(std::string& why) {
  if (::unshare(CLONE_NEWNS) != 0) {
    const std::string first = Describe("unshare(CLONE_NEWNS)");
    if (!EnterUserAndMountNamespace(why)) {
      why = first + "; " + why;
      return false;
    }
  }
  // Without this, mounts made here would propagate back to the shared namespace.
  if (::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0) {
    why = Describe("making / private");
    return false;
  }
  return true;
}

bool MountTmpfs(const std::string& folder, const std::string& options, std::string& why) {
  if (::mount("tmpfs", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
    why = Describe("mount tmpfs " + options + " on " + folder);
    return false;
  }
  return true;
}

bool MountReadOnly(const std::string& folder, std::string& why) {
  if (::mount(folder.c_str(), folder.c_str(), "none", MS_BIND | MS_REC, nullptr) != 0) {
    why = Describe("bind mount " + folder);
    return false;
  }
  if (::mount("none", folder.c_str(), "none", MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
    why = Describe("read-only remount " + folder);
    return false;
  }
  return true;
}

bool UsePrivateSemaphores(std::string& why) { return MountTmpfs("/dev/shm", "mode=1777", why); }

}  // namespace testing_support
