// The notification-workflow marker, the express-download signal and the administrator test.
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "xplat/Env.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/FolderFinder.h"
#include "xplat/ResourceLocker.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"
#include "xplat/VantuUpdaterUtils.h"

namespace VantuUpdaterUtils {

namespace {

constexpr char kNotificationObjectPath[] = "/org/esd/DistributedNotificationCenter";
constexpr char kNotificationInterface[] = "org.esd.DistributedNotificationCenter";
constexpr char kNotificationMember[] = "Notification";
constexpr char kExpressDownloadName[] = "Do Express Download";
constexpr char kExpressDownloadObject[] = "Vantu Updater Express Download Signal";

// Groups whose members administer the machine: the original platform's, Debian's, Red Hat's,
// and root's own group.
const char* const kAdministratorGroups[] = {"admin", "sudo", "wheel", "root"};

constexpr uint16_t kMarkerFolderMode = 0700;
constexpr uint16_t kMarkerFileMode = 0600;

}  // namespace

bool VantuUpdaterNotifyWorkflowLocker::GetIPCLockFileParentFolder(std::string& path) {
  std::string base;
  if (!esd::FolderFinder::GetFolderPath(esd::FolderFinder::kUserTemporaryItems, base, true))
    return false;
  path = FileSystemUtils::AppendPathElement(base, kVantuUpdaterFolder);
  return true;
}

bool VantuUpdaterNotifyWorkflowLocker::GetIPCLockFileFolder(std::string& path) {
  std::string parent;
  if (!GetIPCLockFileParentFolder(parent)) return false;
  // The user's own folders: made owner-only whatever the umask says.
  if (!FileSystemUtils::DoesPathExist(parent) &&
      !FileSystemUtils::CreateLocalDirectoryWithMode(parent, kMarkerFolderMode))
    return false;
  const std::string locked = FileSystemUtils::AppendPathElement(parent, "locked");
  if (!FileSystemUtils::DoesPathExist(locked) &&
      !FileSystemUtils::CreateLocalDirectoryWithMode(locked, kMarkerFolderMode))
    return false;
  path = locked;
  return true;
}

bool VantuUpdaterNotifyWorkflowLocker::GetIPCLockFilePath(const std::string& appID,
                                                          std::string& path) {
  if (appID.empty() || appID.find('/') != std::string::npos ||
      appID.find('\0') != std::string::npos)
    return false;
  std::string folder;
  if (!GetIPCLockFileFolder(folder)) return false;
  path = FileSystemUtils::AppendPathElement(folder, "lock." + appID);
  return true;
}

bool VantuUpdaterNotifyWorkflowLocker::IsNotificationWorkflowActive(const std::string& appID) {
  std::string marker;
  if (!GetIPCLockFilePath(appID, marker)) return true;
  if (FileSystemUtils::DoesPathExist(marker)) return true;
  try {
    // Held only for the instant of the test: the destructor releases a lock we got.
    esd::ResourceLocker locker(appID, 0);
    return !locker.Lock();
  } catch (const std::exception&) {
    return true;
  }
}

bool VantuUpdaterNotifyWorkflowLocker::DeleteIPCLockFile(const std::string& appID) {
  std::string marker;
  if (!GetIPCLockFilePath(appID, marker)) return false;
  if (!FileSystemUtils::DoesPathExist(marker)) return true;
  return FileSystemUtils::DeleteLocalFile(marker);
}

bool VantuUpdaterNotifyWorkflowLocker::CreateIPCLockFile(const std::string& appID) {
  std::string marker;
  if (!GetIPCLockFilePath(appID, marker)) return false;
  // Never written through a link: one planted at the marker's name is refused, not followed.
  return FileSystemUtils::WriteLocalFile(marker, "lock", kMarkerFileMode);
}

bool SignalExpressDownloadRequest() {
  esd::Env::Default()->PostSessionBusSignal(kNotificationObjectPath, kNotificationInterface,
                                            kNotificationMember,
                                            {kExpressDownloadName, kExpressDownloadObject});
  return true;
}

bool DoesUserHaveAdminPrivileges() {
  esd::Env* env = esd::Env::Default();
  std::string applications;
  // Seeing the folder, seeing its files and changing it are all needed. A folder that vanished
  // between lookup and test counts as a failed lookup: the group check decides.
  if (esd::FolderFinder::GetLocalApplicationsFolderPath(applications) &&
      !env->IsAccessible(applications, R_OK | X_OK | W_OK) &&
      FileSystemUtils::DoesPathExist(applications))
    return false;

  std::vector<gid_t> groups;
  if (!env->GetSupplementaryGroups(groups) || groups.empty()) return false;
  for (gid_t group : groups) {
    std::string name;
    if (!env->GetGroupName(group, name)) continue;
    for (const char* administrators : kAdministratorGroups) {
      if (name == administrators) return true;
    }
  }
  return false;
}

}  // namespace VantuUpdaterUtils
