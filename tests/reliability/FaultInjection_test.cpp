// Saves that fail at each step: the journal or temporary cannot be created (no inode left, a
// read-only folder), its writes or its sync fail (a full disk), the exchange or a rename of the
// fallback swap is refused. Each call must give the failure its caller is promised
// (ROZRegisterApplication and ROZUnRegisterApplication 4, ROZDownloadMissingComponents 1, a
// preference set false), leave the previous file byte for byte with no journal or temporary
// beside it, loadable by the next host, and still answer what needs no write.
//
// Each case runs in a forked child: the preferences are a process-wide object, mounts are made in
// a private mount namespace (root may not write to a read-only mount either), and the locks live
// in a private /dev/shm where one is available.

#include <cerrno>
#include <filesystem>
#include <functional>
#include <list>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "VantuUpdater/VantuUpdater.h"
#include "support/ChildProcess.h"
#include "support/FaultyEnv.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/VantuUpdaterPrefs.h"
#include "xplat/VantuUpdaterRegisteredApp.h"
#include "xplat/VantuUpdaterRegistrationManager.h"

namespace {

namespace fs = std::filesystem;
using testing_support::FaultyEnv;
using testing_support::FileOp;

const unsigned char* U(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.c_str());
}

std::string Bytes(const std::string& path) {
  return fs::exists(path) ? testing_support::ReadFile(path) : std::string("<missing>");
}

// What a child found wrong, one line each; the child has no GoogleTest of its own to report to.
class Findings {
 public:
  void Expect(bool ok, const std::string& what) {
    if (!ok) mText += what + "\n";
  }
  void ExpectEq(long want, long got, const std::string& what) {
    Expect(want == got, what + ": " + std::to_string(got) + ", expected " + std::to_string(want));
  }
  const std::string& Text() const { return mText; }

 private:
  std::string mText;
};

enum class Isolation { kNeedsMounts, kPrefersPrivateLocks };
constexpr int kSkipped = 77;

// Runs `body` in a forked child and returns its findings; "skip: ..." when it needs mounts that
// the kernel does not allow here.
std::string RunInChild(Isolation isolation, const std::function<void(Findings&)>& body) {
  testing_support::TempDir report;
  const std::string reportPath = report / "findings";
  const pid_t child = testing_support::StartChild([&] {
    std::string why;
    const bool isolated = testing_support::EnterPrivateMountNamespace(why) &&
                          testing_support::UsePrivateSemaphores(why);
    if (!isolated && isolation == Isolation::kNeedsMounts) {
      testing_support::WriteFile(reportPath, "skip: " + why);
      return kSkipped;
    }
    Findings findings;
    body(findings);
    testing_support::WriteFile(reportPath, findings.Text());
    return 0;
  });
  const int status = testing_support::WaitChild(child);
  const std::string text = Bytes(reportPath);
  if (status == kSkipped || status == 0) return text;
  return "the child ended with status " + std::to_string(status) + "\n" + text;
}

#define RUN_IN_CHILD(isolation, ...)                                    \
  do {                                                                  \
    const std::string findings = RunInChild(isolation, __VA_ARGS__);    \
    if (findings.compare(0, 5, "skip:") == 0) GTEST_SKIP() << findings; \
    EXPECT_EQ("", findings);                                            \
  } while (false)

class FaultInjection : public ::testing::Test {
 protected:
  void SetUp() override {
    sandbox.env().SetGroups({"admin"});
    sandbox.InstallUpdater();
    sandbox.env().RecordLaunches(true, 0);
    fs::create_directories(sandbox.AllUsersDataDir());
  }

  std::string PrefsFile() const { return sandbox.UserDataDir() + "/VantuUpdaterPrefs.dat"; }

  static int32_t Register(const std::string& id) {
    return ROZRegisterApplication(id.c_str(), U("Fault " + id), U("/opt/fault/" + id));
  }

  static int32_t Download(const std::string& component) {
    std::string category = "Fonts", name = component, version = "2.0";
    ROZMissingComponent entry{&category[0], &name[0], &version[0]};
    ROZMissingComponent* entries[] = {&entry};
    ROZMissingComptList list{1, entries};
    return ROZDownloadMissingComponents("org.fault.host", U("Fault host"), U("/opt/fault/host"),
                                        "en_US", &list, kROZDownloadMissingCompTypeDefault, false);
  }

