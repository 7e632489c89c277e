// Another local user against a host: a bundle posing as the updater, a runtime folder with a
// planted link, the user's own store, the private temporary folder taken first. Each test runs
// on a machine of its own (a private mount namespace) where the attacker is a real second user.
// The checks run in the machine's process; its exit status carries their verdict.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>

#include "LibraryTestFixture.h"
#include "support/ChildProcess.h"
#include "support/FakeUpdaterBundle.h"
#include "support/MultiUser.h"
#include "support/TestEnv.h"
#include "xplat/ScopedEnv.h"

namespace vantu_test {
namespace {

namespace fs = std::filesystem;
using testing_support::Attacker;
using testing_support::FakeUpdaterBundle;
using testing_support::MultiUserMachine;
using testing_support::UserIdentity;

const char kAppID[] = "com.example.Victim";

// A host of `who` on the machine: relocated root with the updater installed, an administrator,
// its own home and runtime folder, the machine's shared temporary folder, and a process table
// of the test's own processes.
struct Host {
  Host(const MultiUserMachine& machine, const UserIdentity& who) : scope(&env) {
    env.SetRoot(machine.Root());
    env.SetHome(machine.HomeOf(who));
    env.SetVariable("XDG_RUNTIME_DIR", machine.RuntimeDirOf(who));
    env.SetVariable("TMPDIR", TemporaryFolder(machine));
    env.SetGroups({"admin"});
    env.ShowOnlyOwnProcesses();
  }
  static std::string TemporaryFolder(const MultiUserMachine& machine) {
    return machine.base() + "/tmp";
  }

