// Standard folders on Linux: the freedesktop base directories and user directories per user,
// the conventional system folders under the Env's root machine-wide.
#include "xplat/FolderFinder.h"

#include <sys/stat.h>

#include <cerrno>
#include <sstream>
#include <string>

#include "xplat/ESDAssert.h"
#include "xplat/Env.h"
#include "xplat/FileSystemUtils.h"

namespace esd {

namespace {

bool IsFolder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// A missing folder is created only when asked to; either way the answer is whether a folder
// is there now.
bool ProvideFolder(const std::string& path, bool create, std::string& out) {
  if (!IsFolder(path)) {
    if (!create || !FileSystemUtils::CreateLocalDirectory(path) || !IsFolder(path)) return false;
  }
  out = path;
  return true;
}

// The value of one of the standard variables, counted only when absolute: the base-directory
// convention says relative values are invalid and must be ignored.
bool GetAbsoluteVariable(Env* env, const char* name, std::string& value) {
  std::string text;
  if (!env->GetEnvironmentVariable(name, text) || text.empty() || text[0] != '/') return false;
  value = text;
  return true;
}

bool GetHomeRelative(Env* env, const char* relative, std::string& path) {
  std::string home;
  if (!env->GetHomeDirectory(home)) return false;
  path = FileSystemUtils::AppendPathElement(home, relative);
  return true;
}

bool GetBaseDirectory(Env* env, const char* variable, const char* homeRelative,
                      std::string& path) {
  return GetAbsoluteVariable(env, variable, path) || GetHomeRelative(env, homeRelative, path);
}

std::string GetTemporaryRoot(Env* env) {
  std::string tmp;
  return GetAbsoluteVariable(env, "TMPDIR", tmp) ? tmp : std::string("/tmp");
}

// Reads one assignment from user-dirs.dirs, a shell fragment written by xdg-user-dirs-update:
//   XDG_DOCUMENTS_DIR="$HOME/Documents"
// Values are double-quoted with backslash escapes and start with "$HOME/" or "/". The last
// assignment wins, as it would in a shell. False when the key is absent or its value does not
// give an absolute path.
bool ReadUserDirectory(Env* env, const std::string& key, std::string& path) {
  std::string configHome;
  if (!GetBaseDirectory(env, "XDG_CONFIG_HOME", ".config", configHome)) return false;
  // The file is a few lines; anything past 64 KiB is not a user-dirs file.
  std::string text;
  if (env->ReadFile(FileSystemUtils::AppendPathElement(configHome, "user-dirs.dirs"), 65536,
                    text) != 0)
    return false;
  std::istringstream in(text);
  std::string found;
  bool haveValue = false;
  std::string line;
  while (std::getline(in, line)) {
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') continue;
    if (line.compare(start, key.size() + 1, key + "=") != 0) continue;
    std::string raw = line.substr(start + key.size() + 1);
    std::string value;
    if (!raw.empty() && raw[0] == '"') {
      bool closed = false;
      for (size_t i = 1; i < raw.size(); ++i) {
        if (raw[i] == '\\' && i + 1 < raw.size()) {
          value += raw[++i];
        } else if (raw[i] == '"') {
          closed = true;
          break;
        } else {
          value += raw[i];
        }
      }
      if (!closed) continue;
    } else {
      value = raw.substr(0, raw.find_last_not_of(" \t\r") + 1);
    }
    found = value;
    haveValue = true;
  }
  if (!haveValue) return false;

  for (const char* prefix : {"${HOME}", "$HOME"}) {
    const std::string homeVariable(prefix);
    if (found.compare(0, homeVariable.size(), homeVariable) == 0 &&
        (found.size() == homeVariable.size() || found[homeVariable.size()] == '/')) {
      std::string home;
      if (!env->GetHomeDirectory(home)) return false;
      std::string rest = found.substr(homeVariable.size());
      path = rest.empty() || rest == "/" ? home : FileSystemUtils::AppendPathElement(home, rest);
      return true;
    }
  }
  if (found.empty() || found[0] != '/') return false;
  path = found;
  return true;
}

// ${TMPDIR:-/tmp}/TemporaryItems-<uid>: a private folder in a folder everybody can write to,
// so a folder that an attacker placed there first (a link, or one owned by someone else) must
// never be used.
bool GetPrivateTemporaryFolder(Env* env, bool create, std::string& out) {
  const uid_t user = env->GetEffectiveUserId();
  const std::string path = FileSystemUtils::AppendPathElement(
      GetTemporaryRoot(env), "TemporaryItems-" + std::to_string(user));
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) {
    if (errno != ENOENT || !create) return false;
    if (!IsFolder(GetTemporaryRoot(env)) &&
        !FileSystemUtils::CreateLocalDirectory(GetTemporaryRoot(env)))
      return false;
    if (!FileSystemUtils::CreateLocalDirectoryWithMode(path, 0700)) return false;
    if (lstat(path.c_str(), &info) != 0) return false;
  }
  if (!S_ISDIR(info.st_mode) || info.st_uid != user) return false;
  if ((info.st_mode & 07777) != 0700 && chmod(path.c_str(), 0700) != 0) return false;
  out = path;
  return true;
}

// $XDG_RUNTIME_DIR counts only as the base-directory rules define it: a folder of the caller's
// own with mode 0700. Anything else (another user's folder handed over by "sudo -E", a link
// to one, an open folder) could be changed under us by someone else.
bool GetRuntimeFolder(Env* env, const std::string& folder, bool create, std::string& out) {
  struct stat info;
  if (stat(folder.c_str(), &info) != 0) {
    if (errno != ENOENT || !create ||
        !FileSystemUtils::CreateLocalDirectoryWithMode(folder, 0700) ||
        stat(folder.c_str(), &info) != 0)
      return false;
  }
  if (!S_ISDIR(info.st_mode) || info.st_uid != env->GetEffectiveUserId() ||
      (info.st_mode & 07777) != 0700)
    return false;
  out = folder;
  return true;
}

bool GetMachineFolder(const char* relative, bool create, std::string& path) {
  const std::string root = Env::Default()->GetRootDirectory();
  if (root.empty()) return false;
  return ProvideFolder(FileSystemUtils::AppendPathElement(root, relative), create, path);
}

}  // namespace

