// The real Env: the process table, detached starts, the shell, the session bus, groups and the
// substitution machinery that every other test relies on.
#include "xplat/Env.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/FakeUpdaterBundle.h"
#include "support/PrivateSessionBus.h"
#include "support/TempDir.h"
#include "xplat/EnvWrapper.h"
#include "xplat/ScopedEnv.h"

namespace {

namespace fs = std::filesystem;
using esd::Env;
using testing_support::TempDir;
using testing_support::WriteFile;

constexpr char kBusPath[] = "/org/esd/DistributedNotificationCenter";
constexpr char kBusInterface[] = "org.esd.DistributedNotificationCenter";

// Sets (or, with null, unsets) a process environment variable for one scope.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : mName(name) {
    if (const char* old = std::getenv(name)) mOld = old;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedVariable() { mOld ? setenv(mName.c_str(), mOld->c_str(), 1) : unsetenv(mName.c_str()); }

 private:
  std::string mName;
  std::optional<std::string> mOld;
};

class RootOnly : public esd::EnvWrapper {
 public:
  explicit RootOnly(std::string root) : EnvWrapper(Env::Default()), mRoot(std::move(root)) {}
  std::string GetRootDirectory() override { return mRoot; }

 private:
  std::string mRoot;
};

bool PostSignal(const std::vector<std::string>& arguments = {}, const char* path = kBusPath) {
  return Env::Platform()->PostSessionBusSignal(path, kBusInterface, "Notification", arguments);
}

// Scopes nest, each end restoring the Env before it; a wrapper forwards what it does not override.
TEST(EnvTest, ScopesNestAndWrappersForwardTheRest) {
  RootOnly outer("/outer"), inner("/inner");
  {
    esd::ScopedEnv outerScope(&outer);
    EXPECT_EQ(Env::Default()->GetCurrentProcessId(), getpid());
    { esd::ScopedEnv innerScope(&inner); }
    EXPECT_EQ(Env::Default()->GetRootDirectory(), "/outer");
  }
  EXPECT_EQ(Env::Default(), Env::Platform());
}

// The process table shows this process and a child with their parents and program, and a
// process that is gone is simply not there.
TEST(LinuxEnvTest, ProcessTableShowsLiveProcessesOnly) {
  Env* env = Env::Platform();
  Env::ProcessInfo info;
  ASSERT_TRUE(env->GetProcessInfo(getpid(), info));
  EXPECT_EQ(info.parentPid, getppid());
  EXPECT_EQ(info.executablePath, fs::read_symlink("/proc/self/exe").string());
  EXPECT_FALSE(info.arguments.empty());

  testing_support::Pipe ready, release;
  const pid_t child = testing_support::StartChild([&] {
    ready.Signal();
    return release.Wait() ? 0 : 1;
  });
  ASSERT_TRUE(ready.Wait());
  std::vector<pid_t> pids;
  ASSERT_TRUE(env->ListProcessIds(pids));
  EXPECT_TRUE(std::is_sorted(pids.begin(), pids.end()));
  EXPECT_TRUE(std::binary_search(pids.begin(), pids.end(), child));
  ASSERT_TRUE(env->GetProcessInfo(child, info));
  EXPECT_EQ(info.parentPid, getpid());
  release.Signal();
  EXPECT_EQ(testing_support::WaitChild(child), 0);
  EXPECT_FALSE(env->GetProcessInfo(child, info));
}

// A detached start runs the program outside the caller's session with the standard streams on
// /dev/null, the caller's environment plus the given pairs and none of the caller's other
// descriptors (close-on-exec or not); the shell gets the same. What cannot be executed is a
// failure, never a shell run. The caller's own environment does not change.
TEST(LinuxEnvTest, StartsGetTheGivenEnvironmentAndNoInheritedDescriptor) {
  TempDir temp;
  testing_support::FakeUpdaterBundle bundle(temp / "Fake.app");
  ScopedVariable inherited("LINUX_ENV_TEST_HOST", "host");
  const int leaked = open(temp.path().c_str(), O_RDONLY | O_DIRECTORY);  // no close-on-exec
  ASSERT_GT(leaked, 2);
  const Env::EnvironmentList added = {{"LINUX_ENV_TEST_MARKER", "handed on"},
                                      {"LINUX_ENV_TEST_HOST", "replaced"}};
  const std::string program = bundle.programPath();
  ASSERT_TRUE(Env::Platform()->StartDetachedProcess(program, {program}, added));
  const auto reports = bundle.WaitForReports(1);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_NE(reports[0].sessionId, getsid(0));
  EXPECT_EQ(reports[0].standardInput, "/dev/null");
  EXPECT_EQ(reports[0].environment.at("LINUX_ENV_TEST_MARKER"), "handed on");
  EXPECT_EQ(reports[0].environment.at("LINUX_ENV_TEST_HOST"), "replaced");
  EXPECT_TRUE(reports[0].descriptors.empty());
  EXPECT_TRUE(bundle.Stop());
  const std::string check = "test \"$LINUX_ENV_TEST_MARKER\" = 'handed on' && ! test -e /proc/self/fd/" +
                            std::to_string(leaked) + " && exit 3";
  const int status = Env::Platform()->RunShellCommand(check, added);  // as system() gives it
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3);
  EXPECT_STREQ(std::getenv("LINUX_ENV_TEST_HOST"), "host");
  EXPECT_EQ(std::getenv("LINUX_ENV_TEST_MARKER"), nullptr);
  close(leaked);

  WriteFile(temp / "plain", "echo never\n");
  chmod((temp / "plain").c_str(), 0644);
  WriteFile(temp / "no-interpreter-line", "touch '" + (temp / "ran") + "'\n");
  chmod((temp / "no-interpreter-line").c_str(), 0755);
  for (const std::string& path :
       {temp / "missing", temp / "plain", temp / "no-interpreter-line", temp.path()})
    EXPECT_FALSE(Env::Platform()->StartDetachedProcess(path, {path}, {})) << path;
  EXPECT_FALSE(fs::exists(temp / "ran"));
}

