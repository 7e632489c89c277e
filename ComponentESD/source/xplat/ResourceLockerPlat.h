#ifndef ESD_SOURCE_XPLAT_RESOURCELOCKERPLAT_H
#define ESD_SOURCE_XPLAT_RESOURCELOCKERPLAT_H

#include <sys/types.h>

#include <string>

#include "xplat/PLXSysAccessor.h"
#include "xplat/ResourceLocker.h"

namespace esd {

// The platform half of ResourceLocker; each platform's source folder implements it.
class ResourceLocker::ResourceLockerPlat {
 public:
  ResourceLockerPlat(const std::string& resourceName, unsigned long timeoutMs);
  virtual ~ResourceLockerPlat();

  ResourceLockerPlat(const ResourceLockerPlat&) = delete;
  ResourceLockerPlat& operator=(const ResourceLockerPlat&) = delete;

  bool Lock();
  bool Unlock(bool force);
  bool HasLock() const;

 private:
  bool FindLockFile();
  void Release();
  void Remember();
  void Forget();
  static void ForgetAllInChild();

  [[maybe_unused]] PLXSysAccessor& mSysAccessor;
  int mLockFile;  // the locked lock file's descriptor; -1 while the lock is not held
  std::string mResourceName;
  unsigned long mTimeout;  // milliseconds
  // The lock file, found at the first use, and its mode when this process makes it.
  std::string mLockPath;
  mode_t mLockMode;
  // What was locked, so that Unlock can tell whether the name still leads to it.
  dev_t mDevice;
  ino_t mInode;
  // The process's held locks, linked while held (see ForgetAllInChild).
  ResourceLockerPlat* mPrevHeld;
  ResourceLockerPlat* mNextHeld;
};

}  // namespace esd

#endif