bool FolderFinder::GetFolderPath(FolderID id, std::string& path, bool create) {
  if (id == kFileSystemRoot) {
    path = "/";
    return true;
  }
  if (static_cast<unsigned>(id) > 12) ESD_ASSERT_FAIL("!\"Invalid FolderID\"");

  Env* env = Env::Default();
  std::string folder;
  switch (id) {
    case kChewableItems:
      return ProvideFolder(GetTemporaryRoot(env), create, path);
    case kUserTemporaryItems:
      if (GetAbsoluteVariable(env, "XDG_RUNTIME_DIR", folder) &&
          GetRuntimeFolder(env, folder, create, path))
        return true;
      return GetPrivateTemporaryFolder(env, create, path);
    case kUserDesktop:
      if (!ReadUserDirectory(env, "XDG_DESKTOP_DIR", folder) &&
          !GetHomeRelative(env, "Desktop", folder))
        return false;
      return ProvideFolder(folder, create, path);
    case kUserDocuments:
      if (!ReadUserDirectory(env, "XDG_DOCUMENTS_DIR", folder) &&
          !GetHomeRelative(env, "Documents", folder))
        return false;
      return ProvideFolder(folder, create, path);
    case kUserCaches:
      return GetBaseDirectory(env, "XDG_CACHE_HOME", ".cache", folder) &&
             ProvideFolder(folder, create, path);
    case kUserPreferences:
      return GetBaseDirectory(env, "XDG_CONFIG_HOME", ".config", folder) &&
             ProvideFolder(folder, create, path);
    case kUserApplicationSupport:
      return GetBaseDirectory(env, "XDG_DATA_HOME", ".local/share", folder) &&
             ProvideFolder(folder, create, path);
    case kLocalApplicationSupport:
    case kAllUsersApplicationSupport:
      return GetMachineFolder("var/lib", create, path);
    case kLocalFonts:
      return GetMachineFolder("usr/local/share/fonts", create, path);
    case kSystemFolder:
      return GetMachineFolder("usr", create, path);
    case kUtilities:
      return GetMachineFolder("opt", create, path);
    case kFileSystemRoot:
      break;
  }
  return false;
}

bool FolderFinder::GetLocalPreferencesFolderPath(std::string& path) {
  return GetMachineFolder("etc", false, path);
}

bool FolderFinder::GetLocalApplicationsFolderPath(std::string& path) {
  return GetMachineFolder("Applications", false, path);
}

}  // namespace esd
