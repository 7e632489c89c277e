#ifndef VANTUUPDATERSHARED_XPLAT_STORELOCKSCOPE_H
#define VANTUUPDATERSHARED_XPLAT_STORELOCKSCOPE_H

#include "xplat/JournaledXMLLockedFile.h"

// Holds a store's inter-process lock for the length of one store operation. The lock is taken
// only when the store does not hold it already, and only a lock taken here is released on the way
// out, so operations nest: a caller that holds the lock across a read-modify-write keeps it.
class StoreLockScope {
 public:
  explicit StoreLockScope(JournaledXMLLockedFile& store)
      : mStore(store), mHeldOnEntry(store.HasLock()) {
    if (!mHeldOnEntry) mStore.Lock();
  }

  // Never throws: a release that fails leaves the lock to the store's own destructor.
  ~StoreLockScope() {
    try {
      if (!mHeldOnEntry && mStore.HasLock()) mStore.Unlock(false);
    } catch (...) {
    }
  }

  StoreLockScope(const StoreLockScope&) = delete;
  StoreLockScope& operator=(const StoreLockScope&) = delete;

  // Whether the store holds its lock now; an operation that finds it false must fail.
  bool Held() const { return mStore.HasLock(); }

 private:
  JournaledXMLLockedFile& mStore;
  bool mHeldOnEntry;
};

#endif
