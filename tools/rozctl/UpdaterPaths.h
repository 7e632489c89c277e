#ifndef ROZCTL_UPDATERPATHS_H
#define ROZCTL_UPDATERPATHS_H

#include <string>

namespace rozctl {

// Where the library and the updater keep their files for the current user and machine (the
// current esd::Env's view). Found without creating anything, so that looking does not change
// the machine. A path that cannot be determined (no home folder, a standard folder missing) is
// empty.
struct UpdaterPaths {
  std::string allUsersData;  // ROOT/var/lib/Vantu/Updater5
  std::string userData;      // ${XDG_DATA_HOME:-HOME/.local/share}/Vantu/Updater5
  std::string cacheData;     // userData/Data, the availability exchange
  std::string registry;      // allUsersData/VantuESDGlobalApps.xml
  std::string missingComps;  // userData/VantuMissingComps.xml
  std::string prefs;         // userData/VantuUpdaterPrefs.dat
  std::string updaterLog;    // userData/roz.log, unless the preferences name another
  std::string markers;       // <user temporary items>/Updater5/locked
  std::string policy;        // ROOT/etc/com.vantu.VantuUpdater.Admin.plist
  std::string updater;       // ROOT/opt/Vantu Utilities.localized/Vantu Updater5/Vantu Updater.app

  static UpdaterPaths Find();
};

}  // namespace rozctl

#endif
