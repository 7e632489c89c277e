// Showing the inter-process locks and removing what older versions left. A lock is a write lock
// on a lock file, dropped by the kernel when its holder dies, so no lock outlives a crash. Older
// versions locked with named semaphores in /dev/shm, which a crashed holder left behind; those,
// and workflow markers a crashed updater left, are what break-lock is for.
#include <dirent.h>
#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
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
#include "xplat/SearchResult.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"
#include "xplat/XMLDocumentNode.h"

namespace rozctl {

namespace {

// The preferences file's lock, shared by the library and the updater in every process.
const char kPrefsLockResource[] = "VantuUpdater";
const char kMarkerPrefix[] = "lock.";
const char kAppLockPrefix[] = "app:";

// One lock rozctl knows about: the name a person types, the resource the library locks and,
// for an application's notification workflow, the marker file that also counts as the lock.
struct KnownLock {
  std::string label;
  std::string resource;
  std::string marker;
};

// Where an older version's semaphore for the resource shows, and whether one is there.
std::string SemaphoreFile(const std::string& resource) {
  return "/dev/shm/sem." + esd::ResourceLocker::GetSemaphoreName(resource).substr(1);
}

bool SemaphoreExists(const std::string& resource) {
  struct stat info {};
  return ::lstat(SemaphoreFile(resource).c_str(), &info) == 0;
}

std::string LockFile(const std::string& resource) {
  std::string path;
  return esd::ResourceLocker::GetLockFilePath(resource, path, false) ? path : std::string();
}

bool IsNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// The processes whose open file holds the write lock on the lock file. The kernel reports no
// process for a lock owned by an open file description, so the holders are found through each
// process's descriptors: the one open on the lock file whose fdinfo lists a WRITE lock. This
// reads the kernel's own record, so it is never stale and costs the lock itself nothing.
// Processes of other users are visible to root only.
std::vector<pid_t> LockHolders(const struct stat& lockFile) {
  std::vector<pid_t> holders;
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) return holders;
  while (const dirent* process = ::readdir(proc)) {
    const std::string pid = process->d_name;
    if (!IsNumber(pid)) continue;
    const std::string fdFolder = "/proc/" + pid + "/fd";
    DIR* fds = ::opendir(fdFolder.c_str());
    if (fds == nullptr) continue;
    bool holds = false;
    while (const dirent* fd = ::readdir(fds)) {
      struct stat info {};
      if (holds || !IsNumber(fd->d_name) ||
          ::stat((fdFolder + "/" + fd->d_name).c_str(), &info) != 0 ||
          info.st_dev != lockFile.st_dev || info.st_ino != lockFile.st_ino)
        continue;
      std::ifstream fdinfo("/proc/" + pid + "/fdinfo/" + fd->d_name);
      for (std::string line; std::getline(fdinfo, line);)
        holds = holds || (line.compare(0, 5, "lock:") == 0 && line.find(" WRITE ") != line.npos);
    }
    ::closedir(fds);
    if (holds) holders.push_back(static_cast<pid_t>(std::stol(pid)));
  }
  ::closedir(proc);
  return holders;
}

// The state of a lock file in words: free, held (by whom), missing or unreadable. Opens the file
// for reading only and takes nothing, so that looking creates and disturbs nothing.
std::string DescribeLockFile(const std::string& path) {
  if (path.empty()) return "(no folder for it)";
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) {
    return errno == ENOENT ? "(not created yet: free)"
                           : std::string("(cannot be read: ") + std::strerror(errno) + ")";
  }
  struct stat info {};
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  range.l_len = 1;
  const bool looked = ::fstat(fd, &info) == 0 && ::fcntl(fd, F_OFD_GETLK, &range) == 0;
  ::close(fd);
  if (!looked) return "(cannot be read)";
  if (range.l_type == F_UNLCK) return "(free)";
  std::string text = "(held by ";
  const std::vector<pid_t> holders = LockHolders(info);
  if (holders.empty()) return text + "a process this user cannot see)";
  for (size_t i = 0; i < holders.size(); ++i) {
    std::error_code error;
    const std::string pid = std::to_string(holders[i]);
    const std::string program = std::filesystem::read_symlink("/proc/" + pid + "/exe", error);
    text += (i ? ", process " : "process ") + pid + (program.empty() ? "" : " " + program);
  }
  return text + ")";
}

