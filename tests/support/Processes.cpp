// What ChildProcess.h, MultiUser.h and UpdaterSandbox.h declare: children, programs, other
// users, the private session bus, the fake updater and the sandbox it is installed in.

#include <fcntl.h>
#include <grp.h>
#include <plist/plist.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <thread>

#include "support/ChildProcess.h"
#include "support/MultiUser.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "support/UpdaterSandbox.h"
#include "xplat/ScopedEnv.h"

namespace fs = std::filesystem;

namespace testing_support {

namespace {

const std::vector<UserIdentity>& Cast() {
  static const std::vector<UserIdentity> cast = {{0, 0, {0}},
                                                 {1000, 1000, {AdministratorsGroup()}},
                                                 {1001, 1001, {AdministratorsGroup()}},
                                                 {1002, 1002, {}},
                                                 {65534, 65534, {}}};
  return cast;
}

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

pid_t StartChild(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    int status = 99;
    try {
      status = body();
    } catch (...) {
    }
    _exit(status);
  }
  return pid;
}

int WaitChild(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs, int stepMicros) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(stepMicros));
  }
  return true;
}

Pipe::Pipe() {
  if (pipe(mFds) != 0) throw std::runtime_error("pipe failed");
}

Pipe::~Pipe() {
  close(mFds[0]);
  close(mFds[1]);
}

void Pipe::Signal() {
  const char byte = 1;
  if (write(mFds[1], &byte, 1) != 1) throw std::runtime_error("pipe write failed");
}

bool Pipe::Wait(int timeoutMs) {
  pollfd pfd{mFds[0], POLLIN, 0};
  char byte = 0;
  return poll(&pfd, 1, timeoutMs) == 1 && read(mFds[0], &byte, 1) == 1;
}

// The output goes to files rather than pipes, so nothing needs draining while the program runs.
ProgramResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  if (argv.empty()) throw std::invalid_argument("no program");
  TempDir outputs;
  const pid_t pid = StartChild([&] {
    const int in = open("/dev/null", O_RDONLY);
    const int out = open((outputs / "out").c_str(), O_WRONLY | O_CREAT, 0600);
    const int err = open((outputs / "err").c_str(), O_WRONLY | O_CREAT, 0600);
    if (dup2(in, STDIN_FILENO) < 0 || dup2(out, STDOUT_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0)
      return 126;
    for (const auto& variable : options.setVariables)
      setenv(variable.first.c_str(), variable.second.c_str(), 1);
    for (const std::string& name : options.unsetVariables) unsetenv(name.c_str());
    const gid_t root = 0;
    if (options.groups != RunOptions::Groups::kInherited &&
        setgroups(options.groups == RunOptions::Groups::kAdministrator ? 1 : 0, &root) != 0)
      return 125;
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    return 127;
  });
  ProgramResult result;
  int status = 0;
  if (WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, options.timeoutMs, 2000)) {
    if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  } else {
    kill(pid, SIGKILL);
    WaitChild(pid);
  }
  result.out = ReadFile(outputs / "out");
  result.err = ReadFile(outputs / "err");
  return result;
}

bool RunsAsRoot() { return ::geteuid() == 0; }

// ---- Other users

