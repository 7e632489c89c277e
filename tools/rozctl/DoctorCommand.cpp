// `rozctl doctor`: checks a machine the way a support engineer would and says what to fix, one
// line per check. It reads only: nothing is created, locked or repaired.
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "LockInspection.h"
#include "UpdaterPaths.h"
#include "xplat/ApplicationBundle.h"
#include "xplat/Env.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/JournaledXMLFile.h"
#include "xplat/PropertyList.h"
#include "xplat/VantuUpdaterUtils.h"
#include "xplat/XMLDocumentNode.h"

namespace rozctl {

namespace {

const char kTmpfilesRemedy[] =
    "as root run 'systemd-tmpfiles --create /usr/lib/tmpfiles.d/vantu-updater.conf' (or the "
    "commands in README.md where systemd is absent)";

class Report {
 public:
  void Line(bool ok, const std::string& text) {
    std::cout << (ok ? "ok    " : "FIX   ") << text << "\n";
    mHealthy = mHealthy && ok;
  }
  bool Healthy() const { return mHealthy; }

 private:
  bool mHealthy = true;
};

std::string GroupName(gid_t group) {
  std::string name;
  return esd::Env::Default()->GetGroupName(group, name) ? name : std::to_string(group);
}

std::string Octal(unsigned mode) {
  char text[8];
  snprintf(text, sizeof text, "%04o", mode);
  return text;
}

// Owner, group and bits of a folder against what the installation gives it; `group` < 0 means
// any group.
void CheckFolder(Report& report, const std::string& path, long group, unsigned mode) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) {
    report.Line(false, path + " is missing: " + kTmpfilesRemedy);
    return;
  }
  const std::string found = GroupName(info.st_gid);
  const std::string described = path + " is " + std::to_string(info.st_uid) + ":" + found + " " +
                                Octal(info.st_mode & 07777);
  const bool right = S_ISDIR(info.st_mode) && info.st_uid == 0 &&
                     (group < 0 || info.st_gid == static_cast<gid_t>(group)) &&
                     (info.st_mode & 07777) == mode;
  report.Line(right, right ? described
                           : described + ", expected root:" +
                                 (group < 0 ? std::string("<group>") : GroupName(group)) + " " +
                                 Octal(mode) + ": " + kTmpfilesRemedy);
}

void CheckFolders(Report& report, const UpdaterPaths& paths) {
  if (paths.allUsersData.empty()) {
    report.Line(false, "the machine's /var/lib cannot be found");
    return;
  }
  gid_t updateGroup = 0;
  if (!FileSystemUtils::DoesPathExist(paths.allUsersData) &&
      !VantuUpdaterUtils::GetDefaultUpdateGroup(updateGroup))
    report.Line(false, "none of the groups admin, sudo, wheel exists: create one ('groupadd "
                       "--system sudo') before installing");
  CheckFolder(report, FileSystemUtils::GetParentPath(paths.allUsersData), 0, 0755);
  // Any group will do: an administrator may have widened or narrowed who may register.
  CheckFolder(report, paths.allUsersData, -1, 02775);
}

void CheckRegistration(Report& report, const UpdaterPaths& paths) {
  esd::Env* env = esd::Env::Default();
  struct stat info;
  if (paths.allUsersData.empty() || stat(paths.allUsersData.c_str(), &info) != 0) {
    report.Line(false, "nobody but root can register until the all-users folder exists");
    return;
  }
  const std::string group = GroupName(info.st_gid);
  if (env->GetEffectiveUserId() == 0) {
    report.Line(true, "this user can register applications (root)");
  } else if (env->IsAccessible(paths.allUsersData, W_OK | X_OK)) {
    report.Line(true, "this user can register applications (member of group " + group + ")");
  } else {
    report.Line(false, "this user cannot register applications: not a member of group " + group +
                           " (an administrator runs 'usermod -aG " + group +
                           " USER', then USER logs in again)");
  }
}

void CheckUpdater(Report& report, const UpdaterPaths& paths) {
  esd::ApplicationBundle bundle;
  if (!FileSystemUtils::DoesPathExist(paths.updater)) {
    report.Line(false, "the updater is not installed at " + paths.updater +
                           ": install the updater package");
  } else if (!esd::ApplicationBundle::Load(paths.updater, bundle)) {
    report.Line(false, paths.updater + "/Contents/Info.plist is missing or lacks "
                                       "CFBundleExecutable: reinstall the updater");
  } else if (bundle.GetPackageType() != "APPL" || bundle.GetSignature() != "ROZ5") {
    report.Line(false, paths.updater + " is not the Vantu Updater (package type '" +
                           bundle.GetPackageType() + "', signature '" + bundle.GetSignature() +
                           "'): reinstall the updater");
  } else if (access(bundle.GetExecutablePath().c_str(), X_OK) != 0) {
    report.Line(false, bundle.GetExecutablePath() + " is not an executable program: reinstall "
                                                    "the updater");
  } else {
    report.Line(true, "the updater is installed at " + paths.updater);
  }
}

