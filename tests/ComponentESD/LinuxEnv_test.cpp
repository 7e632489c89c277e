// The real Env where no other test reaches it (detached starts, the shell, the session bus, the
// home folder), starting programs by path, and the system's name and version.
#include "xplat/Env.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "support/UpdaterSandbox.h"
#include "xplat/ScopedEnv.h"
#include "xplat/SystemUtils.h"

namespace {

namespace fs = std::filesystem;
using esd::Env;
using esd::SystemUtils::LaunchPath;
using namespace testing_support;
using EnvList = std::vector<std::pair<std::string, std::string>>;

constexpr char kBusPath[] = "/org/esd/DistributedNotificationCenter";
constexpr char kBusInterface[] = "org.esd.DistributedNotificationCenter";

// An executable without an interpreter line, which only a shell runs; it creates `marker`.
void WriteShellFragment(const std::string& path, const std::string& marker) {
  WriteFile(path, "touch \"" + marker + "\"\n");
  chmod(path.c_str(), 0755);
}

bool PostSignal(const std::vector<std::string>& arguments = {}, const char* path = kBusPath) {
  return Env::Platform()->PostSessionBusSignal(path, kBusInterface, "Notification", arguments);
}

// A detached start runs the program outside the caller's session; the shell gets the caller's
// environment plus the given pairs and none of the caller's other descriptors (close-on-exec or
// not). (What cannot be executed is the shell-quoting test's, what a detached start hands on
// the launch tests'.)
TEST(LinuxEnvTest, StartsGetTheGivenEnvironmentAndNoInheritedDescriptor) {
  TempDir temp;
  FakeUpdaterBundle bundle(temp / "Fake.app");
  const int leaked = open(temp.path().c_str(), O_RDONLY | O_DIRECTORY);  // no close-on-exec
  ASSERT_GT(leaked, 2);
  const std::string program = bundle.programPath();
  ASSERT_TRUE(Env::Platform()->StartDetachedProcess(program, {program}, {}));
  const auto reports = bundle.WaitForReports(1);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_NE(reports[0].sessionId, getsid(0));
  EXPECT_TRUE(bundle.Stop());
  const std::string check = "test \"$LINUX_ENV_TEST_MARKER\" = 'handed on' && ! test -e " +
                            std::string("/proc/self/fd/") + std::to_string(leaked) + " && exit 3";
  const int status =  // as system() gives it
      Env::Platform()->RunShellCommand(check, {{"LINUX_ENV_TEST_MARKER", "handed on"}});
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3);
  EXPECT_EQ(std::getenv("LINUX_ENV_TEST_MARKER"), nullptr);
  close(leaked);
}

// Text the bus would reject is refused here rather than ending the process; with no bus, or a
// socket that never answers, posting fails within a bounded wait instead of hanging or starting
// a bus. (A signal that goes out reaches the reference updater in its end-to-end test.)
TEST(LinuxEnvTest, SignalThatCannotGoOutFailsQuickly) {
  {
    PrivateSessionBus bus;
    ASSERT_TRUE(PostSignal({"fine", "ü"}));
    EXPECT_FALSE(PostSignal({"bad \xff text"}));
    EXPECT_FALSE(PostSignal({"x"}, "no/slash"));
  }
  TempDir temp;
  const std::string socketPath = temp / "silent";  // the kernel accepts, nobody speaks
  const int listening = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(listening, 0);
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  socketPath.copy(name.sun_path, sizeof name.sun_path - 1);
  ASSERT_EQ(bind(listening, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  ASSERT_EQ(listen(listening, 4), 0);
  for (const std::string& address : {std::string(), "unix:path=" + socketPath}) {
    const pid_t child = StartChild([&] {  // exits 1 when it held; its environment ends with it
      address.empty() ? unsetenv("DBUS_SESSION_BUS_ADDRESS")
                      : setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
      setenv("XDG_RUNTIME_DIR", temp.path().c_str(), 1);
      setenv("DISPLAY", ":99", 1);
      const auto start = std::chrono::steady_clock::now();
      return !PostSignal() && std::chrono::steady_clock::now() - start < std::chrono::seconds(10);
    });
    EXPECT_EQ(1, WaitChild(child)) << address;
  }
  close(listening);
}

// The home folder is $HOME, or the password database's entry when $HOME is unset or empty.
TEST(LinuxEnvTest, HomeFallsBackToPasswordDatabase) {
  for (const char* value : {"/some/home", "", static_cast<const char*>(nullptr)}) {
    const pid_t child = StartChild([value] {  // exits 1 when it held
      value ? setenv("HOME", value, 1) : unsetenv("HOME");
      std::string home;
      return Env::Platform()->GetHomeDirectory(home) &&
             home == (value && *value ? value : getpwuid(geteuid())->pw_dir);
    });
    EXPECT_EQ(1, WaitChild(child)) << (value ? value : "unset");
  }
}

class LaunchPathTest : public ::testing::Test {
 protected:
  LaunchPathTest() : mScope(&mEnv) {}
  TempDir mTemp;
  TestEnv mEnv;
  esd::ScopedEnv mScope;
};

// A bundle (XML or binary Info.plist) is started by its program, and an executable that is no
// bundle as it is, with no shell. (What the program is handed is the updater launch tests'.)
TEST_F(LaunchPathTest, BundleOrExecutableStartsWithoutAShell) {
  for (int kind = 0; kind < 3; ++kind) {  // XML bundle, binary bundle, the program itself
    SCOPED_TRACE(kind);
    FakeUpdaterBundle::Options options;
    options.programName = "Some Program";
    options.binaryInfoPlist = kind == 1;
    FakeUpdaterBundle bundle(mTemp / ("B" + std::to_string(kind) + ".app"), options);
    EnvList env = {{"LAUNCH_TEST", "it's \"quoted\""}};
    ASSERT_TRUE(LaunchPath(kind == 2 ? bundle.programPath() : bundle.path(), env));
    const auto reports = bundle.WaitForReports(1);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].environment.at("LAUNCH_TEST"), "it's \"quoted\"");
    EXPECT_TRUE(mEnv.ShellCommands().empty());
    EXPECT_TRUE(bundle.Stop());
  }
}

