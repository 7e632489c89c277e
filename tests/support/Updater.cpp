#include "support/FakeUpdaterBundle.h"
#include "support/UpdaterSandbox.h"

#include <plist/plist.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

#include "support/ChildProcess.h"
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

// Info.plist in the form the options ask for (XML or binary), made by the same library that
// reads it.
std::string InfoPlist(const FakeUpdaterBundle::Options& options) {
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, "CFBundleExecutable", plist_new_string(options.programName.c_str()));
  plist_dict_set_item(dict, "CFBundlePackageType", plist_new_string("APPL"));
  plist_dict_set_item(dict, "CFBundleSignature", plist_new_string("ROZ5"));
  char* bytes = nullptr;
  uint32_t length = 0;
  (options.binaryInfoPlist ? plist_to_bin : plist_to_xml)(dict, &bytes, &length);
  plist_free(dict);
  if (!bytes) throw std::runtime_error("cannot write a property list");
  std::string result(bytes, length);
  options.binaryInfoPlist ? plist_to_bin_free(bytes) : plist_to_xml_free(bytes);
  return result;
}

bool ParseReport(const std::string& path, FakeUpdaterReport& report) {
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    const size_t equals = line.find('=');
    const std::string key = line.substr(0, equals), value = line.substr(equals + 1);
    if (line.rfind("env:", 0) == 0 && equals != std::string::npos)
      report.environment[key.substr(4)] = value;
    else if (line.rfind("fd:", 0) == 0)
      report.descriptors.push_back(std::atoi(line.c_str() + 3));
    else if (key == "pid" || key == "sid")
      (key == "pid" ? report.pid : report.sessionId) = std::atoi(value.c_str());
    else if (key == "stdin")
      report.standardInput = value;
  }
  return report.pid > 0;
}

bool IsGoneOrZombie(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat;
  if (!std::getline(in, stat)) return true;
  const size_t close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z';
}

}  // namespace

FakeUpdaterBundle::FakeUpdaterBundle(const std::string& bundlePath)
    : FakeUpdaterBundle(bundlePath, Options()) {}

FakeUpdaterBundle::FakeUpdaterBundle(const std::string& bundlePath, const Options& options)
    : mPath(bundlePath), mContents(bundlePath + "/Contents") {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  fs::create_directories(mContents + "/MacOS");
  fs::create_directories(mContents + "/reports");
  WriteFile(mContents + "/Info.plist", InfoPlist(options));
  const std::string program = mContents + "/MacOS/" + options.programName;
  // A copy, not a link: the kernel reports a program by its resolved path, which must lie in
  // the bundle.
  fs::copy_file(FAKE_UPDATER_PROGRAM, program, fs::copy_options::overwrite_existing);
  fs::permissions(program, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                               fs::perms::others_read | fs::perms::others_exec);
}

FakeUpdaterBundle::~FakeUpdaterBundle() { Stop(); }

std::string FakeUpdaterBundle::InstalledPath(const std::string& root) {
  return root + "/opt/Vantu Utilities.localized/Vantu Updater5/Vantu Updater.app";
}

std::string FakeUpdaterBundle::programPath() const {
  for (const auto& entry : fs::directory_iterator(mContents + "/MacOS"))
    return entry.path().string();
  return std::string();
}

std::vector<FakeUpdaterReport> FakeUpdaterBundle::Reports() const {
  std::multimap<fs::file_time_type, FakeUpdaterReport> found;  // oldest first
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(mContents + "/reports", ignored)) {
    if (entry.path().extension() != ".report") continue;
    FakeUpdaterReport report;
    if (ParseReport(entry.path().string(), report))
      found.emplace(fs::last_write_time(entry.path(), ignored), report);
  }
  std::vector<FakeUpdaterReport> reports;
  for (auto& item : found) reports.push_back(item.second);
  return reports;
}

std::vector<FakeUpdaterReport> FakeUpdaterBundle::WaitForReports(size_t count,
                                                                 int timeoutMs) const {
  std::vector<FakeUpdaterReport> reports;
  WaitUntil([&] { return (reports = Reports()).size() >= count; }, timeoutMs);
  return reports;
}

int FakeUpdaterBundle::WaitForChildStatus(pid_t updater, int timeoutMs) const {
  const std::string path = mContents + "/reports/" + std::to_string(updater) + ".child";
  int status = -2;
  WaitUntil([&] { return static_cast<bool>(std::ifstream(path) >> status); }, timeoutMs);
  return status;
}

bool FakeUpdaterBundle::Stop(int timeoutMs) {
  const std::string stop = mContents + "/stop";
  WriteFile(stop, "");
  bool allEnded = true;
  for (const FakeUpdaterReport& report : Reports())
    allEnded = WaitForProcessEnd(report.pid, timeoutMs) && allEnded;
  std::error_code ignored;
  fs::remove(stop, ignored);
  return allEnded;
}

bool WaitForProcessEnd(pid_t pid, int timeoutMs) {
  return WaitUntil(
      [pid] {
        const pid_t reaped = waitpid(pid, nullptr, WNOHANG);
        return reaped == pid || (reaped < 0 && errno == ECHILD && IsGoneOrZombie(pid));
      },
      timeoutMs);
}

std::string UpdaterProbeProgram() { return UPDATER_PROBE_PROGRAM; }

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

bool UpdaterSandbox::StartRunningUpdater() {
  if (!mUpdater) return false;
  const size_t before = Launches().size();
  KeepUpdaterRunning(true);
  const std::string program = mUpdater->programPath();
  const bool started = mEnv.StartDetachedProcess(program, {program}, {});
  KeepUpdaterRunning(false);
  return started && WaitForLaunches(before + 1).size() > before &&
         WaitUntil([&] { return IsUpdaterRunning(); }, 10000);
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
  return WaitUntil([&] { return !IsUpdaterRunning(); }, timeoutMs);
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
