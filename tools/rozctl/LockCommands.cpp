// Showing and breaking the inter-process locks. A lock is a named semaphore whose existence is
// the lock, so a process that dies while holding one leaves it behind and every later caller
// waits out its time-out and fails. The library never breaks a lock by itself (it cannot tell a
// crashed holder from a slow one); these commands let a person do it.
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "UpdaterPaths.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/NodeName.h"
#include "xplat/ResourceLocker.h"
#include "xplat/UpdaterNames.h"
#include "xplat/SearchResult.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"
#include "xplat/XMLDocumentNode.h"

namespace rozctl {

namespace {

// The preferences file's lock, shared by the library and the updater in every process.
using UpdaterNames::kPrefsLockResource;
const char kMarkerPrefix[] = "lock.";
const char kAppLockPrefix[] = "app:";

// One lock rozctl knows about: the name a person types, the resource the library locks and,
// for an application's notification workflow, the marker file that also counts as the lock.
struct KnownLock {
  std::string label;
  std::string resource;
  std::string marker;
};

std::string SemaphoreFile(const std::string& resource) {
  return "/dev/shm/sem." + esd::ResourceLocker::GetSemaphoreName(resource).substr(1);
}

bool SemaphoreExists(const std::string& resource) {
  return FileSystemUtils::DoesPathExist(SemaphoreFile(resource));
}

// The registered identifiers read straight from the file, without the store's lock: listing
// locks must work while a stale lock blocks the store. Saves replace the file whole, so an
// unlocked read sees one complete version.
std::vector<std::string> PeekRegisteredAppIDs(const std::string& registryPath) {
  std::vector<std::string> ids;
  esd::ExpatDOMBuilder<esd::XMLDocumentNode> builder;
  if (registryPath.empty() || !builder.Create(nullptr, nullptr) ||
      !builder.ParseFile(registryPath, false))
    return ids;
  using Search = esd::SearchResult<esd::XMLDocumentNode>;
  const Search apps = Search(builder.GetDocumentNode())
                          .Children(esd::NodeName("VantuUpdaterRegistrationManager"))
                          .Children(esd::NodeName("Application"));
  for (esd::XMLDocumentNode* app : apps) {
    std::string id;
    if (app->GetAttrValue("appID", id)) ids.push_back(id);
  }
  return ids;
}

// Identifiers that have a workflow marker, stale or not.
std::vector<std::string> MarkedAppIDs() {
  std::vector<std::string> ids;
  const std::string folder = UpdaterPaths::Find().markers;
  if (folder.empty()) return ids;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, sizeof(kMarkerPrefix) - 1, kMarkerPrefix) == 0 &&
        name.size() > sizeof(kMarkerPrefix) - 1)
      ids.push_back(name.substr(sizeof(kMarkerPrefix) - 1));
  }
  return ids;
}

KnownLock AppLock(const std::string& appID) {
  KnownLock lock{kAppLockPrefix + appID, appID, std::string()};
  const std::string folder = UpdaterPaths::Find().markers;
  // An identifier holding "/" has no marker: the library refuses to name one for it.
  if (!folder.empty() && appID.find('/') == std::string::npos)
    lock.marker = FileSystemUtils::AppendPathElement(folder, kMarkerPrefix + appID);
  return lock;
}

// The stores, the preferences, and the workflow of every application that is registered, has a
// marker, or was named by the caller.
std::vector<KnownLock> KnownLocks(const std::vector<std::string>& extraAppIDs) {
  std::vector<KnownLock> locks;
  const UpdaterPaths paths = UpdaterPaths::Find();
  if (!paths.registry.empty()) locks.push_back({"registered-apps", paths.registry, ""});
  if (!paths.missingComps.empty()) locks.push_back({"missing-comps", paths.missingComps, ""});
  locks.push_back({"prefs", kPrefsLockResource, std::string()});

  std::vector<std::string> ids = PeekRegisteredAppIDs(paths.registry);
  for (const std::string& id : MarkedAppIDs()) ids.push_back(id);
  for (const std::string& id : extraAppIDs) ids.push_back(id);
  for (const std::string& id : ids) {
    bool seen = false;
    for (const KnownLock& lock : locks) seen = seen || lock.label == kAppLockPrefix + id;
    if (!seen && !id.empty()) locks.push_back(AppLock(id));
  }
  return locks;
}