// The shell gets the path single-quoted, every single quote escaped: a path that exists but
// cannot be executed directly (its detached start fails, never running a shell of its own) runs
// in the background, as does a bundle whose program cannot be started or whose Info.plist does
// not parse; a path that does not exist runs in the foreground and its status decides, so
// "/x/Missing Dir/prog" never runs an executable "/x/Missing" with an argument.
TEST_F(LaunchPathTest, ShellFallbackQuotesThePath) {
  FakeUpdaterBundle stuck(mTemp / "Stuck.app"), unreadable(mTemp / "Unreadable.app");
  chmod(stuck.programPath().c_str(), 0644);
  WriteFile(unreadable.path() + "/Contents/Info.plist", "<plist><dict><key>");
  fs::create_directory(mTemp / "it's here");
  fs::create_directory(mTemp / "a'b");
  WriteShellFragment(mTemp / "it's here/start me", mTemp / "ran");
  WriteShellFragment(mTemp / "a'b/x'", mTemp / "late");
  WriteShellFragment(mTemp / "Missing", mTemp / "split");
  const std::string base = "'" + mTemp.path();
  const struct {
    std::string path;
    bool started;
    std::string command;
    std::string marker;
  } cases[] = {
      {mTemp / "Missing Dir/prog", false, base + "/Missing Dir/prog'", mTemp / "split"},
      {mTemp / "it's here/start me", true, base + "/it'\\''s here/start me' &", mTemp / "ran"},
      {mTemp / "a'b/x'", true, base + "/a'\\''b/x'\\''' &", mTemp / "late"},
      {stuck.path(), true, base + "/Stuck.app' &", ""},
      {unreadable.path(), true, base + "/Unreadable.app' &", ""},
  };
  EnvList env;
  for (const auto& c : cases) {
    EXPECT_EQ(LaunchPath(c.path, env), c.started) << c.path;
    EXPECT_EQ(mEnv.ShellCommands().back(), c.command);
    if (c.marker.empty()) continue;
    const bool ran = WaitUntil([&] { return fs::exists(c.marker); }, c.started ? 10000 : 100);
    EXPECT_EQ(ran, c.started) << c.marker;
  }
}

// The kernel release gives the version; the digits of a number in a base are read as a decimal
// number (0x1039 gives 1039), a digit above 9 carries, and what cannot be converted comes back
// as it was.
TEST(SystemUtilsTest, PlatformNameVersionAndBaseConversion) {
  EXPECT_EQ(esd::SystemUtils::GetOSPlatform(), "Linux");
  TestEnv env;
  esd::ScopedEnv scope(&env);
  const std::pair<std::optional<std::string>, std::string> cases[] = {
      {"6.1.0-18-amd64", "6.1.0"}, {"5.15", "5.15.0"},   {"4", "4.0.0"},
      {"5.15-rc2", "5.15.0"},      {"6.1.0.7", "6.1.0"}, {"10.04.09", "10.4.9"},
      {"abc", ""},                 {"99999999999999999999.1", ""},
      {std::nullopt, ""},
  };
  for (const auto& [release, expected] : cases) {
    SCOPED_TRACE(release.value_or("<unreadable>"));
    env.SetKernelRelease(release);
    EXPECT_EQ(esd::SystemUtils::GetOSPlatformVersion(), expected);
  }
  const long kBases[][3] = {{0x1039, 16, 1039}, {0x1B, 16, 21}, {5, 2, 101},
                            {-7, 16, -7},       {12, 1, 12},     {LONG_MAX, 2, LONG_MAX}};
  for (const auto& [value, base, decimal] : kBases)
    EXPECT_EQ(esd::SystemUtils::ConvertBase(value, base), decimal) << value << " " << base;
}

}  // namespace
