#include "xplat/CKVXVersion.h"

CKVXVersion::~CKVXVersion() = default;

bool CKVXVersion::LaunchUpdater(VantuUpdaterUtils::EnvironmentList params) {
  return VantuUpdaterUtils::LaunchUpdater(params);
}

bool CKVXVersion::ForkUpdater(VantuUpdaterUtils::EnvironmentList params) {
  return VantuUpdaterUtils::ForkUpdater(params, true);
}