bool MakeFolder(const std::string& path, uid_t uid, gid_t gid, mode_t mode, std::string& why) {
  if ((::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) ||
      ::chown(path.c_str(), uid, gid) != 0 || ::chmod(path.c_str(), mode) != 0) {
    why = "folder " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

gid_t AdministratorsGroup() {
  const group* entry = ::getgrnam("sudo");
  return entry != nullptr ? entry->gr_gid : 27;
}

const UserIdentity& RootUser() { return Cast()[0]; }
const UserIdentity& AdministratorA() { return Cast()[1]; }
const UserIdentity& AdministratorB() { return Cast()[2]; }
const UserIdentity& OrdinaryUser() { return Cast()[3]; }
const UserIdentity& Attacker() { return Cast()[4]; }

int RunAs(const UserIdentity& who, const std::function<int()>& body) {
  return WaitChild(StartAs(who, body));
}

pid_t StartAs(const UserIdentity& who, const std::function<int()>& body) {
  return StartChild([&]() {
    // Groups first: once the user id is dropped they can no longer be changed.
    if (::setgroups(who.groups.size(), who.groups.data()) != 0 ||
        ::setresgid(who.gid, who.gid, who.gid) != 0 ||
        ::setresuid(who.uid, who.uid, who.uid) != 0) {
      return 100;
    }
    return body();
  });
}

int RunUnprivileged(const std::function<int()>& body) {
  return RunsAsRoot() ? RunAs(Attacker(), body) : WaitChild(StartChild(body));
}

pid_t MultiUserMachine::StartHost(const UserIdentity& who, const std::function<int()>& body) const {
  return StartAs(who, [&] {
    TestEnv env;
    env.SetRoot(Root());
    env.SetHome(HomeOf(who));
    env.SetVariable("XDG_RUNTIME_DIR", RuntimeDirOf(who));
    env.RecordLaunches(true, 0);
    esd::ScopedEnv scope(&env);
    return body();
  });
}

int MultiUserMachine::RunHost(const UserIdentity& who, const std::function<int()>& body) const {
  return WaitChild(StartHost(who, body));
}

std::string MultiUserMachine::HomeOf(const UserIdentity& who) const {
  return mBase + "/home/" + std::to_string(who.uid);
}

std::string MultiUserMachine::RuntimeDirOf(const UserIdentity& who) const {
  return mBase + "/run/" + std::to_string(who.uid);
}

bool MultiUserMachine::Enter(const std::string& folder, std::string& why) {
  if (!RunsAsRoot()) {
    why = "other users need a root test run";
    return false;
  }
  if (!EnterPrivateMountNamespace(why) || !UsePrivateSemaphores(why) ||
      !MountTmpfs(folder, "mode=0755", why)) {
    return false;
  }
  mBase = folder;
  for (const std::string& path :
       {Root(), Root() + "/var", Root() + "/var/lib", Root() + "/var/lib/Vantu", Root() + "/etc",
        Root() + "/opt", mBase + "/home", mBase + "/run"}) {
    if (!MakeFolder(path, 0, 0, 0755, why)) return false;
  }
  for (const UserIdentity& who : Cast()) {
    if (!MakeFolder(HomeOf(who), who.uid, who.gid, 0700, why) ||
        !MakeFolder(RuntimeDirOf(who), who.uid, who.gid, 0700, why)) {
      return false;
    }
  }
  return true;
}

bool MultiUserMachine::InstallAllUsersFolder(gid_t group, std::string& why) const {
  return MakeFolder(AllUsersDataDir(), 0, group, 02775, why);
}

int RunOnMachine(const std::function<int(const MultiUserMachine&)>& body) {
  TempDir folder;
  return WaitChild(StartChild([&]() {
    MultiUserMachine machine;
    std::string why;
    if (!machine.Enter(folder.path(), why)) {
      std::fprintf(stderr, "no multi-user machine: %s\n", why.c_str());
      return kMachineUnavailable;
    }
    return body(machine);
  }));
}

// ---- A session bus of the test's own

const char kAddressVariable[] = "DBUS_SESSION_BUS_ADDRESS";

PrivateSessionBus::PrivateSessionBus() {
  const std::string config = mTemp / "session.conf";
  const std::string socket = mTemp / "bus";
  WriteFile(config, "<busconfig><type>session</type><listen>unix:path=" + socket +
                        "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                        "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                        "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n");

  int fds[2];
  if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
  mDaemon = StartChild([&] {
    ::close(fds[0]);
    // The daemon's complaints about resource limits it may not raise are no test's business.
    const int devNull = ::open("/dev/null", O_WRONLY);
    if (devNull >= 0) ::dup2(devNull, STDERR_FILENO);
    const std::string printAddress = "--print-address=" + std::to_string(fds[1]);
    const std::string configFile = "--config-file=" + config;
    ::execlp("dbus-daemon", "dbus-daemon", configFile.c_str(), "--nofork", "--nopidfile",
             printAddress.c_str(), static_cast<char*>(nullptr));
    return 127;
  });
  ::close(fds[1]);
  // The daemon's first output line is its address; a daemon that fails closes the pipe.
  for (char c = 0; ::read(fds[0], &c, 1) == 1 && c != '\n';) mAddress.push_back(c);
  ::close(fds[0]);
  if (mAddress.empty()) {
    ::kill(mDaemon, SIGTERM);
    WaitChild(mDaemon);
    throw std::runtime_error("dbus-daemon did not start");
  }
  ::setenv(kAddressVariable, mAddress.c_str(), 1);
}

PrivateSessionBus::~PrivateSessionBus() {
  ::unsetenv(kAddressVariable);
  ::kill(mDaemon, SIGTERM);
  WaitChild(mDaemon);
}

// ---- The fake updater and the sandbox it is installed in

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
