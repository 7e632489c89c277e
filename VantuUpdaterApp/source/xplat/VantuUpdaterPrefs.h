#ifndef VANTU_XPLAT_VANTUUPDATERPREFS_H
#define VANTU_XPLAT_VANTUUPDATERPREFS_H

#include <map>
#include <string>

#include "xplat/BasicPref.h"
#include "xplat/MapPref.h"
#include "xplat/PrefsWriter.h"
#include "xplat/ResourceLocker.h"

// The user's updater settings: "VantuUpdaterPrefs.dat" in the per-user updater data folder,
// shared by the library in every host application and by the updater application. Each setting
// is a public handle; every Get and Set takes the "VantuUpdater" lock (waiting up to three
// seconds) unless the caller holds it through LockPrefs, and sees the other processes' last
// writes. The library reaches it through GetVantuUpdaterPrefs.
class VantuUpdaterPrefs : public esd::PrefsWriter {
 public:
  // Opens the user's preferences file. A file that does not parse is deleted and replaced by
  // empty settings. Throws std::runtime_error "Unable to create file!" when the data folder
  // cannot be had, and whatever a second load of an undeletable broken file throws. Creates the
  // default download folder when it is the configured one and missing.
  VantuUpdaterPrefs();
  ~VantuUpdaterPrefs() override;

  VantuUpdaterPrefs(const VantuUpdaterPrefs&) = delete;
  VantuUpdaterPrefs& operator=(const VantuUpdaterPrefs&) = delete;

  // The process-wide instance, built on the first call (concurrent first calls wait for one
  // build) and destroyed at exit. When the build throws, the exception reaches the caller and
  // the next call tries again.
  static VantuUpdaterPrefs* GetVantuUpdaterPrefs();

  // The user's Documents folder (created when missing) joined with "Updater5"; that last folder
  // is not created here. A user without a usable Documents folder is a setup the updater cannot
  // run in: the process stops with a failed assertion.
  static std::string GetDefaultDownloadLocation();

  // The updater data folder joined with "roz.log"; empty when the folder cannot be had.
  static std::string GetDefaultLogFileLocation();

  // Whether an automatic check is due: no check recorded yet, a recorded date that cannot be
  // read, or a week ("AutoCheckFreq" 1) or a month (any other value) passed since it. A month
  // back from the last day of a month is the last day of the month before. False when the
  // settings cannot be read (the lock is busy): not due.
  bool HasAutocheckPeriodElapsed();

  esd::BasicPref<bool> AutoCheck;
  esd::BasicPref<int> AutoCheckType;
  esd::BasicPref<std::string> DownloadDir;
  esd::BasicPref<std::string> DisplayLang;
  esd::BasicPref<bool> IsFirstRun;
  esd::BasicPref<bool> InBackground;
  esd::BasicPref<bool> InTrayIcon;
  esd::BasicPref<int> AutoCheckFreq;
  esd::BasicPref<std::string> LastDateCheck;
  esd::BasicPref<bool> ShowNewProducts;
  esd::BasicPref<bool> SilentCheck;
  esd::MapPref<std::string, bool> ApplicationsEnabled;
  esd::MapPref<std::string, std::string> NotificationMessage;
  esd::BasicPref<std::string> Launch;
  esd::BasicPref<std::string> ProxyServer;
  esd::BasicPref<std::string> ProxyPort;
  esd::BasicPref<int> ConnectionType;
  esd::BasicPref<std::string> logFile;
  esd::BasicPref<unsigned long> logLevel;

 private:
  esd::ResourceLocker mPrefsLock;
};

#endif
