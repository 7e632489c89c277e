#ifndef ESD_XPLAT_JOURNALEDXMLLOCKEDFILE_H
#define ESD_XPLAT_JOURNALEDXMLLOCKEDFILE_H

#include <memory>

#include "xplat/JournaledXMLFile.h"
#include "xplat/ResourceLocker.h"

// A journaled XML file whose Load, Save and Delete run under an inter-process lock named after
// the file's path. The operations nest: each takes the lock only when it is not held already
// and releases only a lock it took itself, so a caller that holds the lock across
// Load-change-Save makes the whole read-modify-write atomic.
class JournaledXMLLockedFile : public JournaledXMLFile {
 public:
  JournaledXMLLockedFile(esd::ExpatDOMBuilder<esd::XMLDocumentNode>& builder,
                         unsigned long timeoutMs);
  // Destroying the locker releases a lock still held.
  ~JournaledXMLLockedFile() override;

  // The base operations under the lock; false, with the files untouched, when the lock cannot be
  // had within the time-out. Save also turns every exception into false.
  bool Save() override;
  bool Load(void* context) override;
  bool Delete() override;

  // Takes the lock (made for the current path on first use; false while no path is set).
  // Throws esd::resource_lock_fail when this object holds the lock already.
  virtual bool Lock();

  // Releases the lock. With force also breaks a lock this object never took, whoever holds it;
  // without force, throws esd::no_resource_lock when it does not hold it.
  virtual bool Unlock(bool force);

  virtual bool HasLock() const;

 private:
  bool MakeLockerIfNeeded();

  // Runs `operation` holding the lock, taking and releasing it only when not already held.
  // Returns false when the lock cannot be had.
  template <class Operation>
  bool WithLock(Operation operation);

  std::unique_ptr<esd::ResourceLocker> mLocker;
  unsigned long mTimeoutMs;
};

#endif