// The lock a person named: one of the labels `locks` prints, "app:APPID" for any application,
// or "resource:NAME" for a resource name as the library passes it to its locker.
KnownLock ResolveLock(const std::string& name) {
  if (name.compare(0, 9, "resource:") == 0 && name.size() > 9)
    return {name, name.substr(9), std::string()};
  if (name.compare(0, 4, kAppLockPrefix) == 0 && name.size() > 4) return AppLock(name.substr(4));
  for (const KnownLock& lock : KnownLocks({}))
    if (lock.label == name) return lock;
  throw UsageError("unknown lock '" + name +
                   "' (expected registered-apps, missing-comps, prefs, app:APPID or "
                   "resource:NAME)");
}

int ListLocks(const std::vector<std::string>& appIDs) {
  for (const KnownLock& lock : KnownLocks(appIDs)) {
    const bool held = SemaphoreExists(lock.resource);
    const bool marked = !lock.marker.empty() && FileSystemUtils::DoesPathExist(lock.marker);
    std::cout << lock.label << "\n  resource:  " << lock.resource
              << "\n  semaphore: " << SemaphoreFile(lock.resource) << (held ? " (held)" : " (free)")
              << "\n";
    if (!lock.marker.empty())
      std::cout << "  marker:    " << lock.marker << (marked ? " (present)" : " (absent)") << "\n";
  }
  return kExitOK;
}

// Removes the semaphore whoever created it, and for an application also its workflow marker.
int BreakLocks(const std::vector<std::string>& names) {
  std::vector<KnownLock> locks;
  for (const std::string& name : names) locks.push_back(ResolveLock(name));
  bool brokeAll = true;
  for (const KnownLock& lock : locks) {
    bool broke = false;
    if (SemaphoreExists(lock.resource)) {
      esd::ResourceLocker locker(lock.resource, 0);
      if (locker.Unlock(true)) {
        std::cout << "broke " << lock.label << ": removed " << SemaphoreFile(lock.resource) << "\n";
        broke = true;
      } else {
        std::cerr << "rozctl: cannot remove " << SemaphoreFile(lock.resource) << "\n";
      }
    }
    if (!lock.marker.empty() && FileSystemUtils::DoesPathExist(lock.marker)) {
      if (VantuUpdaterUtils::VantuUpdaterNotifyWorkflowLocker::DeleteIPCLockFile(lock.resource)) {
        std::cout << "broke " << lock.label << ": removed " << lock.marker << "\n";
        broke = true;
      } else {
        std::cerr << "rozctl: cannot remove " << lock.marker << "\n";
      }
    }
    if (!broke) std::cout << lock.label << " is not held\n";
    brokeAll = brokeAll && broke;
  }
  return brokeAll ? kExitOK : kExitFailed;
}

int RunLocks(const std::vector<std::string>& args) {
  const CommandLine line(args, {}, {"--break"});
  if (line.Has("--break")) {
    line.ExpectPositional(0, 0);
    return BreakLocks({line.Value("--break", "")});
  }
  return ListLocks(line.Positional());
}

int RunBreakLock(const std::vector<std::string>& args) {
  const CommandLine line(args, {}, {});
  line.ExpectPositional(1, static_cast<size_t>(-1));
  return BreakLocks(line.Positional());
}

}  // namespace

const std::vector<Command>& LockCommands() {
  static const std::vector<Command> commands = {
      {"locks", "locks [APPID...] [--break LOCK]", "show the inter-process locks and markers",
       "Lists the locks the library and the updater take: the registered-applications store\n"
       "(registered-apps), the missing-components store (missing-comps), the preferences\n"
       "(prefs), and the notification workflow of each application (app:APPID) that is\n"
       "registered, has a workflow marker, or is named on the command line. For each it shows\n"
       "the resource name, the semaphore in /dev/shm that is the lock, whether it is held, and\n"
       "for an application whether its workflow marker is present. The semaphores are named\n"
       "after the resources, so they are not moved by --root; the stores' resources are their\n"
       "paths below DIR.\n"
       "\n"
       "  --break LOCK   the same as 'rozctl break-lock LOCK'\n"
       "\n"
       "Exit status: 0 when the list was shown.",
       RunLocks},
      {"break-lock", "break-lock LOCK...", "remove a lock left behind by a crashed process",
       "Removes the semaphore of each LOCK whoever created it, and for app:APPID also the\n"
       "application's workflow marker, which otherwise makes every availability request answer\n"
       "kROZResultAnswerPending. LOCK is registered-apps, missing-comps, prefs, app:APPID, or\n"
       "resource:NAME for any resource name. Break a lock only when its holder has died: a\n"
       "live holder loses its exclusion and two processes may then write the same file.\n"
       "\n"
       "Exit status: 0 when every LOCK was held and has been broken, 1 when one was not held or\n"
       "could not be removed.",
       RunBreakLock},
  };
  return commands;
}

}  // namespace rozctl
