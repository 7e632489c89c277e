#ifndef VANTU_XPLAT_VANTUUPDATERUTILS_H
#define VANTU_XPLAT_VANTUUPDATERUTILS_H

// Where the updater's shared files and the updater itself live, how the updater is started and
// found, and how the library signals it. Every operating-system query goes through
// esd::Env::Default(). All functions report failure by returning false and never throw.

#include <string>
#include <utility>
#include <vector>

#include "xplat/PathConversions.h"

namespace VantuUpdaterUtils {

// --- Layout ----------------------------------------------------------------------------------

inline constexpr char kVantuUpdaterFolder[] = "Updater5";
inline constexpr char kVantuUpdaterName[] = "VantuUpdater";
inline constexpr char kVantuUpdaterBakName[] = "VantuUpdate";
inline constexpr char kVantuUpdaterDownloadTempFolder[] = "Incomplete";
inline constexpr char kQRTDir[] = "QRT";
// When not empty, the per-user data folder as is, instead of the looked-up one.
inline constexpr char kVantuUpdaterDataDir[] = "";
inline constexpr char kRZInstallerDataPlistFileName[] = "VantuUpdaterInstallerData.plist";

// --- Parameters handed to the updater as environment variables ---------------------------------

inline constexpr char kROZIrptPath[] = "ROZ_IRPT_PATH";
inline constexpr char kAppPathEnvKey[] = "ROZ_APP_INSTALL_PATH";
inline constexpr char kEnvStartMode[] = "RZ_LAUNCH_MODE";
inline constexpr char kEnvStartAppID[] = "RZ_LAUNCH_APPID";
inline constexpr char kEnvDisplayLang[] = "RZ_DISPLAY_LANG";
inline constexpr char kKeyUpdatesNotifyAppID[] = "notifyAppID";
inline constexpr char kKeyUpdatesDoActionAppID[] = "doActionAppID";
inline constexpr char kKeyUpdatesNotifyOutfile[] = "notifyFile";
inline constexpr char kKeyLogLevel[] = "logLevel";
inline constexpr char kKeyLogFile[] = "logFile";

// How the updater was started. Converted to text (esd::ChangeType) it gives its integer value;
// GetStartupModeName gives the name stored in the preferences.
enum ROZStartupMode { kManual = 0, kScheduled = 1 };

// "Manual" or "Scheduled"; empty for a value outside the enumeration.
std::string GetStartupModeName(ROZStartupMode mode);

using EnvironmentList = std::vector<std::pair<std::string, std::string>>;

// --- Folders ---------------------------------------------------------------------------------

// ROOT/var/lib/Vantu/Updater5, created when missing with the restricted permission (0775), so
// every user of the machine shares it.
bool GetVantuUpdaterAllUserDataDir(std::string& path);

// The user's data folder, ${XDG_DATA_HOME:-HOME/.local/share}/Vantu/Updater5; product folders
// created here inherit their parent's permission bits (0774 when those cannot be read).
bool GetVantuUpdaterDataDir(std::string& path);

// The per-user data folder joined with "Data", created when missing.
bool GetVantuUpdaterCacheDataDir(std::string& path);

// Where the updater application is installed: the Utilities folder (ROOT/opt, which must
// exist) joined with "Vantu Utilities.localized/Vantu Updater5/Vantu Updater.app". The bundle
// itself need not exist.
bool GetUpdaterLocation(std::string& path);

// The same location as a reference to the installed bundle: false when it is not installed.
bool GetUpdaterLocation(esd::FSRef& ref);

// The folder of the running program.
bool GetVantuUpdaterDirectory(std::string& path);

// --- Starting and finding the updater --------------------------------------------------------

// Starts the installed updater asynchronously (esd::SystemUtils::LaunchPath) with the
// parameters added to the host's environment for it alone; the host's own environment is not
// changed. False when it is not installed where GetUpdaterLocation says or could not be started.
bool LaunchUpdater(EnvironmentList& params);

// Starts the updater's program with the parameters added to the host's environment for it
// alone and none of the host's descriptors but the standard three: in the background as a
// detached process (true when it was executed), or in the foreground through the shell,
// waiting for it (true when it exited with 0). False when the updater is not installed or its
// program is missing.
bool ForkUpdater(EnvironmentList& params, bool inBackground);

// Whether an updater process other than the caller runs: a process of the calling user that
// runs the installed updater's program file (the same device and inode as the program the
// installed bundle's Info.plist names; that bundle must say type "APPL" and signature "ROZ5").
// No other bundle is read. False when the updater is not installed, and false when the caller
// was itself started by the updater (the updater's own helpers must not wait for it). With
// `bringToFront`, the first such process found is brought to the front.
bool IsUpdaterRunning(bool bringToFront);

// --- Signals and rights ----------------------------------------------------------------------

// Asks a running updater, through the session bus, to start an express download. Always true:
// whether anyone listened cannot be known to the sender.
bool SignalExpressDownloadRequest();

// Whether the user may administer updates. An administrator who created ROOT/Applications
// restricts that to users who can read, search and write it; beyond that the user must be in
// one of the groups "admin", "sudo", "wheel" or "root" (supplementary groups only, names
// compared exactly).
bool DoesUserHaveAdminPrivileges();

}  // namespace VantuUpdaterUtils

#endif
