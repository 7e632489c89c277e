#include "xplat/ResourceLocker.h"

#include "xplat/ResourceLockerPlat.h"

namespace esd {

ResourceLocker::ResourceLocker(const std::string& resourceName, unsigned long timeoutMs)
    : mPlat(new ResourceLockerPlat(resourceName, timeoutMs)) {}

ResourceLocker::~ResourceLocker() = default;

bool ResourceLocker::Lock() { return mPlat->Lock(); }

bool ResourceLocker::Unlock(bool force) { return mPlat->Unlock(force); }

bool ResourceLocker::HasLock() const { return mPlat->HasLock(); }

}  // namespace esd
