#include "UpdaterPaths.h"

#include "xplat/Env.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/FolderFinder.h"
#include "xplat/UpdaterNames.h"
#include "xplat/VantuUpdaterUtils.h"

namespace rozctl {

namespace {


std::string Join(const std::string& folder, const char* name) {
  return folder.empty() ? std::string() : FileSystemUtils::AppendPathElement(folder, name);
}

// A standard folder's path also while it does not exist: the lookup would create it, and
// looking must change nothing. Missing, it is where the lookup would make it.
std::string StandardFolder(esd::FolderFinder::FolderID id) {
  std::string base;
  if (esd::FolderFinder::GetFolderPath(id, base, false)) return base;
  esd::Env* env = esd::Env::Default();
  std::string value;
  switch (id) {
    case esd::FolderFinder::kLocalApplicationSupport:
      return Join(Join(env->GetRootDirectory(), "var"), "lib");
    case esd::FolderFinder::kUserApplicationSupport:
      if (env->GetEnvironmentVariable("XDG_DATA_HOME", value) && !value.empty() && value[0] == '/')
        return value;
      return env->GetHomeDirectory(value) ? Join(Join(value, ".local"), "share") : std::string();
    case esd::FolderFinder::kUserTemporaryItems:
      if (env->GetEnvironmentVariable("XDG_RUNTIME_DIR", value) && !value.empty() &&
          value[0] == '/')
        return value;
      return std::string();
    default:
      return std::string();
  }
}

std::string ProductFolder(esd::FolderFinder::FolderID id) {
  return Join(Join(StandardFolder(id), "Vantu"), VantuUpdaterUtils::kVantuUpdaterFolder);
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
  paths.markers = Join(Join(StandardFolder(esd::FolderFinder::kUserTemporaryItems),
                            VantuUpdaterUtils::kVantuUpdaterFolder),
                       "locked");
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
