#include "xplat/VantuUpdaterPrefs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <boost/date_time/gregorian/parsers.hpp>

#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/LockPolicyInterface.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ScopedEnv.h"

using boost::gregorian::date;
using testing_support::ReadFile;
using testing_support::WriteFile;

namespace {

// A user of their own: a temporary home and machine root installed as the library's Env, with
// the XDG folder variables unset, so the preferences live in
// home/.local/share/Vantu/Updater5/VantuUpdaterPrefs.dat. Forked children inherit it.
class PrefsSandbox {
 public:
  PrefsSandbox() : mScope(&mEnv) {
    mkdir((mDir / "root").c_str(), 0755);
    mkdir((mDir / "home").c_str(), 0755);
    mEnv.SetRoot(mDir / "root");
    mEnv.SetHome(mDir / "home");
  }

  testing_support::TestEnv& env() { return mEnv; }
  std::string home() const { return mDir / "home"; }
  std::string DataDir() const { return home() + "/.local/share/Vantu/Updater5"; }
  std::string PrefsFile() const { return DataDir() + "/VantuUpdaterPrefs.dat"; }
  std::string DefaultDownloadDir() const { return home() + "/Documents/Updater5"; }

 private:
  testing_support::TempDir mDir;
  testing_support::TestEnv mEnv;
  esd::ScopedEnv mScope;
};

// A lock that can never be had, standing for one held elsewhere without making every other test
// process wait for the real "VantuUpdater" lock.
class BusyLock : public esd::LockPolicyInterface {
 public:
  bool Lock() override { return false; }
  bool Unlock(bool) override { return false; }
  bool HasLock() const override { return false; }
};

const char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";

}  // namespace