  static bool SetPref(const std::string& key, const std::string& value) {
    return VantuUpdaterPrefs::GetVantuUpdaterPrefs()->SetPref<std::string>(key, value);
  }

  // Gives each store some thirty entries.
  void Fill(Findings& f) {
    for (int i = 0; i < 30; ++i) {
      const std::string n = std::to_string(i);
      f.ExpectEq(kROZResultOK, Register("org.fault.app" + n), "fill registry");
      f.ExpectEq(kROZResultOK, Download("Component" + n), "fill missing components");
      f.Expect(SetPref("Fault" + n, kFiller), "fill preferences");
    }
  }

  inline static const std::string kFiller = std::string(150, 'x');

  // The file is what it was, nothing is left beside it, and the next host can load it.
  void ExpectIntact(Findings& f, const std::string& path, const std::string& before,
                    const std::string& what) {
    f.Expect(Bytes(path) == before, what + ": the previous file changed");
    f.Expect(!fs::exists(path + "_"), what + ": a journal was left");
    for (const auto& entry : fs::directory_iterator(fs::path(path).parent_path())) {
      const std::string name = entry.path().filename().string();
      f.Expect(name.compare(0, 9, "TempSwap.") != 0, what + ": left " + name);
      f.Expect(name.find(".dat.new") == std::string::npos, what + ": left " + name);
    }
  }

  static size_t RegisteredCount() {
    std::list<VantuUpdaterRegisteredApp> apps;
    return VantuUpdaterRegistrationManager().GetRegisteredApps(apps) ? apps.size() : 0;
  }

  testing_support::UpdaterSandbox sandbox;
};

// Each step of a save refused in turn, every call under a fresh rule: the file is as it was, and
// what needs no write (an unchanged registration, a component requested already, a preference
// read) answers as usual.
TEST_F(FaultInjection, RefusedRenamesAndSyncsKeepThePreviousFiles) {
  const auto fallbackRenameFails = [](int n) -> FaultyEnv::Rule {
    return [n](FileOp op, int before, const std::string&) {
      return op == FileOp::kExchange ? EINVAL : op == FileOp::kRename && before == n ? EIO : 0;
    };
  };
  const std::pair<std::string, FaultyEnv::Rule> faults[] = {
      {"no inode free", FaultyEnv::Always(FileOp::kCreate, ENOSPC)},
      {"read-only folder", FaultyEnv::Always(FileOp::kCreate, EROFS)},
      {"disk full", FaultyEnv::Always(FileOp::kWrite, ENOSPC)},
      {"exchange fails", FaultyEnv::FailNth(FileOp::kExchange, 1, EIO)},
      {"fallback swap: first rename fails", fallbackRenameFails(0)},
      {"fallback swap: second rename fails", fallbackRenameFails(1)},
      {"fallback swap: third rename fails", fallbackRenameFails(2)},
      {"sync of the new text fails", FaultyEnv::FailNth(FileOp::kSync, 1, EIO)},
  };
  RUN_IN_CHILD(Isolation::kPrefersPrivateLocks, [&](Findings& f) {
    Fill(f);
    for (const auto& [condition, rule] : faults) {
      const auto under = [&rule = rule](auto call) {
        FaultyEnv env(rule);
        return call();
      };
      const std::string registry = Bytes(sandbox.RegistryFile());
      const std::string missing = Bytes(sandbox.MissingCompsFile());
      const std::string prefs = Bytes(PrefsFile());
      f.ExpectEq(kROZResultRegistryUnusable, under([] { return Register("org.fault.new"); }),
                 condition + ": register");
      f.ExpectEq(kROZResultRegistryUnusable,
                 under([] { return ROZUnRegisterApplication("org.fault.app1"); }),
                 condition + ": unregister");
      f.ExpectEq(kROZResultRegistryNotUpdated, under([] { return Register("org.fault.app2"); }),
                 condition + ": unchanged register");
      ExpectIntact(f, sandbox.RegistryFile(), registry, condition + ": register");
      f.ExpectEq(kROZResultMissingCompsStoreFailed, under([] { return Download("New"); }),
                 condition + ": download");
      f.ExpectEq(kROZResultAlreadyRequested, under([] { return Download("Component3"); }),
                 condition + ": known component");
      ExpectIntact(f, sandbox.MissingCompsFile(), missing, condition + ": download");
      f.Expect(!under([&] { return SetPref("Fault0", condition); }),
               condition + ": the preference set succeeded");
      std::string value;
      f.Expect(under([&] {
                 return VantuUpdaterPrefs::GetVantuUpdaterPrefs()->GetPref<std::string>(
                            "Fault1", value, "") && value == kFiller;
               }),
               condition + ": a preference no longer reads");
      ExpectIntact(f, PrefsFile(), prefs, condition + ": preference");
      f.ExpectEq(30, static_cast<long>(RegisteredCount()), condition + ": registered applications");
    }
    // A folder sync that fails after the exchange comes too late to keep the previous text:
    // the new one is in place, just not known to be on the disk. The call may say so, but the
    // store must still be whole: one version, no journal, loadable.
    int32_t late;
    {
      FaultyEnv env([](FileOp op, int, const std::string& path) {
        return op == FileOp::kSync && fs::is_directory(path) ? EIO : 0;
      });
      late = Register("org.fault.late");
    }
    f.Expect(late == kROZResultOK || late == kROZResultRegistryUnusable,
             "folder sync fails: register gave " + std::to_string(late));
    f.Expect(!fs::exists(sandbox.RegistryFile() + "_"), "folder sync fails: a journal was left");
    f.Expect(RegisteredCount() >= 30, "folder sync fails: the store does not load whole");

    // And with the faults gone, the same calls succeed.
    f.ExpectEq(kROZResultOK, Register("org.fault.new"), "register afterwards");
    f.ExpectEq(kROZResultOK, ROZUnRegisterApplication("org.fault.app1"), "unregister afterwards");
    f.ExpectEq(kROZResultOK, Download("New"), "download afterwards");
    f.Expect(SetPref("Fault0", "room"), "preference set afterwards");
  });
}

