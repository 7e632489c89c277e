// The real Env where no other test reaches it: detached starts and the shell, the session bus,
// the home folder and the substitution machinery. (The process table, groups and access are used
// for real by the launch and multi-user tests.)
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
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

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

// A detached start runs the program outside the caller's session; the shell gets the caller's
// environment plus the given pairs and none of the caller's other descriptors (close-on-exec or
// not). What cannot be executed is a failure, never a shell run. (What a detached start hands
// on is the launch tests' business.)
TEST(LinuxEnvTest, StartsGetTheGivenEnvironmentAndNoInheritedDescriptor) {
  TempDir temp;
  testing_support::FakeUpdaterBundle bundle(temp / "Fake.app");
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

  WriteFile(temp / "plain", "echo never\n");
  chmod((temp / "plain").c_str(), 0644);
  WriteFile(temp / "no-interpreter-line", "touch '" + (temp / "ran") + "'\n");
  chmod((temp / "no-interpreter-line").c_str(), 0755);
  for (const std::string& path :
       {temp / "missing", temp / "plain", temp / "no-interpreter-line", temp.path()})
    EXPECT_FALSE(Env::Platform()->StartDetachedProcess(path, {path}, {})) << path;
  EXPECT_FALSE(fs::exists(temp / "ran"));
}

// Text the bus would reject is refused here rather than ending the process. (A signal that goes
// out reaches the reference updater in its end-to-end test.)
TEST(LinuxEnvTest, SignalTheBusWouldRejectIsRefused) {
  testing_support::PrivateSessionBus bus;
  ASSERT_TRUE(PostSignal({"fine", "ü"}));
  EXPECT_FALSE(PostSignal({"bad \xff text"}));
  EXPECT_FALSE(PostSignal({"x"}, "no/slash"));
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
