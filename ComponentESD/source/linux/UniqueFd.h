#ifndef ESD_LINUX_UNIQUEFD_H
#define ESD_LINUX_UNIQUEFD_H

#include <unistd.h>

namespace esd {

// Owns one descriptor and closes it on every path out of a scope.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : mFd(fd) {}
  ~UniqueFd() { Close(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return mFd; }
  bool valid() const { return mFd >= 0; }
  int Release() {
    const int fd = mFd;
    mFd = -1;
    return fd;
  }
  void Reset(int fd) {
    Close();
    mFd = fd;
  }
  // Closing reports the last deferred write error on some file systems, so writers check it.
  bool Close() {
    if (mFd < 0) return true;
    const int rc = ::close(mFd);
    mFd = -1;
    return rc == 0;
  }

 private:
  int mFd;
};

}  // namespace esd

#endif
