#ifndef ESD_XPLAT_RESOURCELOCKER_H
#define ESD_XPLAT_RESOURCELOCKER_H

#include <memory>
#include <string>

#include "xplat/LockPolicyInterface.h"
#include "xplat/ResourceLockExceptions.h"

namespace esd {

// Mutual exclusion over a named resource (typically a file path) between processes and between
// objects of one process. The lock is a write lock on a lock file, owned by the open file
// description, so the kernel releases it the moment its holder closes the file or dies; no lock
// outlives its holder and none is ever taken from a live one.
//
// Where the lock file lives decides who can take the lock:
//   - a resource that is an absolute path inside the machine's all-users application support
//     folder (a machine-wide store) locks in the folder that holds it; only those who may change
//     the store can create or open the lock file for writing (mode 0660 in the folder's group);
//   - every other resource (a plain name such as an application identifier or the preferences'
//     lock, or a per-user path) locks in the user's temporary items folder (the runtime folder),
//     which only that user can enter: users never wait for each other's per-user locks.
// Lock files stay in place between uses. One object must not be used by two threads at once.
class ResourceLocker : public LockPolicyInterface {
 public:
  // The resource name must not be empty. Takes the process's C library accessor, so it throws
  // the accessor's std::runtime_error when that cannot be built.
  ResourceLocker(const std::string& resourceName, unsigned long timeoutMs);
  // Releases the lock when it is held; never throws.
  ~ResourceLocker() override;

  ResourceLocker(const ResourceLocker&) = delete;
  ResourceLocker& operator=(const ResourceLocker&) = delete;

  // Tries to take the lock, then again every millisecond until the time-out has passed; one
  // attempt is made even with a time-out of 0. Returns false when it never succeeded, and at
  // once when no lock file can be had at all (no usable folder, no permission, not a regular
  // file). Throws resource_lock_fail "A resource is already being locked" when this object
  // holds the lock.
  bool Lock() override;

  // Releases the lock. Without force, throws no_resource_lock "This object is not locking an
  // item" unless this object holds the lock, and returns false, still holding, when the lock
  // file was removed or replaced meanwhile (someone broke the lock); the destructor then lets
  // go. With force, breaks the lock whoever holds it by removing the lock file's name; false
  // when there was no name to remove.
  bool Unlock(bool force) override;

  bool HasLock() const override;

  // The semaphore name older versions locked a resource with: the same in every process, short
  // and valid whatever the resource name holds. Lets tools remove what those versions left.
  static std::string GetSemaphoreName(const std::string& resourceName);

  // The lock file's name: the name hash of the resource with every "/" made "_".
  static std::string GetLockFileName(const std::string& resourceName);

  // The lock file's full path (see the class comment for the folder). With `create`, a missing
  // runtime folder is created as the folder lookup does. False when no folder can be found.
  static bool GetLockFilePath(const std::string& resourceName, std::string& path, bool create);

  class ResourceLockerPlat;

 private:
  std::unique_ptr<ResourceLockerPlat> mPlat;
};

}  // namespace esd

#endif
