#ifndef VANTU_XPLAT_CKVXVERSION_H
#define VANTU_XPLAT_CKVXVERSION_H

#include "xplat/VantuUpdaterUtils.h"

// The launcher the exported functions use; a class so that it can be replaced as a whole.
class CKVXVersion {
 public:
  virtual ~CKVXVersion();

  // VantuUpdaterUtils::LaunchUpdater.
  bool LaunchUpdater(VantuUpdaterUtils::EnvironmentList params);

  // VantuUpdaterUtils::ForkUpdater, always in the background.
  bool ForkUpdater(VantuUpdaterUtils::EnvironmentList params);
};

#endif
