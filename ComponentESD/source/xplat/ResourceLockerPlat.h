#ifndef ESD_SOURCE_XPLAT_RESOURCELOCKERPLAT_H
#define ESD_SOURCE_XPLAT_RESOURCELOCKERPLAT_H

#include <semaphore.h>

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
  PLXSysAccessor& mSysAccessor;
  sem_t* mSemaphore;  // SEM_FAILED while the lock is not held
  std::string mResourceName;
  unsigned long mTimeout;  // milliseconds
};

}  // namespace esd

#endif
