#include "xplat/VantuUpdaterPrefs.h"

#include <exception>
#include <stdexcept>

#include <boost/date_time/date_parsing.hpp>
#include <boost/date_time/gregorian/gregorian_types.hpp>

#include "xplat/Env.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/FolderFinder.h"
#include "xplat/PrefsLockScope.h"
#include "xplat/VantuUpdaterUtils.h"

namespace {

const char kPrefsRootName[] = "VantuUpdater";
const char kPrefsFileName[] = "VantuUpdaterPrefs.dat";
const char kLogFileName[] = "roz.log";
// The same lock name in the library and the updater application, so both exclude each other.
const char kPrefsLockName[] = "VantuUpdater";
const unsigned long kPrefsLockTimeoutMs = 3000;
const int kWeeklyCheck = 1;

}  // namespace

VantuUpdaterPrefs::VantuUpdaterPrefs()
    : esd::PrefsWriter("", kPrefsRootName),
      AutoCheck("AutoCheck", true),
      AutoCheckType("AutoCheckType", 0),
      DownloadDir("DownloadDir", GetDefaultDownloadLocation()),
      DisplayLang("DisplayLang", ""),
      IsFirstRun("IsFirstRun", true),
      InBackground("InBackground", false),
      InTrayIcon("InTrayIcon", false),
      AutoCheckFreq("AutoCheckFreq", kWeeklyCheck),
      LastDateCheck("LastDateCheck", ""),
      ShowNewProducts("ShowNewProducts", false),
      SilentCheck("SilentCheck", false),
      ApplicationsEnabled("ApplicationsEnabled"),
      NotificationMessage("NotificationMessage"),
      Launch("Launch", ""),
      ProxyServer("ProxyServer", ""),
      ProxyPort("ProxyPort", ""),
      ConnectionType("ConnectionType", 0),
      logFile(VantuUpdaterUtils::kKeyLogFile, GetDefaultLogFileLocation()),
      logLevel(VantuUpdaterUtils::kKeyLogLevel, 2UL),
      mPrefsLock(kPrefsLockName, kPrefsLockTimeoutMs) {
  AutoCheck.SetPrefsFile(this);
  AutoCheckType.SetPrefsFile(this);
  DownloadDir.SetPrefsFile(this);
  DisplayLang.SetPrefsFile(this);
  IsFirstRun.SetPrefsFile(this);
  InBackground.SetPrefsFile(this);
  InTrayIcon.SetPrefsFile(this);
  AutoCheckFreq.SetPrefsFile(this);
  LastDateCheck.SetPrefsFile(this);
  ShowNewProducts.SetPrefsFile(this);
  SilentCheck.SetPrefsFile(this);
  ApplicationsEnabled.SetPrefsFile(this);
  NotificationMessage.SetPrefsFile(this);
  Launch.SetPrefsFile(this);
  ProxyServer.SetPrefsFile(this);
  ProxyPort.SetPrefsFile(this);
  ConnectionType.SetPrefsFile(this);
  logFile.SetPrefsFile(this);
  logLevel.SetPrefsFile(this);

  std::string dataDir;
  if (!VantuUpdaterUtils::GetVantuUpdaterDataDir(dataDir))
    throw std::runtime_error("Unable to create file!");
  const std::string path = FileSystemUtils::AppendPathElement(dataDir, kPrefsFileName);

  SetLockPolicy(&mPrefsLock);
  try {
    SetPrefsPath(path);
  } catch (const std::invalid_argument&) {
    // A broken file would fail every process that shares it; starting from defaults is the only
    // way forward.
    DeleteAllPrefs();
    SetPrefsPath(path);
  }

  // Only the default folder is ours to create: a folder the user chose and later removed is
  // theirs to bring back.
  std::string downloadDir;
  if (DownloadDir.Get(downloadDir) && !downloadDir.empty() &&
      downloadDir == GetDefaultDownloadLocation() && !FileSystemUtils::DoesPathExist(downloadDir)) {
    FileSystemUtils::CreateLocalDirectory(downloadDir);
  }
}

VantuUpdaterPrefs::~VantuUpdaterPrefs() = default;

VantuUpdaterPrefs* VantuUpdaterPrefs::GetVantuUpdaterPrefs() {
  static VantuUpdaterPrefs sPrefs;
  return &sPrefs;
}

std::string VantuUpdaterPrefs::GetDefaultDownloadLocation() {
  std::string sRet;
  if (esd::FolderFinder::GetFolderPath(esd::FolderFinder::kUserDocuments, sRet, true)) {
    if (!FileSystemUtils::DoesPathExist(sRet) && !FileSystemUtils::CreateLocalDirectory(sRet))
      sRet.clear();
    else
      sRet = FileSystemUtils::AppendPathElement(sRet, VantuUpdaterUtils::kVantuUpdaterFolder);
  }
  // The user's folder settings may name a Documents folder nobody can create: that leaves the
  // download folder without a default, never the host without its process.
  return sRet;
}

std::string VantuUpdaterPrefs::GetDefaultLogFileLocation() {
  std::string dataDir;
  if (!VantuUpdaterUtils::GetVantuUpdaterDataDir(dataDir) || dataDir.empty()) return "";
  return FileSystemUtils::AppendPathElement(dataDir, kLogFileName);
}

bool VantuUpdaterPrefs::HasAutocheckPeriodElapsed() {
  std::string lastCheck;
  int frequency = kWeeklyCheck;
  {
    // Both settings from one version of the file.
    esd::PrefsLockScope lock(*this);
    if (!lock.IsHeld() || !LastDateCheck.Get(lastCheck) || !AutoCheckFreq.Get(frequency))
      return false;
  }
  if (lastCheck.empty()) return true;

  using boost::gregorian::date;
  try {
    // Year, month, day in that order; the separator may be "-", "/", "." or a blank.
    const date last =
        boost::date_time::parse_date<date>(lastCheck, boost::date_time::ymd_order_iso);
    if (last.is_special()) return true;
    const date today = esd::Env::Default()->GetLocalDay();
    date periodAgo;
    if (frequency == kWeeklyCheck) {
      boost::gregorian::week_iterator step(today, 1);
      --step;
      periodAgo = *step;
    } else {
      // Month arithmetic snaps to the month's end: a month before 31 March is 29 February.
      boost::gregorian::month_iterator step(today, 1);
      --step;
      periodAgo = *step;
    }
    if (periodAgo.is_special()) return true;
    return periodAgo >= last;
  } catch (const std::exception&) {
    // A date nobody can read must not stop checks for ever.
    return true;
  }
}
