#include "xplat/JournaledXMLLockedFile.h"

#include <string>

JournaledXMLLockedFile::JournaledXMLLockedFile(
    esd::ExpatDOMBuilder<esd::XMLDocumentNode>& builder, unsigned long timeoutMs)
    : JournaledXMLFile(builder), mTimeoutMs(timeoutMs) {}

JournaledXMLLockedFile::~JournaledXMLLockedFile() = default;

bool JournaledXMLLockedFile::MakeLockerIfNeeded() {
  if (mLocker) return true;
  std::string path;
  if (!GetXMLFileFullPath(path)) return false;
  mLocker.reset(new esd::ResourceLocker(path, mTimeoutMs));
  return true;
}

bool JournaledXMLLockedFile::Lock() {
  if (!MakeLockerIfNeeded()) return false;
  return mLocker->Lock();
}

bool JournaledXMLLockedFile::Unlock(bool force) {
  // Forcing may need a locker that never held anything: that is how a lock is broken.
  if (!mLocker && force) MakeLockerIfNeeded();
  if (!mLocker) return false;
  return mLocker->Unlock(force);
}

bool JournaledXMLLockedFile::HasLock() const { return mLocker && mLocker->HasLock(); }

template <class Operation>
bool JournaledXMLLockedFile::WithLock(Operation operation) {
  bool tookLock = false;
  if (!HasLock()) tookLock = Lock();
  if (!HasLock()) return false;
  // Released on every way out, exceptions included, but only when this call took it.
  struct Release {
    JournaledXMLLockedFile* self;
    bool active;
    ~Release() {
      if (active && self->HasLock()) {
        try {
          self->Unlock(false);
        } catch (...) {
        }
      }
    }
  } release{this, tookLock};
  return operation();
}

bool JournaledXMLLockedFile::Save() {
  try {
    return WithLock([this] { return JournaledXMLFile::Save(); });
  } catch (...) {
    return false;
  }
}

bool JournaledXMLLockedFile::Load(void* context) {
  bool loaded = false;
  try {
    loaded = WithLock([this, context] { return JournaledXMLFile::Load(context); });
  } catch (...) {
    MarkLoadFailed();
    throw;
  }
  // Without the lock the base never ran, and the tree still holds an older load.
  if (!loaded) MarkLoadFailed();
  return loaded;
}

bool JournaledXMLLockedFile::Delete() {
  return WithLock([this] { return JournaledXMLFile::Delete(); });
}
