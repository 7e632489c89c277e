#ifndef VANTU_XPLAT_VANTUUPDATERNOTIFYWORKFLOWLOCKER_H
#define VANTU_XPLAT_VANTUUPDATERNOTIFYWORKFLOWLOCKER_H

#include <string>

namespace VantuUpdaterUtils {

// Tells host processes and the updater whether a notification workflow for an application is
// under way: a marker file "lock.<appID>" in <user temporary items>/Updater5/locked, plus the
// application's resource lock, which the updater holds while it works. Every doubt reads as
// "active", so that a second workflow is never started beside a running one.
class VantuUpdaterNotifyWorkflowLocker {
 public:
  // <user temporary items>/Updater5; not created.
  static bool GetIPCLockFileParentFolder(std::string& path);

  // <user temporary items>/Updater5/locked, created (with its parent) when missing.
  static bool GetIPCLockFileFolder(std::string& path);

  // The marker file of `appID`. False for an identifier that would name a file elsewhere
  // (empty, or holding "/").
  static bool GetIPCLockFilePath(const std::string& appID, std::string& path);

  // True when the marker exists (even a stale one), when another holder has the
  // application's resource lock, or when either cannot be checked.
  static bool IsNotificationWorkflowActive(const std::string& appID);

  // Deletes the marker; true also when there was none.
  static bool DeleteIPCLockFile(const std::string& appID);

  // Writes the marker with the content "lock" (replacing an existing one).
  static bool CreateIPCLockFile(const std::string& appID);
};

}  // namespace VantuUpdaterUtils

#endif