// A signal reaches a listener on the session bus with its arguments in order; text the bus would
// reject is refused here rather than ending the process.
TEST(LinuxEnvTest, SignalReachesSessionBusListener) {
  testing_support::PrivateSessionBus bus;
  testing_support::BusSignalListener listener(bus.address(), kBusInterface);
  ASSERT_TRUE(PostSignal({"first", "second ü"}));
  const auto signals = listener.WaitForSignals(1, 5000);
  ASSERT_EQ(signals.size(), 1u);
  EXPECT_EQ(signals[0].path, kBusPath);
  EXPECT_EQ(signals[0].member, "Notification");
  EXPECT_EQ(signals[0].arguments, (std::vector<std::string>{"first", "second ü"}));
  EXPECT_FALSE(PostSignal({"bad \xff text"}));
  EXPECT_FALSE(PostSignal({"x"}, "no/slash"));
  EXPECT_EQ(listener.WaitForSignals(2, 200).size(), 1u);
}

// With no bus, or a socket that never answers, posting fails within a bounded wait instead of
// hanging or starting a bus.
TEST(LinuxEnvTest, SignalWithoutReachableBusFailsQuickly) {
  TempDir temp;
  {
    ScopedVariable address("DBUS_SESSION_BUS_ADDRESS", nullptr);
    ScopedVariable runtime("XDG_RUNTIME_DIR", temp.path().c_str());
    ScopedVariable display("DISPLAY", ":99");
    EXPECT_FALSE(PostSignal());
  }
  const std::string socketPath = temp / "silent";  // the kernel accepts, nobody speaks
  const int listening = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(listening, 0);
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  socketPath.copy(name.sun_path, sizeof name.sun_path - 1);
  ASSERT_EQ(bind(listening, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  ASSERT_EQ(listen(listening, 4), 0);
  ScopedVariable variable("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + socketPath).c_str());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(PostSignal());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  close(listening);
}

// Groups are the supplementary list alone, with names from the group database; access is judged
// for the effective user, so root and an unprivileged user differ on a read-only folder.
TEST(LinuxEnvTest, GroupsAndAccessAreTheCallers) {
  Env* env = Env::Platform();
  std::vector<gid_t> groups, expected(static_cast<size_t>(getgroups(0, nullptr)));
  ASSERT_TRUE(env->GetSupplementaryGroups(groups));
  getgroups(static_cast<int>(expected.size()), expected.data());
  EXPECT_EQ(groups, expected);
  std::string name;
  ASSERT_TRUE(env->GetGroupName(0, name));
  EXPECT_EQ(name, "root");
  EXPECT_FALSE(env->GetGroupName(4000000000u, name));

  TempDir temp;
  const std::string folder = temp / "read-only";
  fs::create_directory(folder);
  chmod(temp.path().c_str(), 0755);
  chmod(folder.c_str(), 0555);
  EXPECT_TRUE(env->IsAccessible(folder, R_OK | X_OK));
  EXPECT_EQ(env->IsAccessible(folder, W_OK), geteuid() == 0);
  EXPECT_FALSE(env->IsAccessible(temp / "missing", R_OK));
  if (geteuid() != 0) return;
  EXPECT_EQ(testing_support::WaitChild(testing_support::StartChild([&] {
              if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
                return 100;
              std::vector<gid_t> none;
              if (!Env::Platform()->GetSupplementaryGroups(none) || !none.empty()) return 101;
              return Env::Platform()->IsAccessible(folder, W_OK) ? 1 : 0;
            })),
            0);
}

// The home folder is $HOME, or the password database's entry when $HOME is unset or empty.
TEST(LinuxEnvTest, HomeFallsBackToPasswordDatabase) {
  std::string home;
  for (const char* value : {"/some/home", "", static_cast<const char*>(nullptr)}) {
    ScopedVariable variable("HOME", value);
    ASSERT_TRUE(Env::Platform()->GetHomeDirectory(home));
    EXPECT_EQ(home, value && *value ? value : getpwuid(geteuid())->pw_dir);
  }
}

}  // namespace
