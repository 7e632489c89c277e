#ifndef ESD_XPLAT_RESOURCELOCKEXCEPTIONS_H
#define ESD_XPLAT_RESOURCELOCKEXCEPTIONS_H

#include <stdexcept>
#include <string>

namespace esd {

// Misuse of a resource lock by its owner: what() is the reason, GetResourceName() the lock.
// Both are kept together because a caller handling one nearly always handles the other.

// Thrown by Lock() on an object that already holds its lock.
class resource_lock_fail : public std::runtime_error {
 public:
  resource_lock_fail(const std::string& resourceName, const std::string& message)
      : std::runtime_error(message), mResourceName(resourceName) {}
  virtual std::string GetResourceName() const { return mResourceName; }

 private:
  std::string mResourceName;
};

// Thrown by an unforced Unlock() on an object that holds no lock.
class no_resource_lock : public std::runtime_error {
 public:
  no_resource_lock(const std::string& resourceName, const std::string& message)
      : std::runtime_error(message), mResourceName(resourceName) {}
  virtual std::string GetResourceName() const { return mResourceName; }

 private:
  std::string mResourceName;
};

}  // namespace esd

#endif