// A new user gets every setting's default, without a file being written; the default download
// folder is created, and the first set writes the file where the updater application reads it.
TEST(VantuUpdaterPrefs, NewUserReadsDefaultsAndFirstSetWritesTheSharedFile) {
  PrefsSandbox sandbox;
  VantuUpdaterPrefs prefs;

  EXPECT_EQ(sandbox.DefaultDownloadDir(), VantuUpdaterPrefs::GetDefaultDownloadLocation());
  EXPECT_EQ(sandbox.DataDir() + "/roz.log", VantuUpdaterPrefs::GetDefaultLogFileLocation());
  EXPECT_EQ(sandbox.PrefsFile(), prefs.GetPrefsPath());
  EXPECT_TRUE(FileSystemUtils::DoesPathExist(sandbox.DefaultDownloadDir()));

  bool flag = false;
  int number = -1;
  unsigned long level = 0;
  std::string text = "x";
  EXPECT_TRUE(prefs.AutoCheck.Get(flag) && flag);
  EXPECT_TRUE(prefs.AutoCheckType.Get(number) && number == 0);
  EXPECT_TRUE(prefs.DownloadDir.Get(text));
  EXPECT_EQ(sandbox.DefaultDownloadDir(), text);
  EXPECT_TRUE(prefs.DisplayLang.Get(text) && text.empty());
  EXPECT_TRUE(prefs.IsFirstRun.Get(flag) && flag);
  EXPECT_TRUE(prefs.InBackground.Get(flag) && !flag);
  EXPECT_TRUE(prefs.InTrayIcon.Get(flag) && !flag);
  EXPECT_TRUE(prefs.AutoCheckFreq.Get(number) && number == 1);
  EXPECT_TRUE(prefs.LastDateCheck.Get(text) && text.empty());
  EXPECT_TRUE(prefs.ShowNewProducts.Get(flag) && !flag);
  EXPECT_TRUE(prefs.SilentCheck.Get(flag) && !flag);
  std::map<std::string, bool> enabled{{"x", true}};
  std::map<std::string, std::string> messages{{"x", "y"}};
  EXPECT_TRUE(prefs.ApplicationsEnabled.Get(enabled) && enabled.empty());
  EXPECT_TRUE(prefs.NotificationMessage.Get(messages) && messages.empty());
  EXPECT_TRUE(prefs.Launch.Get(text) && text.empty());
  EXPECT_TRUE(prefs.ProxyServer.Get(text) && text.empty());
  EXPECT_TRUE(prefs.ProxyPort.Get(text) && text.empty());
  EXPECT_TRUE(prefs.ConnectionType.Get(number) && number == 0);
  EXPECT_TRUE(prefs.logFile.Get(text));
  EXPECT_EQ(sandbox.DataDir() + "/roz.log", text);
  EXPECT_TRUE(prefs.logLevel.Get(level) && level == 2UL);
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(sandbox.PrefsFile()));

  // Every key under the element name the updater application looks for.
  ASSERT_TRUE(prefs.AutoCheck.Set(false));
  ASSERT_TRUE(prefs.AutoCheckType.Set(1));
  ASSERT_TRUE(prefs.DownloadDir.Set("/data/dl"));
  ASSERT_TRUE(prefs.DisplayLang.Set("fr-FR"));
  ASSERT_TRUE(prefs.IsFirstRun.Set(false));
  ASSERT_TRUE(prefs.InBackground.Set(true));
  ASSERT_TRUE(prefs.InTrayIcon.Set(true));
  ASSERT_TRUE(prefs.AutoCheckFreq.Set(2));
  ASSERT_TRUE(prefs.LastDateCheck.Set("2024-07-31"));
  ASSERT_TRUE(prefs.ShowNewProducts.Set(true));
  ASSERT_TRUE(prefs.SilentCheck.Set(true));
  ASSERT_TRUE(prefs.ApplicationsEnabled.Set({{"com.example.app", true}}));
  ASSERT_TRUE(prefs.NotificationMessage.Set({{"com.example.app", "Update ready"}}));
  ASSERT_TRUE(prefs.Launch.Set("Scheduled"));
  ASSERT_TRUE(prefs.ProxyServer.Set("proxy.local"));
  ASSERT_TRUE(prefs.ProxyPort.Set("8080"));
  ASSERT_TRUE(prefs.ConnectionType.Set(3));
  ASSERT_TRUE(prefs.logFile.Set("/tmp/u.log"));
  ASSERT_TRUE(prefs.logLevel.Set(4UL));
  EXPECT_EQ(std::string(kDeclaration) +
                "<VantuUpdater>\n<AutoCheck>0</AutoCheck>\n<AutoCheckType>1</AutoCheckType>\n"
                "<DownloadDir>/data/dl</DownloadDir>\n<DisplayLang>fr-FR</DisplayLang>\n"
                "<IsFirstRun>0</IsFirstRun>\n<InBackground>1</InBackground>\n"
                "<InTrayIcon>1</InTrayIcon>\n<AutoCheckFreq>2</AutoCheckFreq>\n"
                "<LastDateCheck>2024-07-31</LastDateCheck>\n"
                "<ShowNewProducts>1</ShowNewProducts>\n<SilentCheck>1</SilentCheck>\n"
                "<ApplicationsEnabled>\n"
                "<MapPrefEntry MapPrefKey=\"com.example.app\">1</MapPrefEntry>\n"
                "</ApplicationsEnabled>\n<NotificationMessage>\n"
                "<MapPrefEntry MapPrefKey=\"com.example.app\">Update ready</MapPrefEntry>\n"
                "</NotificationMessage>\n<Launch>Scheduled</Launch>\n"
                "<ProxyServer>proxy.local</ProxyServer>\n<ProxyPort>8080</ProxyPort>\n"
                "<ConnectionType>3</ConnectionType>\n<logFile>/tmp/u.log</logFile>\n"
                "<logLevel>4</logLevel>\n</VantuUpdater>\n",
            ReadFile(sandbox.PrefsFile()));

  // A port cleared by the user reads back as no port.
  ASSERT_TRUE(prefs.ProxyPort.Set(""));
  EXPECT_TRUE(prefs.ProxyPort.Get(text) && text.empty());
}

