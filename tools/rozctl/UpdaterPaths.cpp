#include "UpdaterPaths.h"

#include "xplat/Env.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/FolderFinder.h"
#include "xplat/UpdaterNames.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"
#include "xplat/VantuUpdaterUtils.h"

namespace rozctl {

namespace {

std::string ProductFolder(esd::FolderFinder::FolderID id) {
  std::string base;
  if (!esd::FolderFinder::GetFolderPath(id, base, true)) return std::string();
  return FileSystemUtils::AppendPathElement(FileSystemUtils::AppendPathElement(base, "Vantu"),
                                            VantuUpdaterUtils::kVantuUpdaterFolder);
}

std::string Join(const std::string& folder, const char* name) {
  return folder.empty() ? std::string() : FileSystemUtils::AppendPathElement(folder, name);
}

}  // namespace

UpdaterPaths UpdaterPaths::Find() {
  UpdaterPaths paths;
  paths.allUsersData = ProductFolder(esd::FolderFinder::kLocalApplicationSupport);
  paths.userData = ProductFolder(esd::FolderFinder::kUserApplicationSupport);
  paths.cacheData = Join(paths.userData, "Data");
  paths.registry = Join(paths.allUsersData, UpdaterNames::kRegistrationFileName);
  paths.missingComps = Join(paths.userData, UpdaterNames::kMissingCompsFileName);
  paths.prefs = Join(paths.userData, UpdaterNames::kPrefsFileName);
  paths.updaterLog = Join(paths.userData, UpdaterNames::kLogFileName);
  std::string markerParent;
  if (VantuUpdaterUtils::VantuUpdaterNotifyWorkflowLocker::GetIPCLockFileParentFolder(markerParent))
    paths.markers = Join(markerParent, "locked");
  // Both are shown also when ROOT/etc or ROOT/opt is missing, which the lookups refuse.
  const std::string root = esd::Env::Default()->GetRootDirectory();
  paths.policy = Join(Join(root, "etc"), UpdaterNames::kAdminPrefsFileName);
  if (!VantuUpdaterUtils::GetUpdaterLocation(paths.updater))
    paths.updater =
        Join(Join(Join(Join(root, "opt"), "Vantu Utilities.localized"), "Vantu Updater5"),
             "Vantu Updater.app");
  return paths;
}

}  // namespace rozctl
