// Commands that show what the library works with: its folders, the two stores, the user's
// preferences and the administrator's policy. They read through the library's own classes, so
// they see exactly what a host application's calls would see.
#include <sys/types.h>

#include <iostream>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "UpdaterPaths.h"
#include "xplat/Env.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/FileSystemVersion.h"
#include "xplat/VantuUpdaterAdminPrefs.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"
#include "xplat/VantuUpdaterPrefs.h"
#include "xplat/VantuUpdaterRegistrationManager.h"
#include "xplat/VantuUpdaterUtils.h"

namespace rozctl {

namespace {

void PrintPath(const std::string& label, const std::string& path) {
  std::string padded = label + ":";
  padded.resize(24, ' ');
  if (path.empty()) {
    std::cout << padded << "(cannot be determined)\n";
    return;
  }
  std::cout << padded << path << (FileSystemUtils::DoesPathExist(path) ? "" : " (does not exist)")
            << "\n";
}

int RunFolders(const std::vector<std::string>& args) {
  CommandLine(args, {}, {}).ExpectPositional(0, 0);
  const UpdaterPaths paths = UpdaterPaths::Find();
  std::cout << "machine root:           " << esd::Env::Default()->GetRootDirectory() << "\n";
  PrintPath("all-users data", paths.allUsersData);
  PrintPath("registered apps", paths.registry);
  PrintPath("per-user data", paths.userData);
  PrintPath("missing components", paths.missingComps);
  PrintPath("preferences", paths.prefs);
  PrintPath("availability exchange", paths.cacheData);
  PrintPath("workflow markers", paths.markers);
  PrintPath("administrator policy", paths.policy);
  PrintPath("updater", paths.updater);
  PrintPath("updater log", paths.updaterLog);
  return kExitOK;
}

std::string FieldOrNone(bool found, const std::string& value) {
  return found ? value : std::string("(none)");
}

int RunApps(const std::vector<std::string>& args) {
  CommandLine(args, {}, {}).ExpectPositional(0, 0);
  VantuUpdaterRegistrationManager store;
  std::list<VantuUpdaterRegisteredApp> apps;
  if (!store.GetRegisteredApps(apps)) {
    std::cerr << "rozctl apps: cannot read the registered-applications store (locked or "
                 "damaged; see 'rozctl locks')\n";
    return kExitFailed;
  }
  if (apps.empty()) std::cout << "no registered applications\n";
  for (const VantuUpdaterRegisteredApp& app : apps) {
    std::string id, name, path;
    app.GetappID(id);
    const bool hasName = app.GetDisplayName(name);
    const bool hasPath = app.GetInstallPath(path);
    std::cout << id << "\n  display name: " << FieldOrNone(hasName, name)
              << "\n  install path: " << FieldOrNone(hasPath, path) << "\n";
  }
  return kExitOK;
}

int RunMissing(const std::vector<std::string>& args) {
  CommandLine(args, {}, {}).ExpectPositional(0, 0);
  VantuUpdaterMissingCompsManager store;
  std::list<VantuUpdaterMissingCompsApp> apps;
  if (!store.GetMissingCompsApps(apps)) {
    std::cerr << "rozctl missing: cannot read the missing-components store (locked or "
                 "damaged; see 'rozctl locks')\n";
    return kExitFailed;
  }
  if (apps.empty()) std::cout << "no missing-component requests\n";
  for (VantuUpdaterMissingCompsApp& app : apps) {
    std::string id, name, path;
    int type = 0;
    app.GetAppID(id);
    const bool hasName = app.GetDisplayName(name);
    const bool hasPath = app.GetInstallPath(path);
    const bool hasType = app.GetOperationType(type);
    std::cout << id << "\n  display name: " << FieldOrNone(hasName, name)
              << "\n  install path: " << FieldOrNone(hasPath, path)
              << "\n  request type: " << FieldOrNone(hasType, std::to_string(type)) << "\n";
    std::list<VantuUpdaterAMissingComponent> components;
    app.GetMissingComponents(components);
    for (const VantuUpdaterAMissingComponent& component : components) {
      std::string category, componentName;
      FileSystemVersion version(FileSystemVersion::kInvalidVersion);
      component.Getcategory(category);
      component.Getname(componentName);
      component.Getversion(version);
      std::cout << "  component:    " << category << ":" << componentName << ":"
                << version.ToString() << "\n";
    }
  }
  return kExitOK;
}

template <class T>
void PrintPref(esd::BasicPref<T>& pref) {
  T value{};
  pref.Get(value);
  std::cout << pref.GetKey() << " = " << value << "\n";
}

template <class V>
void PrintMapPref(const char* key, esd::MapPref<std::string, V>& pref) {
  std::map<std::string, V> values;
  if (!pref.Get(values)) {
    std::cout << key << " = (unreadable)\n";
    return;
  }
  if (values.empty()) std::cout << key << " = (empty)\n";
  for (const auto& entry : values)
    std::cout << key << "[" << entry.first << "] = " << entry.second << "\n";
}

int RunPrefs(const std::vector<std::string>& args) {
  CommandLine(args, {}, {}).ExpectPositional(0, 0);
  VantuUpdaterPrefs prefs;
  // One lock for the whole listing, so it shows one version of the file.
  if (!prefs.LockPrefs()) {
    std::cerr << "rozctl prefs: the preferences are locked by another process (see 'rozctl "
                 "locks')\n";
    return kExitFailed;
  }
  std::cout << "file: " << prefs.GetPrefsPath()
            << (FileSystemUtils::DoesPathExist(prefs.GetPrefsPath()) ? "" : " (not written yet)")
            << "\n";
  PrintPref(prefs.AutoCheck);
  PrintPref(prefs.AutoCheckType);
  PrintPref(prefs.AutoCheckFreq);
  PrintPref(prefs.LastDateCheck);
  PrintPref(prefs.Launch);
  PrintPref(prefs.IsFirstRun);
  PrintPref(prefs.InBackground);
  PrintPref(prefs.InTrayIcon);
  PrintPref(prefs.DownloadDir);
  PrintPref(prefs.DisplayLang);
  PrintPref(prefs.ShowNewProducts);
  PrintPref(prefs.SilentCheck);
  PrintPref(prefs.ProxyServer);
  PrintPref(prefs.ProxyPort);
  PrintPref(prefs.ConnectionType);
  PrintPref(prefs.logFile);
  PrintPref(prefs.logLevel);
  PrintMapPref("ApplicationsEnabled", prefs.ApplicationsEnabled);
  PrintMapPref("NotificationMessage", prefs.NotificationMessage);
  prefs.UnlockPrefs();
  return kExitOK;
}

// The caller's supplementary groups by name, as the administrator check sees them.
std::string GroupNames() {
  esd::Env* env = esd::Env::Default();
  std::vector<gid_t> groups;
  if (!env->GetSupplementaryGroups(groups)) return "(unreadable)";
  std::string names;
  for (gid_t group : groups) {
    std::string name;
    if (!env->GetGroupName(group, name)) name = std::to_string(group);
    names += (names.empty() ? "" : ", ") + name;
  }
  return names.empty() ? "(none)" : names;
}

int RunPolicy(const std::vector<std::string>& args) {
  CommandLine(args, {}, {}).ExpectPositional(0, 0);
  const std::string policyPath = UpdaterPaths::Find().policy;
  bool policyEnabled = true;
  const bool answered =
      VantuUpdaterAdminPrefs::GetVantuUpdaterAdminPrefs().GetUpdateCheckEnabled(policyEnabled);
  const bool admin = VantuUpdaterUtils::DoesUserHaveAdminPrivileges();
  PrintPath("policy file", policyPath);
  std::cout << "Disable.Update:         "
            << (answered ? (policyEnabled ? "false" : "true") : "not set (checks stay enabled)")
            << "\n"
            << "supplementary groups:   " << GroupNames() << "\n"
            << "administrator:          " << (admin ? "yes" : "no") << "\n"
            << "update checks:          "
            << (policyEnabled && admin ? "enabled"
                : !policyEnabled       ? "disabled by the policy"
                                       : "disabled: not an administrator")
            << "\n";
  return kExitOK;
}

}  // namespace

const std::vector<Command>& InspectionCommands() {
  static const std::vector<Command> commands = {
      {"folders", "folders", "show the folders and files the library uses",
       "Shows where the library and the updater keep their files for this user on this\n"
       "machine (or under --root), and which of them exist. Creates nothing.\n"
       "\n"
       "Exit status: 0.",
       RunFolders},
      {"apps", "apps", "list the registered applications",
       "Lists the machine-wide register of host applications: identifier, display name and\n"
       "install path of each, read through the store under its lock.\n"
       "\n"
       "Exit status: 0, or 1 when the store cannot be read (held by another process or\n"
       "damaged).",
       RunApps},
      {"missing", "missing", "list the pending missing-component requests",
       "Lists this user's pending missing-component requests: per application its display name,\n"
       "install path and request type, and each component as CATEGORY:NAME:VERSION. Reading\n"
       "goes through the store, which (as for any request) deletes a file that holds no\n"
       "request or cannot be parsed.\n"
       "\n"
       "Exit status: 0, or 1 when the store cannot be read.",
       RunMissing},
      {"prefs", "prefs", "show the user's updater preferences",
       "Shows every setting of the user's updater preferences, with its default when the file\n"
       "does not hold it.\n"
       "\n"
       "Exit status: 0, or 1 when another process holds the preferences' lock.",
       RunPrefs},
      {"policy", "policy", "show the administrator policy and the administrator check",
       "Shows the administrator's policy file and its Disable.Update setting, the caller's\n"
       "supplementary groups, whether they make it an administrator, and so whether update\n"
       "checks are enabled.\n"
       "\n"
       "Exit status: 0.",
       RunPolicy},
  };
  return commands;
}

}  // namespace rozctl