// The default download folder is brought back at the next start when it was deleted; a folder
// the user chose is never created behind their back.
TEST(VantuUpdaterPrefs, RecreatesOnlyTheDefaultDownloadFolder) {
  PrefsSandbox sandbox;
  {
    VantuUpdaterPrefs prefs;
    ASSERT_TRUE(prefs.DownloadDir.Set(sandbox.DefaultDownloadDir()));
  }
  ASSERT_TRUE(FileSystemUtils::DeleteDirectory(sandbox.DefaultDownloadDir(), true));
  { VantuUpdaterPrefs prefs; }
  EXPECT_TRUE(FileSystemUtils::DoesPathExist(sandbox.DefaultDownloadDir()));

  const std::string custom = sandbox.home() + "/MyDownloads";
  {
    VantuUpdaterPrefs prefs;
    ASSERT_TRUE(prefs.DownloadDir.Set(custom));
  }
  ASSERT_TRUE(FileSystemUtils::DeleteDirectory(sandbox.DefaultDownloadDir(), true));
  { VantuUpdaterPrefs prefs; }
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(custom));
  // GetDefaultDownloadLocation itself never creates the last folder either.
  EXPECT_EQ(sandbox.DefaultDownloadDir(), VantuUpdaterPrefs::GetDefaultDownloadLocation());
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(sandbox.DefaultDownloadDir()));
}

// A preferences file that does not parse is deleted and replaced: every setting reads its default
// and the next set writes a whole new file. One that cannot even be deleted makes the start fail
// with the parse error instead of running on settings nobody can save.
TEST(VantuUpdaterPrefs, CorruptFileIsReplaced) {
  PrefsSandbox sandbox;
  ASSERT_TRUE(FileSystemUtils::CreateLocalDirectory(sandbox.DataDir()));
  WriteFile(sandbox.PrefsFile(), "<VantuUpdater><AutoCheck>0</AutoCheck>");
  {
    VantuUpdaterPrefs prefs;
    bool autoCheck = false;
    EXPECT_TRUE(prefs.AutoCheck.Get(autoCheck));
    EXPECT_TRUE(autoCheck);
    EXPECT_FALSE(FileSystemUtils::DoesPathExist(sandbox.PrefsFile()));
    ASSERT_TRUE(prefs.IsFirstRun.Set(false));
  }
  EXPECT_EQ(std::string(kDeclaration) +
                "<VantuUpdater>\n<IsFirstRun>0</IsFirstRun>\n</VantuUpdater>\n",
            ReadFile(sandbox.PrefsFile()));

  WriteFile(sandbox.PrefsFile(), "\x01\x02 not xml");
  ASSERT_EQ(0, chmod(sandbox.PrefsFile().c_str(), 0444));
  try {
    VantuUpdaterPrefs prefs;
    ADD_FAILURE() << "an undeletable broken file must stop the start";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ("Unable to parse settings file", error.what());
  }
  EXPECT_EQ("\x01\x02 not xml", ReadFile(sandbox.PrefsFile()));
}

// Without a data folder there is nowhere to keep settings: construction and the singleton throw,
// and the singleton is built once things are fixed. In a child, so that this process's singleton
// is never tied to a temporary folder.
TEST(VantuUpdaterPrefs, NoDataFolderAndTheSingleton) {
  PrefsSandbox sandbox;
  WriteFile(sandbox.home() + "/.local", "a file where a folder belongs");
  const pid_t child = testing_support::StartChild([&] {
    try {
      VantuUpdaterPrefs::GetVantuUpdaterPrefs();
      return 1;
    } catch (const std::runtime_error& error) {
      if (std::string(error.what()) != "Unable to create file!") return 2;
    }
    if (unlink((sandbox.home() + "/.local").c_str()) != 0) return 3;
    VantuUpdaterPrefs* first = VantuUpdaterPrefs::GetVantuUpdaterPrefs();
    if (first == nullptr || first != VantuUpdaterPrefs::GetVantuUpdaterPrefs()) return 4;
    if (!first->Launch.Set("Manual")) return 5;
    return 0;
  });
  EXPECT_EQ(0, testing_support::WaitChild(child));
  EXPECT_NE(std::string::npos, ReadFile(sandbox.PrefsFile()).find("<Launch>Manual</Launch>"));
}

