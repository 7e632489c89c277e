#include <fcntl.h>
#include <unistd.h>

#include <atomic>

#include "support/LockFiles.h"
#include "xplat/ResourceLocker.h"

namespace testing_support {

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

}  // namespace testing_support
