// Writes, renames and syncs that fail: a full disk, a file system out of inodes, read-only
// folders, and renames or syncs refused through the file-system fault hook.
// Each must give the failure its caller is promised (ROZRegisterApplication and
// ROZUnRegisterApplication 4, ROZDownloadMissingComponents 1, a preference set false, the
// preferences' constructor its exception) and leave the previous file byte for byte, with no
// journal or temporary beside it, and loadable by the next host.
//
// Each case runs in a forked child: mounts are made in a private mount namespace (root may not
// write to a read-only mount either, so the cases hold under root), limits and hooks stay in the
// child, and the locks live in a private /dev/shm where one is available.

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "VantuUpdater/VantuUpdater.h"
#include "support/ChildProcess.h"
#include "support/FaultyEnv.h"
#include "support/PrivateMounts.h"
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
  if (status == kSkipped) return text;
  if (status != 0) return "the child ended with status " + std::to_string(status) + "\n" + text;
  return text;
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

  // Gives each file between one and two pages (4 to 8 KiB), so that a save needs two pages and
  // a disk with one page left, or a size limit, takes part of a journal before failing.
  void Fill(Findings& f) {
    for (int i = 0; i < 30; ++i)
      f.ExpectEq(0, Register("org.fault.app" + std::to_string(i)), "fill");
    for (int i = 0; i < 45; ++i) {
      const int32_t result = Download("Component" + std::to_string(i));
      f.ExpectEq(0, result, "fill missing components");
    }
    for (int i = 0; i < 30; ++i)
      f.Expect(SetPref("Fault" + std::to_string(i), kFiller), "fill preferences");
    for (const std::string& path :
         {sandbox.RegistryFile(), sandbox.MissingCompsFile(), PrefsFile()}) {
      const auto size = fs::exists(path) ? fs::file_size(path) : 0;
      f.Expect(size > 4096 && size < 8000, path + " holds " + std::to_string(size) + " bytes");
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

  // Registering, unregistering, requesting a component and setting a preference while every
  // write fails: each gives its failure and leaves its file as it was.
  void ExpectAllRefused(Findings& f, const std::string& condition, int suffix) {
    const std::string registry = Bytes(sandbox.RegistryFile());
    f.ExpectEq(kROZResultRegistryUnusable, Register("org.fault.new" + std::to_string(suffix)),
               condition + ": register");
    ExpectIntact(f, sandbox.RegistryFile(), registry, condition + ": register");
    f.ExpectEq(kROZResultRegistryUnusable, ROZUnRegisterApplication("org.fault.app1"),
               condition + ": unregister");
    ExpectIntact(f, sandbox.RegistryFile(), registry, condition + ": unregister");

    const std::string missing = Bytes(sandbox.MissingCompsFile());
    f.ExpectEq(kROZResultMissingCompsStoreFailed, Download("New" + std::to_string(suffix)),
               condition + ": download");
    ExpectIntact(f, sandbox.MissingCompsFile(), missing, condition + ": download");

    const std::string prefs = Bytes(PrefsFile());
    f.Expect(!SetPref("Fault0", condition), condition + ": the preference set succeeded");
    ExpectIntact(f, PrefsFile(), prefs, condition + ": preference");

    std::list<VantuUpdaterRegisteredApp> apps;
    f.Expect(VantuUpdaterRegistrationManager().GetRegisteredApps(apps) && apps.size() == 30,
             condition + ": the registered applications do not load whole");
  }

  testing_support::UpdaterSandbox sandbox;
};

// Fills the file system of `folder` up to `freePages` pages (0 fills it); returns the filler.
std::string FillDisk(const std::string& folder, unsigned long freePages) {
  const std::string filler = folder + "/filler";
  struct statvfs info {};
  if (::statvfs(folder.c_str(), &info) != 0) return filler;
  const unsigned long long free = static_cast<unsigned long long>(info.f_bavail) * info.f_frsize;
  const unsigned long long keep = static_cast<unsigned long long>(freePages) * 4096;
  unsigned long long left = free > keep ? free - keep : 0;
  const int fd = ::open(filler.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const std::vector<char> zeros(4096, 0);
  while (fd >= 0 && left > 0) {
    const ssize_t n = ::write(fd, zeros.data(), std::min<unsigned long long>(left, zeros.size()));
    if (n <= 0) break;
    left -= static_cast<unsigned long long>(n);
  }
  if (fd >= 0) ::close(fd);
  return filler;
}

// Uses up every inode of the file system of `folder`; returns the files made.
std::vector<std::string> UseAllInodes(const std::string& folder) {
  std::vector<std::string> made;
  for (int i = 0;; ++i) {
    const std::string path = folder + "/inode" + std::to_string(i);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) break;
    ::close(fd);
    made.push_back(path);
  }
  return made;
}

// A disk that fills up: with no page left, or too few for the new text, saves fail and the
// previous files stay; with room again, the same calls succeed. Also a file system whose inodes
// are all in use, so the journal or temporary cannot even be created.
TEST_F(FaultInjection, FullDiskFailsSavesAndKeepsThePreviousFiles) {
  RUN_IN_CHILD(Isolation::kNeedsMounts, [this](Findings& f) {
    std::string why;
    for (const std::string& folder : {sandbox.AllUsersDataDir(), sandbox.UserDataDir()}) {
      if (!testing_support::MountTmpfs(folder, "size=128k,nr_inodes=64,mode=0755", why)) {
        f.Expect(false, why);
        return;
      }
    }
    Fill(f);
    // Each file needs two pages for its new text: none and one page free are too little.
    for (unsigned long freePages : {0UL, 1UL}) {
      const std::string condition = std::to_string(freePages) + " pages free";
      const std::string a = FillDisk(sandbox.AllUsersDataDir(), freePages);
      const std::string b = FillDisk(sandbox.UserDataDir(), freePages);
      ExpectAllRefused(f, condition, static_cast<int>(freePages));
      fs::remove(a);
      fs::remove(b);
    }
    {
      const std::vector<std::string> a = UseAllInodes(sandbox.AllUsersDataDir());
      const std::vector<std::string> b = UseAllInodes(sandbox.UserDataDir());
      f.Expect(!a.empty() && !b.empty(), "no inodes to use up");
      ExpectAllRefused(f, "no inode free", 2);
      for (const std::string& path : a) fs::remove(path);
      for (const std::string& path : b) fs::remove(path);
    }
    // Room again: the same kinds of calls go through.
    const std::string a = FillDisk(sandbox.AllUsersDataDir(), 8);
    const std::string b = FillDisk(sandbox.UserDataDir(), 8);
    f.ExpectEq(kROZResultOK, Register("org.fault.new3"), "register with room");
    f.ExpectEq(kROZResultOK, ROZUnRegisterApplication("org.fault.app1"), "unregister with room");
    f.ExpectEq(kROZResultOK, Download("New3"), "download with room");
    f.Expect(SetPref("Fault0", "room"), "preference set with room");
  });
}

// Read-only folders (a read-only mount, which root cannot write either): every change fails
// with its code and leaves the files; what needs no write still answers; and the preferences
// cannot even be opened when their folder cannot be created.
TEST_F(FaultInjection, ReadOnlyFoldersFailChangesAndKeepTheFiles) {
  RUN_IN_CHILD(Isolation::kNeedsMounts, [this](Findings& f) {
    Fill(f);
    std::string why;
    for (const std::string& folder : {sandbox.AllUsersDataDir(), sandbox.UserDataDir()}) {
      if (!testing_support::MountReadOnly(folder, why)) {
        f.Expect(false, why);
        return;
      }
    }
    ExpectAllRefused(f, "read-only", 0);
    // Nothing to write: an unchanged registration is refused as not updated, a known
    // component is answered as requested already.
    f.ExpectEq(kROZResultRegistryNotUpdated, Register("org.fault.app2"), "unchanged register");
    f.ExpectEq(kROZResultAlreadyRequested, Download("Component3"), "known component");
    std::string value;
    f.Expect(VantuUpdaterPrefs::GetVantuUpdaterPrefs()->GetPref<std::string>("Fault1", value, "") &&
                 value == kFiller,
             "a preference no longer reads");
  });

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

// Renames, exchanges and syncs refused, once each at every step of a save: the exchange itself;
// each of the three renames of the fallback swap (each undone); the sync of the journal or
// temporary before it is put in place. Registration answers 4, the download 1, the preference
// set false, and the file is as it was.
TEST_F(FaultInjection, RefusedRenamesAndSyncsKeepThePreviousFiles) {
  const auto fallbackRenameFails = [](int n) -> FaultyEnv::Rule {
    return [n](FileOp op, int before, const std::string&) {
      return op == FileOp::kExchange ? EINVAL : op == FileOp::kRename && before == n ? EIO : 0;
    };
  };
  const std::pair<const char*, FaultyEnv::Rule> faults[] = {
      {"exchange fails", FaultyEnv::FailNth(FileOp::kExchange, 1, EIO)},
      {"fallback swap: first rename fails", fallbackRenameFails(0)},
      {"fallback swap: second rename fails", fallbackRenameFails(1)},
      {"fallback swap: third rename fails", fallbackRenameFails(2)},
      {"sync of the new text fails", FaultyEnv::FailNth(FileOp::kSync, 1, EIO)},
  };
  RUN_IN_CHILD(Isolation::kPrefersPrivateLocks, [&](Findings& f) {
    Fill(f);
    for (const auto& [condition, rule] : faults) {
      const std::string registry = Bytes(sandbox.RegistryFile());
      const std::string missing = Bytes(sandbox.MissingCompsFile());
      const std::string prefs = Bytes(PrefsFile());
      int32_t registered, requested;
      bool set;
      {
        FaultyEnv env(rule);
        registered = Register("org.fault.new");
      }
      {
        FaultyEnv env(rule);
        requested = Download("New");
      }
      {
        FaultyEnv env(rule);
        set = SetPref("Fault0", "refused");
      }
      f.ExpectEq(kROZResultRegistryUnusable, registered, std::string(condition) + ": register");
      ExpectIntact(f, sandbox.RegistryFile(), registry, std::string(condition) + ": register");
      f.ExpectEq(kROZResultMissingCompsStoreFailed, requested, std::string(condition) + ": download");
      ExpectIntact(f, sandbox.MissingCompsFile(), missing, std::string(condition) + ": download");
      f.Expect(!set, std::string(condition) + ": the preference set succeeded");
      ExpectIntact(f, PrefsFile(), prefs, std::string(condition) + ": preference");
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
    std::list<VantuUpdaterRegisteredApp> apps;
    f.Expect(VantuUpdaterRegistrationManager().GetRegisteredApps(apps) && apps.size() >= 30,
             "folder sync fails: the store does not load whole");

    // And with the faults gone, the same calls succeed.
    f.ExpectEq(kROZResultOK, Register("org.fault.new"), "register afterwards");
    f.ExpectEq(kROZResultOK, Download("New"), "download afterwards");
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
    std::list<VantuUpdaterRegisteredApp> before;
    f.Expect(VantuUpdaterRegistrationManager().GetRegisteredApps(before), "load before");
    int32_t registered;
    {
      FaultyEnv env([](FileOp op, int before, const std::string&) {
        return op == FileOp::kExchange ? EINVAL : op == FileOp::kRename && before >= 1 ? EIO : 0;
      });
      registered = Register("org.fault.new");
    }
    f.ExpectEq(kROZResultRegistryUnusable, registered, "register while renames fail");

    std::list<VantuUpdaterRegisteredApp> after;
    f.Expect(VantuUpdaterRegistrationManager().GetRegisteredApps(after), "load after");
    f.Expect(after.size() >= before.size(),
             "the store lost entries: " + std::to_string(before.size()) + " before, " +
                 std::to_string(after.size()) + " after");
    for (const VantuUpdaterRegisteredApp& app : before) {
      std::string id;
      app.GetappID(id);
      std::unique_ptr<VantuUpdaterRegisteredApp> found;
      f.Expect(VantuUpdaterRegistrationManager().GetRegisteredApplicationByAppID(id, found),
               id + " was lost");
    }
    f.Expect(!fs::exists(sandbox.RegistryFile() + "_"), "the journal is still there after a load");
    f.ExpectEq(kROZResultOK, ROZUnRegisterApplication("org.fault.app0"), "the store is usable");
  });
}

}  // namespace
