#include "SandboxEnv.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "xplat/FileSystemUtils.h"

namespace rozctl {

namespace {

// The per-user folder variables that would otherwise lead outside the sandbox.
const char* const kIgnoredVariables[] = {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"};

bool MakeFolder(const std::string& path, mode_t mode, std::string& error) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return true;
  if (!FileSystemUtils::CreateLocalDirectory(path) || chmod(path.c_str(), mode) != 0) {
    error = "cannot create " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace

SandboxEnv::SandboxEnv(const std::string& root)
    : esd::EnvWrapper(esd::Env::Platform()),
      mRoot(root),
      mHome(FileSystemUtils::AppendPathElement(root, "home")),
      mRuntime(FileSystemUtils::AppendPathElement(root, "run")),
      mTemp(FileSystemUtils::AppendPathElement(root, "tmp")) {}

bool SandboxEnv::Activate(std::string& error) {
  if (!MakeFolder(mRoot, 0755, error) || !MakeFolder(mHome, 0755, error) ||
      !MakeFolder(mRuntime, 0700, error) || !MakeFolder(mTemp, 0755, error))
    return false;
  setenv("HOME", mHome.c_str(), 1);
  setenv("XDG_RUNTIME_DIR", mRuntime.c_str(), 1);
  setenv("TMPDIR", mTemp.c_str(), 1);
  for (const char* name : kIgnoredVariables) unsetenv(name);
  return true;
}

bool SandboxEnv::GetHomeDirectory(std::string& path) {
  path = mHome;
  return true;
}

bool SandboxEnv::GetEnvironmentVariable(const std::string& name, std::string& value) {
  for (const char* ignored : kIgnoredVariables)
    if (name == ignored) return false;
  if (name == "HOME") {
    value = mHome;
    return true;
  }
  if (name == "XDG_RUNTIME_DIR") {
    value = mRuntime;
    return true;
  }
  if (name == "TMPDIR") {
    value = mTemp;
    return true;
  }
  return EnvWrapper::GetEnvironmentVariable(name, value);
}

bool SandboxEnv::ListProcessIds(std::vector<pid_t>& pids) {
  std::vector<pid_t> all;
  if (!EnvWrapper::ListProcessIds(all)) return false;
  const std::string prefix = mRoot + "/";
  auto below = [&prefix](const std::string& path) {
    return path.compare(0, prefix.size(), prefix) == 0;
  };
  pids.clear();
  for (pid_t pid : all) {
    ProcessInfo info;
    if (!GetProcessInfo(pid, info)) continue;
    // A script's program is its interpreter; the script is among its arguments.
    bool inside = below(info.executablePath);
    for (const std::string& argument : info.arguments) inside = inside || below(argument);
    if (inside || pid == GetCurrentProcessId()) pids.push_back(pid);
  }
  return true;
}

std::string AbsolutePath(const std::string& path) {
  std::string absolute = path;
  if (absolute.empty() || absolute[0] != '/') {
    char* cwd = getcwd(nullptr, 0);
    if (cwd == nullptr) return path;
    absolute = FileSystemUtils::AppendPathElement(cwd, path);
    std::free(cwd);
  }
  while (absolute.size() > 1 && absolute.back() == '/') absolute.pop_back();
  return absolute;
}

}  // namespace rozctl