// Where the kernel cannot exchange two names, a save swaps them by three renames. When the
// second rename fails and so does the one that should undo the first, the store's text is left
// under a temporary name and its own name is empty: the save must keep its journal, the one
// complete text at a known name, so that the next load restores a whole store instead of an
// empty one.
TEST_F(FaultInjection, RenamesThatKeepFailingLeaveAWholeStore) {
  RUN_IN_CHILD(Isolation::kPrefersPrivateLocks, [this](Findings& f) {
    Fill(f);
    int32_t registered;
    {
      FaultyEnv env([](FileOp op, int before, const std::string&) {
        return op == FileOp::kExchange ? EINVAL : op == FileOp::kRename && before >= 1 ? EIO : 0;
      });
      registered = Register("org.fault.new");
    }
    f.ExpectEq(kROZResultRegistryUnusable, registered, "register while renames fail");
    f.Expect(RegisteredCount() >= 30, "the store lost entries");
    f.Expect(!fs::exists(sandbox.RegistryFile() + "_"), "the journal is still there after a load");
    f.ExpectEq(kROZResultOK, ROZUnRegisterApplication("org.fault.app0"), "the store is usable");
  });
}

// A home that cannot hold the data folder (a real read-only mount, since making folders is not a
// file operation the rules see): the preferences' constructor throws its fixed message, the
// user's store fails, and the machine-wide store is unaffected.
TEST_F(FaultInjection, ReadOnlyHomeCannotHoldThePreferences) {
  fs::remove_all(sandbox.home() + "/.local");
  fs::create_directories(sandbox.home() + "/Documents");
  RUN_IN_CHILD(Isolation::kNeedsMounts, [this](Findings& f) {
    std::string why;
    if (!testing_support::MountReadOnly(sandbox.home(), why)) {
      f.Expect(false, why);
      return;
    }
    std::string message;
    try {
      VantuUpdaterPrefs::GetVantuUpdaterPrefs();
    } catch (const std::runtime_error& e) {
      message = e.what();
    }
    f.Expect(message == "Unable to create file!", "preferences without a folder: " + message);
    f.ExpectEq(kROZResultMissingCompsStoreFailed, Download("Any"), "download without a folder");
    f.ExpectEq(kROZResultOK, Register("org.fault.elsewhere"), "the machine-wide store is fine");
  });
}

}  // namespace
