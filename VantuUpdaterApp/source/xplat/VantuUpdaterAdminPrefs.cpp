#include "xplat/VantuUpdaterAdminPrefs.h"

#include <string>

#include "xplat/FileSystemUtils.h"
#include "xplat/FolderFinder.h"
#include "xplat/UpdaterNames.h"

namespace {

// The maker's reverse-domain prefix followed by ".VantuUpdater.Admin.plist".
using UpdaterNames::kAdminPrefsFileName;
constexpr char kDisableUpdateKey[] = "Disable.Update";

}  // namespace

esd::PropertyList CreateVantuUpdaterAdminPrefsPropListRef() {
  std::string folder;
  if (!esd::FolderFinder::GetLocalPreferencesFolderPath(folder)) return esd::PropertyList();
  return esd::PropertyList::ReadFile(
      FileSystemUtils::AppendPathElement(folder, kAdminPrefsFileName));
}

VantuUpdaterAdminPrefs& VantuUpdaterAdminPrefs::GetVantuUpdaterAdminPrefs() {
  static VantuUpdaterAdminPrefs instance;
  return instance;
}

VantuUpdaterAdminPrefs::~VantuUpdaterAdminPrefs() = default;

bool VantuUpdaterAdminPrefs::GetUpdateCheckEnabled(bool& enabled) {
  const esd::PropertyList policy = CreateVantuUpdaterAdminPrefsPropListRef();
  bool disabled = false;
  if (!policy.GetBoolean(kDisableUpdateKey, disabled)) return false;
  enabled = !disabled;
  return true;
}