  testing_support::TestEnv env;
  esd::ScopedEnv scope;
};

// Runs `body` as root on a fresh machine with a shared sticky temporary folder, the all-users
// folder installed and the updater installed (its copies end right after reporting). True when
// the machine could be made and no check failed in it.
bool OnMachine(const std::function<void(const MultiUserMachine&, FakeUpdaterBundle&)>& body) {
  const int status = testing_support::RunOnMachine([&](const MultiUserMachine& machine) {
    std::string why;
    const std::string tmp = Host::TemporaryFolder(machine);
    if (!machine.InstallAllUsersFolder(testing_support::AdministratorsGroup(), why) ||
        ::mkdir(tmp.c_str(), 0700) != 0 || ::chmod(tmp.c_str(), 01777) != 0) {
      ADD_FAILURE() << "machine: " << why;
      return 1;
    }
    ::setenv("FAKE_UPDATER_EXIT", "0", 1);
    FakeUpdaterBundle updater(FakeUpdaterBundle::InstalledPath(machine.Root()));
    body(machine, updater);
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  if (status == testing_support::kMachineUnavailable) return false;
  EXPECT_EQ(0, status) << "-1: the machine's process died of a signal";
  return true;
}

// A binary property list of `depth` arrays, each holding the next.
std::string NestedBinaryPlist(uint32_t depth) {
  auto bigEndian = [](std::string& out, uint64_t value, int bytes) {
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8)
      out += static_cast<char>((value >> shift) & 0xFF);
  };
  std::string out = "bplist00";
  std::vector<uint64_t> offsets;
  for (uint32_t i = 0; i < depth; ++i) {
    offsets.push_back(out.size());
    out += static_cast<char>(i + 1 < depth ? 0xA1 : 0xA0);
    if (i + 1 < depth) bigEndian(out, i + 1, 4);
  }
  const uint64_t table = out.size();
  for (uint64_t offset : offsets) bigEndian(out, offset, 4);
  out += std::string(6, '\0') + '\x04' + '\x04';
  bigEndian(out, depth, 8);
  bigEndian(out, 0, 8);
  bigEndian(out, table, 8);
  return out;
}

int32_t RequestAvailability() {
  bool available = false;
  return ROZIsUpdateAvailable(kAppID, U("Victim"), U("/opt/Victim"), 1, &available, false);
}

int32_t RequestComponent() {
  ROZMissingComponent component{const_cast<char*>("Spelling"), const_cast<char*>("Dictionary"),
                                const_cast<char*>("1.0")};
  ROZMissingComponent* components[] = {&component};
  const ROZMissingComptList list{1, components};
  return ROZDownloadMissingComponents(kAppID, U("Victim"), U("/opt/Victim"), nullptr, &list,
                                      kROZDownloadMissingCompTypeDefault, false);
}

// A bundle of the attacker's making whose program runs as the attacker is not the updater,
// whatever its Info.plist says, and that Info.plist is never read: the plug-in action runs,
// a download starts the updater, the last unregistration starts the clean-up.
TEST(LocalUsersTest, BundlePosingAsTheUpdaterIsNotTheUpdater) {
  const struct {
    const char* name;
    std::function<std::string(const std::string& genuine)> infoPlist;
  } posers[] = {
      {"the genuine Info.plist", [](const std::string& genuine) { return genuine; }},
      {"a deeply nested binary Info.plist",
       [](const std::string&) { return NestedBinaryPlist(1000000); }},
  };
  for (const auto& poser : posers) {
    SCOPED_TRACE(poser.name);
    if (!OnMachine([&](const MultiUserMachine& machine, FakeUpdaterBundle& updater) {
          Host host(machine, testing_support::RootUser());
          const std::string bundle = machine.HomeOf(Attacker()) + "/Vantu Updater.app";
          const std::string program = bundle + "/Contents/MacOS/Vantu Updater";
          const std::string infoPlist =
              poser.infoPlist(testing_support::ReadFile(updater.path() + "/Contents/Info.plist"));
          ASSERT_EQ(0, testing_support::RunAs(Attacker(), [&] {
            fs::create_directories(bundle + "/Contents/MacOS");
            testing_support::WriteFile(bundle + "/Contents/Info.plist", infoPlist);
            return fs::copy_file("/bin/sleep", program) ? 0 : 1;
          }));
          const pid_t poserPid = testing_support::StartAs(Attacker(), [&] {
            ::execl(program.c_str(), program.c_str(), "60", static_cast<char*>(nullptr));
            return 127;
          });
          esd::Env::ProcessInfo info;
          for (int i = 0; i < 2000 && !(host.env.GetProcessInfo(poserPid, info) &&
                                        info.executablePath == program);
               ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
          ASSERT_EQ(info.executablePath, program);

          // Each call must find the updater copy of the call before gone.
          auto launched = [&](size_t count) {
            const auto reports = updater.WaitForReports(count);
            EXPECT_EQ(count, reports.size());
            if (reports.size() != count) return std::map<std::string, std::string>();
            EXPECT_TRUE(testing_support::WaitForProcessEnd(reports.back().pid));
            return reports.back().environment;
          };
          ASSERT_EQ(0, ROZRegisterApplication(kAppID, U("Victim"), U("/opt/Victim")));
          EXPECT_EQ(0, ROZDoPluginAction(kAppID));
          EXPECT_EQ(kAppID, launched(1)["doActionAppID"]);
          EXPECT_EQ(0, RequestComponent());
          EXPECT_EQ(1u, launched(2).count("RZ_LAUNCH_MODE"));
          EXPECT_EQ(0, ROZUnRegisterApplication(kAppID));
          EXPECT_EQ(1u, launched(3).count("RZ_LAUNCH_MODE"));
          ::kill(poserPid, SIGKILL);
          testing_support::WaitChild(poserPid);
        })) {
      GTEST_SKIP() << "needs a root test run";
    }
  }
}

// The workflow markers live only in folders of the host's own. A runtime folder of another user
// (a root host started with a user's environment) is refused, so a link planted there leads
// nowhere; when the private temporary folder is taken by another user too, the request cannot
// be marked and says so instead of reporting a pending answer for ever.
TEST(LocalUsersTest, MarkersStayOutOfFoldersAnotherUserControls) {
  const struct {
    const char* name;
    bool attackersRuntimeFolder;
    bool fallbackTaken;
    int32_t result;
  } cases[] = {
      {"runtime folder of another user", true, false, kROZResultAnswerPending},
      {"no runtime folder, temporary folder taken", false, true, kROZResultMissingCompsStoreFailed},
      {"both", true, true, kROZResultMissingCompsStoreFailed},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (!OnMachine([&](const MultiUserMachine& machine, FakeUpdaterBundle&) {
          Host host(machine, testing_support::RootUser());
          const std::string target = machine.Root() + "/etc/nologin";
          const std::string runtime = machine.RuntimeDirOf(Attacker());
          const std::string fallback = Host::TemporaryFolder(machine) + "/TemporaryItems-0";
          EXPECT_EQ(0, testing_support::RunAs(Attacker(), [&] {
            std::error_code error;
            fs::create_directories(runtime + "/Updater5/locked", error);
            fs::create_symlink(target, runtime + "/Updater5/locked/lock." + std::string(kAppID),
                               error);
            if (c.fallbackTaken && ::mkdir(fallback.c_str(), 0700) != 0) return 1;
            return error ? 2 : 0;
          }));
          if (c.attackersRuntimeFolder)
            host.env.SetVariable("XDG_RUNTIME_DIR", runtime);
          else
            host.env.SetVariable("XDG_RUNTIME_DIR", "relative/not/used");

          EXPECT_EQ(c.result, RequestAvailability());
          EXPECT_FALSE(fs::exists(fs::symlink_status(target))) << "written through the link";
          EXPECT_EQ(c.result == kROZResultAnswerPending,
                    fs::exists(fallback + "/Updater5/locked/lock." + std::string(kAppID)));
        })) {
      GTEST_SKIP() << "needs a root test run";
    }
  }
}

// A user's missing-components store and its folders are that user's alone, whatever the umask
// and the home's bits: another user can neither rewrite the store nor put a file beside it.
TEST(LocalUsersTest, PerUserStoreIsTheUsersAlone) {
  if (!OnMachine([&](const MultiUserMachine& machine, FakeUpdaterBundle&) {
        const UserIdentity& user = testing_support::AdministratorA();
        ::chmod(machine.HomeOf(user).c_str(), 0755);
        const std::string data = machine.HomeOf(user) + "/.local/share/Vantu/Updater5";
        const std::string store = data + "/VantuMissingComps.xml";
        EXPECT_EQ(0, testing_support::RunAs(user, [&] {
          ::umask(0);
          Host host(machine, user);
          return RequestComponent();
        }));
        for (const auto& [path, mode] : {std::pair<std::string, mode_t>{store, 0600},
                                         {data, 0700},
                                         {fs::path(data).parent_path().string(), 0700}}) {
          struct stat info {};
          EXPECT_EQ(0, ::stat(path.c_str(), &info)) << path;
          EXPECT_EQ(mode, info.st_mode & 07777) << path;
          EXPECT_EQ(user.uid, info.st_uid) << path;
        }
        EXPECT_EQ(0, testing_support::RunAs(Attacker(), [&] {
          const int rewrite = ::open(store.c_str(), O_WRONLY | O_CLOEXEC);
          const int plant = ::open((data + "/planted").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
          return (rewrite >= 0 ? 1 : 0) + (plant >= 0 ? 2 : 0);
        }));
      })) {
    GTEST_SKIP() << "needs a root test run";
  }
}

}  // namespace
}  // namespace vantu_test