// The registered identifiers read straight from the file, without the store's lock: listing
// locks must work while a live holder keeps the store, and for users outside the update group,
// who cannot take its lock. Saves replace the file whole, so an unlocked read sees one complete
// version.
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
    const std::string lockFile = LockFile(lock.resource);
    const bool marked = !lock.marker.empty() && FileSystemUtils::DoesPathExist(lock.marker);
    std::cout << lock.label << "\n  resource:  " << lock.resource << "\n  lock file: " << lockFile
              << (lockFile.empty() ? "" : " ") << DescribeLockFile(lockFile) << "\n";
    if (SemaphoreExists(lock.resource))
      std::cout << "  semaphore: " << SemaphoreFile(lock.resource) << " (left by an older version)\n";
    if (!lock.marker.empty())
      std::cout << "  marker:    " << lock.marker << (marked ? " (present)" : " (absent)") << "\n";
  }
  return kExitOK;
}

// Removes an older version's semaphore and the lock file, whoever made them, and for an
// application also its workflow marker. A lock file is made again by the next locker; removing
// one that a live process holds ends that process's exclusion, so it is said.
int BreakLocks(const std::vector<std::string>& names) {
  std::vector<KnownLock> locks;
  for (const std::string& name : names) locks.push_back(ResolveLock(name));
  bool brokeAll = true;
  for (const KnownLock& lock : locks) {
    bool broke = false;
    if (SemaphoreExists(lock.resource)) {
      if (::sem_unlink(esd::ResourceLocker::GetSemaphoreName(lock.resource).c_str()) == 0) {
        std::cout << "broke " << lock.label << ": removed " << SemaphoreFile(lock.resource) << "\n";
        broke = true;
      } else {
        std::cerr << "rozctl: cannot remove " << SemaphoreFile(lock.resource) << "\n";
      }
    }
    const std::string lockFile = LockFile(lock.resource);
    struct stat info {};
    if (!lockFile.empty() && ::lstat(lockFile.c_str(), &info) == 0) {
      const std::string state = DescribeLockFile(lockFile);
      if (esd::ResourceLocker(lock.resource, 0).Unlock(true)) {
        std::cout << "broke " << lock.label << ": removed " << lockFile
                  << (state.compare(0, 5, "(held") == 0 ? " " + state + ", no longer exclusive"
                                                         : std::string())
                  << "\n";
        broke = true;
      } else {
        std::cerr << "rozctl: cannot remove " << lockFile << "\n";
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
    if (!broke) std::cout << lock.label << ": nothing to remove\n";
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
       "the resource name, the lock file and whether it is free or which process holds it, a\n"
       "semaphore an older version left in /dev/shm, and for an application whether its\n"
       "workflow marker is present. The registered-applications store locks in its own folder,\n"
       "everything else in the user's runtime folder. A lock is dropped by the kernel when its\n"
       "holder dies, so a lock shown as held has a live holder. Looking creates nothing.\n"
       "\n"
       "  --break LOCK   the same as 'rozctl break-lock LOCK'\n"
       "\n"
       "Exit status: 0 when the list was shown.",
       RunLocks},
      {"break-lock", "break-lock LOCK...", "remove what older versions or a crash left behind",
       "For each LOCK removes the semaphore an older version left in /dev/shm and the lock\n"
       "file, whoever made them, and for app:APPID also the application's workflow marker,\n"
       "which a crashed updater leaves and which otherwise makes every availability request\n"
       "answer kROZResultAnswerPending. LOCK is registered-apps, missing-comps, prefs,\n"
       "app:APPID, or resource:NAME for any resource name. A lock whose holder died is free\n"
       "already; removing the lock file of a live holder ends its exclusion, and two\n"
       "processes may then write the same file.\n"
       "\n"
       "Exit status: 0 when there was something to remove for every LOCK and it is removed, 1\n"
       "otherwise.",
       RunBreakLock},
  };
  return commands;
}

}  // namespace rozctl