// The library in a host and the updater application, each with its own object on the one file:
// each get sees the other's last set, also several sets within the same second.
TEST(VantuUpdaterPrefs, TwoProcessesSeeEachOthersSets) {
  PrefsSandbox sandbox;
  VantuUpdaterPrefs host;
  ASSERT_TRUE(host.Launch.Set("Manual"));

  testing_support::Pipe toChild, toParent;
  const pid_t child = testing_support::StartChild([&] {
    VantuUpdaterPrefs updater;
    for (int round = 0; round < 20; ++round) {
      if (!toChild.Wait()) return 10;
      std::string launch;
      int frequency = 0;
      if (!updater.Launch.Get(launch) || launch != "Manual " + std::to_string(round)) return 11;
      if (!updater.AutoCheckFreq.Get(frequency) || frequency != round) return 12;
      if (!updater.Launch.Set("Scheduled " + std::to_string(round))) return 13;
      if (!updater.InTrayIcon.Set(round % 2 == 0)) return 14;
      toParent.Signal();
    }
    return 0;
  });

  bool ok = true;
  for (int round = 0; round < 20 && ok; ++round) {
    ASSERT_TRUE(host.Launch.Set("Manual " + std::to_string(round)));
    ASSERT_TRUE(host.AutoCheckFreq.Set(round));
    toChild.Signal();
    ok = toParent.Wait();
    ASSERT_TRUE(ok) << "the other process stopped at round " << round;
    std::string launch;
    bool tray = false;
    EXPECT_TRUE(host.Launch.Get(launch));
    EXPECT_EQ("Scheduled " + std::to_string(round), launch);
    EXPECT_TRUE(host.InTrayIcon.Get(tray));
    EXPECT_EQ(round % 2 == 0, tray);
  }
  EXPECT_EQ(0, testing_support::WaitChild(child));
}

// Every operation waits for another holder of the shared "VantuUpdater" lock instead of writing
// beside it. The holder is brief, so other test programs using the lock meanwhile only wait.
TEST(VantuUpdaterPrefs, WaitsForTheSharedLock) {
  PrefsSandbox sandbox;
  VantuUpdaterPrefs prefs;
  const std::string released = sandbox.home() + "/released";
  testing_support::Pipe held;
  const pid_t child = testing_support::StartChild([&] {
    esd::ResourceLocker lock("VantuUpdater", 3000);
    if (!lock.Lock()) return 1;
    held.Signal();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    WriteFile(released, "");
    return lock.Unlock(false) ? 0 : 2;
  });
  ASSERT_TRUE(held.Wait());
  EXPECT_TRUE(prefs.SilentCheck.Set(true));
  EXPECT_TRUE(FileSystemUtils::DoesPathExist(released)) << "the set did not wait for the lock";
  EXPECT_EQ(0, testing_support::WaitChild(child));
}

// When the settings cannot be read for the lock, reads and sets fail without effect and the
// period check answers "not due".
TEST(VantuUpdaterPrefs, BusyLockFailsReadsAndSets) {
  PrefsSandbox sandbox;
  VantuUpdaterPrefs prefs;
  ASSERT_TRUE(prefs.LastDateCheck.Set(""));
  const std::string before = ReadFile(sandbox.PrefsFile());
  BusyLock busy;
  prefs.SetLockPolicy(&busy);
  EXPECT_FALSE(prefs.HasAutocheckPeriodElapsed());
  bool autoCheck = false;
  EXPECT_FALSE(prefs.AutoCheck.Get(autoCheck));
  EXPECT_FALSE(autoCheck);
  EXPECT_FALSE(prefs.Launch.Set("Manual"));
  EXPECT_FALSE(prefs.NotificationMessage.Set({{"a", "b"}}));
  EXPECT_EQ(before, ReadFile(sandbox.PrefsFile()));
}

