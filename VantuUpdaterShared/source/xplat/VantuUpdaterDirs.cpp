// The updater's folders and its installed location.
#include <cstdint>
#include <string>

#include "xplat/Env.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/FolderFinder.h"
#include "xplat/PathConversions.h"
#include "xplat/VantuUpdaterUtils.h"

namespace VantuUpdaterUtils {

namespace {

// Used for a new product folder when its parent's bits cannot be read.
constexpr uint16_t kFallbackFolderMode = 0774;

uint16_t GetFolderModeOr(const std::string& folder, uint16_t fallback) {
  uint16_t mode = 0;
  return FileSystemUtils::GetFilePermission(folder, mode) ? mode : fallback;
}

// Per-user folders are the user's alone: the inherited bits are kept within owner-only access.
constexpr uint16_t kPrivateFolderMode = 0700;

// Appends `name` to `parent`, creating the folder when it is missing. A new folder is given
// the restricted permission, or, per user, the parent's bits within owner-only access (made
// with those bits, never widened by the parent or narrowed by the umask); an existing one is
// left exactly as it is, so an administrator's choice of permissions survives.
bool ProvideProductFolder(const std::string& parent, const char* name, bool restricted,
                          std::string& folder) {
  folder = FileSystemUtils::AppendPathElement(parent, name);
  // Every store operation comes through here, so the parent's bits are read only when needed.
  if (FileSystemUtils::DoesPathExist(folder)) return true;
  if (!restricted) {
    const uint16_t inherited = GetFolderModeOr(parent, kFallbackFolderMode);
    return FileSystemUtils::CreateLocalDirectoryWithMode(
        folder, (inherited & kPrivateFolderMode) | kPrivateFolderMode);
  }
  return FileSystemUtils::CreateLocalDirectory(folder) &&
         FileSystemUtils::SetRestrictedFilePermission(folder);
}

// <standard folder>/Vantu/Updater5, each missing level created.
bool GetVantuUpdaterDir(esd::FolderFinder::FolderID id, std::string& path, bool restricted) {
  std::string base;
  if (!esd::FolderFinder::GetFolderPath(id, base, true)) return false;
  // Every store operation comes through here and the folders nearly always exist: one look at
  // the innermost spares a look at each level.
  const std::string existing = FileSystemUtils::AppendPathElement(
      FileSystemUtils::AppendPathElement(base, "Vantu"), kVantuUpdaterFolder);
  if (FileSystemUtils::DoesPathExist(existing)) {
    path = existing;
    return true;
  }
  std::string vantu;
  if (!ProvideProductFolder(base, "Vantu", restricted, vantu)) return false;
  std::string updater;
  if (!ProvideProductFolder(vantu, kVantuUpdaterFolder, restricted, updater)) return false;
  path = updater;
  return true;
}

}  // namespace

std::string GetStartupModeName(ROZStartupMode mode) {
  switch (mode) {
    case kManual:
      return "Manual";
    case kScheduled:
      return "Scheduled";
  }
  return std::string();
}

bool GetVantuUpdaterAllUserDataDir(std::string& path) {
  return GetVantuUpdaterDir(esd::FolderFinder::kLocalApplicationSupport, path, true);
}

bool GetVantuUpdaterDataDir(std::string& path) {
  const std::string overridden = kVantuUpdaterDataDir;
  if (!overridden.empty()) {
    path = overridden;
    return true;
  }
  return GetVantuUpdaterDir(esd::FolderFinder::kUserApplicationSupport, path, false);
}

bool GetVantuUpdaterCacheDataDir(std::string& path) {
  std::string data;
  if (!GetVantuUpdaterDataDir(data)) return false;
  const std::string cache = FileSystemUtils::AppendPathElement(data, "Data");
  if (!FileSystemUtils::DoesPathExist(cache) &&
      !FileSystemUtils::CreateLocalDirectoryWithMode(cache, kPrivateFolderMode))
    return false;
  path = cache;
  return true;
}

bool GetUpdaterLocation(std::string& path) {
  std::string utilities;
  if (!esd::FolderFinder::GetFolderPath(esd::FolderFinder::kUtilities, utilities, false))
    return false;
  std::string location = utilities;
  for (const char* element : {"Vantu Utilities.localized", "Vantu Updater5", "Vantu Updater.app"})
    location = FileSystemUtils::AppendPathElement(location, element);
  path = location;
  return true;
}

bool GetUpdaterLocation(esd::FSRef& ref) {
  std::string path;
  if (!GetUpdaterLocation(path)) return false;
  esd::FSRef found;
  if (!esd::StdioPathToFSRef(path, found)) return false;
  if (!FileSystemUtils::DoesPathExist(path)) return false;
  ref = found;
  return true;
}

bool GetVantuUpdaterDirectory(std::string& path) {
  std::string program;
  if (!esd::Env::Default()->GetCurrentExecutablePath(program)) return false;
  const std::string folder = FileSystemUtils::GetParentPath(program);
  if (folder.empty()) return false;
  path = folder;
  return true;
}

}  // namespace VantuUpdaterUtils