void CheckPolicy(Report& report, const UpdaterPaths& paths) {
  if (!FileSystemUtils::DoesPathExist(paths.policy)) {
    report.Line(true, "no administrator policy: update checks stay enabled for administrators");
    return;
  }
  const esd::PropertyList policy = esd::PropertyList::ReadFile(paths.policy);
  bool disabled = false;
  if (!policy || !policy.IsDictionary()) {
    report.Line(false, paths.policy + " is not a property list dictionary: fix or remove it");
  } else if (!policy.GetBoolean("Disable.Update", disabled)) {
    report.Line(true, "the policy sets no boolean Disable.Update: update checks stay enabled");
  } else {
    report.Line(true, std::string("the policy says Disable.Update = ") +
                          (disabled ? "true: update checks are off" : "false"));
  }
}

// The machine-wide store belongs to its folder's group and is 0664, so every member can replace
// it and nobody else can.
void CheckSharedFile(Report& report, const std::string& path) {
  struct stat file, folder;
  if (lstat(path.c_str(), &file) != 0 ||
      stat(FileSystemUtils::GetParentPath(path).c_str(), &folder) != 0)
    return;
  const bool right = S_ISREG(file.st_mode) && file.st_gid == folder.st_gid &&
                     (file.st_mode & 07777) == 0664;
  if (!right)
    report.Line(false, path + " is group " + GroupName(file.st_gid) + " " +
                           Octal(file.st_mode & 07777) + ", expected group " +
                           GroupName(folder.st_gid) + " 0664: as root run 'chgrp " +
                           GroupName(folder.st_gid) + " FILE; chmod 0664 FILE'");
}

void CheckStore(Report& report, const std::string& label, const std::string& path) {
  if (path.empty()) return;
  std::string journal;
  JournaledXMLFile::GetJournalPath(path, journal);
  if (FileSystemUtils::DoesPathExist(journal))
    report.Line(false, "leftover journal " + journal +
                           " (an interrupted save; the next use of the store settles it)");
  if (!FileSystemUtils::DoesPathExist(path)) {
    report.Line(true, label + ": none yet");
    return;
  }
  esd::ExpatDOMBuilder<esd::XMLDocumentNode> builder;
  const bool parses = builder.Create(nullptr, nullptr) && builder.ParseFile(path, false);
  report.Line(parses, parses ? label + " parses: " + path
                             : label + " does not parse: " + path +
                                   " (move it aside; it is rebuilt on the next save)");
}

void CheckLocks(Report& report) {
  for (const LockState& lock : InspectLocks()) {
    if (lock.held)
      report.Line(false, lock.label + " is held" +
                             (lock.holder.empty() ? std::string() : " by " + lock.holder) +
                             ": if no holder is alive, 'rozctl break-lock " + lock.label + "'");
    if (!lock.leftover.empty())
      report.Line(false, "lock left by an older version: " + lock.leftover +
                             " ('rozctl break-lock " + lock.label + "')");
  }
}

void CheckSessionBus(Report& report) {
  const bool reached = esd::Env::Default()->PostSessionBusSignal(
      "/com/vantu/VantuUpdater/Doctor", "com.vantu.VantuUpdater.Doctor", "Ping", {});
  report.Line(reached, reached ? "the session bus is reachable"
                               : "no session bus: the updater cannot be signalled (run inside "
                                 "a desktop session, or set DBUS_SESSION_BUS_ADDRESS)");
}

int RunDoctor(const std::vector<std::string>& args) {
  CommandLine(args, {}, {}).ExpectPositional(0, 0);
  const UpdaterPaths paths = UpdaterPaths::Find();
  Report report;
  CheckFolders(report, paths);
  CheckRegistration(report, paths);
  CheckUpdater(report, paths);
  CheckPolicy(report, paths);
  CheckLocks(report);
  CheckStore(report, "registered applications", paths.registry);
  CheckSharedFile(report, paths.registry);
  CheckStore(report, "missing components", paths.missingComps);
  CheckStore(report, "preferences", paths.prefs);
  CheckSessionBus(report);
  return report.Healthy() ? kExitOK : kExitFailed;
}

}  // namespace

const std::vector<Command>& DoctorCommands() {
  static const std::vector<Command> commands = {
      {"doctor", "doctor", "check this machine and say what to fix",
       "Checks, one line each, marked 'ok' or 'FIX' with what to do: the all-users folders\n"
       "(owner, group, mode); whether this user can register applications and why; the\n"
       "updater bundle and its Info.plist; the administrator policy; held locks and locks left\n"
       "by older versions; leftover journals; whether each store parses; the session bus.\n"
       "Creates, locks and repairs nothing.\n"
       "\n"
       "Exit status: 0 when every check is ok, 1 otherwise.",
       RunDoctor},
  };
  return commands;
}

}  // namespace rozctl