namespace {

struct PeriodCase {
  const char* today;
  int frequency;
  const char* lastCheck;
  bool due;
};

std::ostream& operator<<(std::ostream& stream, const PeriodCase& c) {
  return stream << "today " << c.today << ", frequency " << c.frequency << ", last check \""
                << c.lastCheck << "\"";
}

class AutocheckPeriod : public testing::TestWithParam<PeriodCase> {};

}  // namespace

// Weekly checks are due seven days after the last one; monthly checks a calendar month after,
// where a month before the last day of a month is the last day of the month before. A missing
// or unreadable date is due.
TEST_P(AutocheckPeriod, IsDueOnlyAfterAWholePeriod) {
  const PeriodCase& c = GetParam();
  PrefsSandbox sandbox;
  sandbox.env().SetToday(boost::gregorian::from_simple_string(c.today));
  VantuUpdaterPrefs prefs;
  ASSERT_TRUE(prefs.AutoCheckFreq.Set(c.frequency));
  ASSERT_TRUE(prefs.LastDateCheck.Set(c.lastCheck));
  EXPECT_EQ(c.due, prefs.HasAutocheckPeriodElapsed());
}

INSTANTIATE_TEST_SUITE_P(
    VantuUpdaterPrefs, AutocheckPeriod,
    testing::Values(
        // Weekly: exactly seven days is due, six is not; across a month's end.
        PeriodCase{"2024-03-31", 1, "2024-03-24", true},
        PeriodCase{"2024-03-31", 1, "2024-03-25", false},
        PeriodCase{"2024-03-03", 1, "2024-02-25", true},
        PeriodCase{"2024-03-03", 1, "2024-02-26", false},
        // Monthly (any value but 1): the 30th of a 31-day month steps back to the 30th.
        PeriodCase{"2024-08-30", 0, "2024-07-31", false},
        PeriodCase{"2024-08-30", 0, "2024-07-30", true},
        // The last day of a month steps back to the last day of the month before.
        PeriodCase{"2024-04-30", 2, "2024-03-31", true},
        PeriodCase{"2024-04-30", 2, "2024-04-01", false},
        PeriodCase{"2024-03-31", 0, "2024-02-29", true},
        PeriodCase{"2024-03-31", 0, "2024-03-01", false},
        PeriodCase{"2023-03-31", 5, "2023-02-28", true},
        PeriodCase{"2024-01-31", 0, "2023-12-31", true},
        // Other spellings of a year-month-day date are read.
        PeriodCase{"2024-03-31", 1, "2024/3/24", true},
        PeriodCase{"2024-03-31", 1, "2024-Mar-25", false},
        // A check recorded in the future is not due.
        PeriodCase{"2024-03-31", 1, "2025-01-01", false},
        // Nothing recorded, or nothing readable: due.
        PeriodCase{"2024-03-31", 1, "", true},
        PeriodCase{"2024-03-31", 1, "yesterday", true},
        PeriodCase{"2024-03-31", 0, "2024-02-30", true},
        PeriodCase{"2024-03-31", 1, "20240330", true}));

// A frequency that cannot be read makes the check not due, whatever the date says.
TEST(VantuUpdaterPrefs, UnreadableFrequencyIsNotDue) {
  PrefsSandbox sandbox;
  sandbox.env().SetToday(date(2024, 3, 31));
  ASSERT_TRUE(FileSystemUtils::CreateLocalDirectory(sandbox.DataDir()));
  WriteFile(sandbox.PrefsFile(), std::string(kDeclaration) +
                                     "<VantuUpdater><AutoCheckFreq>weekly</AutoCheckFreq>"
                                     "</VantuUpdater>");
  VantuUpdaterPrefs prefs;
  EXPECT_FALSE(prefs.HasAutocheckPeriodElapsed());
  ASSERT_TRUE(prefs.AutoCheckFreq.Set(1));
  EXPECT_TRUE(prefs.HasAutocheckPeriodElapsed());
}
