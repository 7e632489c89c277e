#include "support/UpdaterSandbox.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace testing_support {

namespace {

// Tells the fake updater to end right after it reported.
const char kExitVariable[] = "FAKE_UPDATER_EXIT";

// One folder per test process, removed when the process ends.
const std::string& ProcessBaseFolder() {
  static TempDir folder;
  return folder.path();
}

}  // namespace

UpdaterSandbox::UpdaterSandbox()
    : mBase(ProcessBaseFolder()),
      mRoot(mBase + "/root"),
      mHome(mBase + "/home"),
      mRuntimeDir(mBase + "/runtime"),
      mScope(&mEnv) {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(mBase, ignored)) fs::remove_all(entry, ignored);
  fs::create_directories(mRoot);
  fs::create_directories(mHome);
  fs::create_directories(mRuntimeDir);
  fs::permissions(mRuntimeDir, fs::perms::owner_all);
  fs::create_directories(UserDataDir());

  mEnv.SetRoot(mRoot);
  mEnv.SetHome(mHome);
  mEnv.SetVariable("XDG_RUNTIME_DIR", mRuntimeDir);
  // A refused runtime folder leads to the private temporary folder, which stays inside too.
  mEnv.SetVariable("TMPDIR", mBase + "/tmp");
  mEnv.ShowOnlyOwnProcesses();
  KeepUpdaterRunning(false);
}

UpdaterSandbox::~UpdaterSandbox() {
  mUpdater.reset();
  ::unsetenv(kExitVariable);
}

std::string UpdaterSandbox::AllUsersDataDir() const { return mRoot + "/var/lib/Vantu/Updater5"; }
std::string UpdaterSandbox::UserDataDir() const { return mHome + "/.local/share/Vantu/Updater5"; }
std::string UpdaterSandbox::RegistryFile() const {
  return AllUsersDataDir() + "/VantuESDGlobalApps.xml";
}
std::string UpdaterSandbox::MissingCompsFile() const {
  return UserDataDir() + "/VantuMissingComps.xml";
}
std::string UpdaterSandbox::CacheDataDir() const { return UserDataDir() + "/Data"; }
std::string UpdaterSandbox::PolicyFile() const {
  return mRoot + "/etc/com.vantu.VantuUpdater.Admin.plist";
}
std::string UpdaterSandbox::MarkerFile(const std::string& appID) const {
  return mRuntimeDir + "/Updater5/locked/lock." + appID;
}
std::string UpdaterSandbox::UpdaterBundle() const {
  return FakeUpdaterBundle::InstalledPath(mRoot);
}

void UpdaterSandbox::InstallUpdater() {
  mUpdater = std::make_unique<FakeUpdaterBundle>(UpdaterBundle());
}

void UpdaterSandbox::RemoveUpdater() {
  mUpdater.reset();
  std::error_code ignored;
  fs::remove_all(UpdaterBundle(), ignored);
}

void UpdaterSandbox::KeepUpdaterRunning(bool keep) {
  if (keep)
    ::unsetenv(kExitVariable);
  else
    ::setenv(kExitVariable, "0", 1);
}

bool UpdaterSandbox::StopUpdaters() { return !mUpdater || mUpdater->Stop(); }

bool UpdaterSandbox::StartRunningUpdater() {
  if (!mUpdater) return false;
  const size_t before = Launches().size();
  KeepUpdaterRunning(true);
  const std::string program = mUpdater->programPath();
  const bool started = mEnv.StartDetachedProcess(program, {program}, {});
  KeepUpdaterRunning(false);
  if (!started || WaitForLaunches(before + 1).size() <= before) return false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!IsUpdaterRunning()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

bool UpdaterSandbox::IsUpdaterRunning() {
  std::vector<pid_t> pids;
  if (!mEnv.ListProcessIds(pids)) return false;
  const std::string prefix = UpdaterBundle() + "/";
  for (pid_t pid : pids) {
    esd::Env::ProcessInfo info;
    if (mEnv.GetProcessInfo(pid, info) &&
        info.executablePath.compare(0, prefix.size(), prefix) == 0)
      return true;
  }
  return false;
}

std::vector<FakeUpdaterReport> UpdaterSandbox::Launches() const {
  return mUpdater ? mUpdater->Reports() : std::vector<FakeUpdaterReport>();
}

std::vector<FakeUpdaterReport> UpdaterSandbox::WaitForLaunches(size_t count, int timeoutMs) const {
  return mUpdater ? mUpdater->WaitForReports(count, timeoutMs) : std::vector<FakeUpdaterReport>();
}

bool UpdaterSandbox::WaitUntilUpdatersEnd(int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (IsUpdaterRunning()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::vector<std::string> UpdaterSandbox::Snapshot() const {
  std::vector<std::string> paths;
  std::error_code ignored;
  for (auto it = fs::recursive_directory_iterator(mBase, ignored);
       it != fs::recursive_directory_iterator(); it.increment(ignored))
    paths.push_back(it->path().string() +
                    (it->is_regular_file(ignored)
                         ? " " + std::to_string(std::hash<std::string>()(ReadFile(it->path())))
                         : ""));
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace testing_support
