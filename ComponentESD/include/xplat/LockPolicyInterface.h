#ifndef ESD_XPLAT_LOCKPOLICYINTERFACE_H
#define ESD_XPLAT_LOCKPOLICYINTERFACE_H

namespace esd {

// A lock that a file or store takes around its reads and writes. Implementations decide what
// is excluded (other objects, other processes) and how long a taker waits.
class LockPolicyInterface {
 public:
  // Returns true when the lock is held afterwards; false when it could not be had in time.
  virtual bool Lock() = 0;
  // Releases the lock; with force, also breaks a lock that this object does not hold, whoever
  // holds it. True when the lock was released or broken.
  virtual bool Unlock(bool force) = 0;
  // True while this object holds the lock.
  virtual bool HasLock() const = 0;
  virtual ~LockPolicyInterface() = default;
};

}  // namespace esd

#endif
