// Saves that fail at any step give the caller the promised failure, leave the previous file byte
// for byte with nothing beside it, and still answer what needs no write. Each case runs in a
// forked child: the preferences are process-wide, and mounts and locks are made private to it.

#include <cerrno>
#include <cstdio>
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

class FaultInjection : public ::testing::Test {
 protected:
  void SetUp() override {
    sandbox.env().SetGroups({"admin"});
    sandbox.InstallUpdater();
    sandbox.env().RecordLaunches(true, 0);
    fs::create_directories(sandbox.AllUsersDataDir());
  }

  // Runs `body` in a forked child, which prints its own failures and reports them by its exit
  // status; skips when it needs mounts that the kernel does not allow here.
  void RunInChild(bool needsMounts, const std::function<void()>& body) {
    constexpr int kSkipped = 77;
    const int status = testing_support::WaitChild(testing_support::StartChild([&] {
      std::string why;
      if (!(testing_support::EnterPrivateMountNamespace(why) &&
            testing_support::UsePrivateSemaphores(why)) && needsMounts) {
        std::fprintf(stderr, "%s\n", why.c_str());
        return kSkipped;
      }
      body();
      return ::testing::Test::HasFailure() ? 1 : 0;
    }));
    if (status == kSkipped) GTEST_SKIP() << "no private mounts here";
    EXPECT_EQ(0, status) << "the child's failures are printed above";
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
  static void Fill() {
    for (int i = 0; i < 30; ++i) {
      const std::string n = std::to_string(i);
      EXPECT_EQ(kROZResultOK, Register("org.fault.app" + n)) << "fill registry";
      EXPECT_EQ(kROZResultOK, Download("Component" + n)) << "fill missing components";
      EXPECT_TRUE(SetPref("Fault" + n, kFiller)) << "fill preferences";
    }
  }

  inline static const std::string kFiller = std::string(150, 'x');

  // The file is what it was, nothing is left beside it, and the next host can load it.
  static void ExpectIntact(const std::string& path, const std::string& before,
                           const std::string& what) {
    EXPECT_TRUE(Bytes(path) == before) << what << ": the previous file changed";
    EXPECT_FALSE(fs::exists(path + "_")) << what << ": a journal was left";
    for (const auto& entry : fs::directory_iterator(fs::path(path).parent_path())) {
      const std::string name = entry.path().filename().string();
      EXPECT_TRUE(name.rfind("TempSwap.", 0) != 0 && name.find(".dat.new") == std::string::npos)
          << what << ": left " << name;
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
TEST_F(FaultInjection, RefusedStepsKeepThePreviousFiles) {
  const auto fallbackRenameFails = [](int n) -> FaultyEnv::Rule {
    return [n](FileOp op, int before, const std::string&) {
      return op == FileOp::kExchange ? EINVAL : op == FileOp::kRename && before == n ? EIO : 0;
    };
  };
  const std::pair<std::string, FaultyEnv::Rule> faults[] = {
      {"no inode free", FaultyEnv::Always(FileOp::kCreate, ENOSPC)},
      {"read-only folder", FaultyEnv::Always(FileOp::kCreate, EROFS)},
      {"disk full", FaultyEnv::Always(FileOp::kWrite, ENOSPC)},
      {"exchange fails", FaultyEnv::Always(FileOp::kExchange, EIO)},
      {"fallback swap: first rename fails", fallbackRenameFails(0)},
      {"fallback swap: second rename fails", fallbackRenameFails(1)},
      {"fallback swap: third rename fails", fallbackRenameFails(2)},
      {"sync of the new text fails", FaultyEnv::Always(FileOp::kSync, EIO)},
  };
  // Each call, every one under a fresh rule, with its answer under the fault.
  const struct {
    const char* what;
    long want;
    std::function<long()> call;
  } calls[] = {
      {"register", kROZResultRegistryUnusable, [] { return Register("org.fault.new"); }},
      {"unregister", kROZResultRegistryUnusable,
       [] { return ROZUnRegisterApplication("org.fault.app1"); }},
      {"unchanged register", kROZResultRegistryNotUpdated, [] { return Register("org.fault.app2"); }},
      {"download", kROZResultMissingCompsStoreFailed, [] { return Download("New"); }},
      {"known component", kROZResultAlreadyRequested, [] { return Download("Component3"); }},
      {"preference set", false, [] { return SetPref("Fault0", "changed"); }},
      {"preference read", true, [] {
         std::string value;
         return VantuUpdaterPrefs::GetVantuUpdaterPrefs()->GetPref("Fault1", value, value) &&
                value == kFiller;
       }},
  };
  RunInChild(false, [&] {
    Fill();
    for (const auto& [condition, rule] : faults) {
      const std::string files[] = {sandbox.RegistryFile(), sandbox.MissingCompsFile(), PrefsFile()};
      std::string before[3];
      for (int i = 0; i < 3; ++i) before[i] = Bytes(files[i]);
      for (const auto& call : calls) {
        FaultyEnv env(rule);
        EXPECT_EQ(call.want, call.call()) << condition << ": " << call.what;
      }
      for (int i = 0; i < 3; ++i) ExpectIntact(files[i], before[i], condition + ": " + files[i]);
      EXPECT_EQ(30u, RegisteredCount()) << condition << ": registered applications";
    }

    // A folder sync that fails after the exchange comes too late to keep the previous text: the
    // call may say so, but the store must still be whole: one version, no journal, loadable.
    const auto afterwards = [&](const std::string& what, int32_t orElse, FaultyEnv::Rule rule) {
      int32_t result;
      {
        FaultyEnv env(std::move(rule));
        result = Register("org.fault." + what);
      }
      EXPECT_TRUE(result == kROZResultRegistryUnusable || result == orElse)
          << what << ": register gave " << result;
      EXPECT_GE(RegisteredCount(), 30u) << what << ": the store does not load whole";
      EXPECT_FALSE(fs::exists(sandbox.RegistryFile() + "_")) << what << ": a journal outlived load";
    };
    afterwards("late", kROZResultOK, [late = false](FileOp op, int, const std::string&) mutable {
      late = late || op == FileOp::kExchange;
      return op == FileOp::kSync && late ? EIO : 0;
    });
    // Renames that keep failing, the undo of the first included, leave the store's text under a
    // temporary name and its own name empty: the save must keep its journal, so that the next
    // load restores a whole store.
    afterwards("renames", kROZResultRegistryUnusable, [](FileOp op, int before, const std::string&) {
      return op == FileOp::kExchange ? EINVAL : op == FileOp::kRename && before >= 1 ? EIO : 0;
    });

    // And with the faults gone, the same calls succeed.
    EXPECT_EQ(kROZResultOK, Register("org.fault.new")) << "register afterwards";
    EXPECT_EQ(kROZResultOK, ROZUnRegisterApplication("org.fault.app1")) << "unregister afterwards";
    EXPECT_EQ(kROZResultOK, Download("New")) << "download afterwards";
    EXPECT_TRUE(SetPref("Fault0", "room")) << "preference set afterwards";
  });
}

// A home that cannot hold the data folder (a real read-only mount, since making folders is not a
// file operation the rules see): the preferences' constructor throws its fixed message, the
// user's store fails, and the machine-wide store is unaffected.
TEST_F(FaultInjection, ReadOnlyHomeCannotHoldThePreferences) {
  fs::remove_all(sandbox.home() + "/.local");
  fs::create_directories(sandbox.home() + "/Documents");
  RunInChild(true, [this] {
    std::string message;
    ASSERT_TRUE(testing_support::MountReadOnly(sandbox.home(), message)) << message;
    try {
      VantuUpdaterPrefs::GetVantuUpdaterPrefs();
    } catch (const std::runtime_error& e) {
      message = e.what();
    }
    EXPECT_EQ("Unable to create file!", message) << "preferences without a folder";
    EXPECT_EQ(kROZResultMissingCompsStoreFailed, Download("Any")) << "download without a folder";
    EXPECT_EQ(kROZResultOK, Register("org.fault.elsewhere")) << "the machine-wide store is fine";
  });
}

}  // namespace
