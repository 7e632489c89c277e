#ifndef ESD_XPLAT_RESOURCELOCKER_H
#define ESD_XPLAT_RESOURCELOCKER_H

#include <memory>
#include <string>

#include "xplat/LockPolicyInterface.h"
#include "xplat/ResourceLockExceptions.h"

namespace esd {

// Mutual exclusion over a named resource (typically a file path) between processes and between
// objects of one process. The lock is a system-wide named semaphore created exclusively: its
// existence is the lock, so whoever creates it holds it and removing the name releases it.
// A holder that dies leaves the lock behind until someone breaks it with Unlock(true).
// One object must not be used by two threads at once.
class ResourceLocker : public LockPolicyInterface {
 public:
  // The resource name must not be empty. Takes the process's C library accessor, so it throws
  // the accessor's std::runtime_error when that cannot be built.
  ResourceLocker(const std::string& resourceName, unsigned long timeoutMs);
  // Releases the lock when it is held; never throws.
  ~ResourceLocker() override;

  ResourceLocker(const ResourceLocker&) = delete;
  ResourceLocker& operator=(const ResourceLocker&) = delete;

  // Tries to create the lock, then again every millisecond until the time-out has passed; one
  // attempt is made even with a time-out of 0. Returns false when it never succeeded. Throws
  // resource_lock_fail "A resource is already being locked" when this object holds the lock.
  bool Lock() override;

  // Removes the lock's name. Without force, throws no_resource_lock "This object is not
  // locking an item" unless this object holds the lock. With force, removes the name whoever
  // created it. Returns false when the name could not be removed (for instance because someone
  // broke the lock meanwhile); the object then still counts as holding, so its destructor tries
  // once more.
  bool Unlock(bool force) override;

  bool HasLock() const override;

  // The system-wide semaphore name of a resource: the same in every process, short and valid
  // whatever the resource name holds. Lets tools list and break stale locks.
  static std::string GetSemaphoreName(const std::string& resourceName);

  class ResourceLockerPlat;

 private:
  std::unique_ptr<ResourceLockerPlat> mPlat;
};

}  // namespace esd

#endif
