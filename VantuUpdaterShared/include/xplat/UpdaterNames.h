#ifndef VANTUUPDATERSHARED_XPLAT_UPDATERNAMES_H
#define VANTUUPDATERSHARED_XPLAT_UPDATERNAMES_H

// The names the library, the updater and rozctl must agree on: the files they exchange, the lock
// they share and the signal the library posts to a running updater. They are part of the contract
// between separately installed programs and never change.
namespace UpdaterNames {

// Files in the all-users updater data folder, the per-user one and the machine's "etc" folder.
inline constexpr char kRegistrationFileName[] = "VantuESDGlobalApps.xml";
inline constexpr char kMissingCompsFileName[] = "VantuMissingComps.xml";
inline constexpr char kPrefsFileName[] = "VantuUpdaterPrefs.dat";
inline constexpr char kLogFileName[] = "roz.log";
inline constexpr char kAdminPrefsFileName[] = "com.vantu.VantuUpdater.Admin.plist";

// The inter-process lock every reader and writer of the preferences takes.
inline constexpr char kPrefsLockResource[] = "VantuUpdater";

// The session-bus signal that asks a running updater to fetch missing components at once.
inline constexpr char kNotificationObjectPath[] = "/org/esd/DistributedNotificationCenter";
inline constexpr char kNotificationInterface[] = "org.esd.DistributedNotificationCenter";
inline constexpr char kNotificationMember[] = "Notification";
inline constexpr char kExpressDownloadName[] = "Do Express Download";
inline constexpr char kExpressDownloadObject[] = "Vantu Updater Express Download Signal";

}  // namespace UpdaterNames

#endif
