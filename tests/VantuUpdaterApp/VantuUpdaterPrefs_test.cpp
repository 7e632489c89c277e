#include "xplat/VantuUpdaterPrefs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include <boost/date_time/gregorian/parsers.hpp>

#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/FileSystemUtils.h"

using testing_support::ReadFile;
using testing_support::WriteFile;

namespace {

const char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";

// A sandboxed user (XDG variables unset) with the preference paths.
struct PrefsSandbox : testing_support::UpdaterSandbox {
  std::string PrefsFile() const { return UserDataDir() + "/VantuUpdaterPrefs.dat"; }
  std::string DefaultDownloadDir() const { return home() + "/Documents/Updater5"; }
};

template <class T>
T Read(esd::BasicPref<T>& pref) {
  T value{};
  EXPECT_TRUE(pref.Get(value));
  return value;
}

}  // namespace

// A new user gets the default download folder without a file being written (the defaults are
// what rozctl's tests list); sets write each key under the element name the updater reads.
TEST(VantuUpdaterPrefs, NewUserWritesNothingAndSetsWriteTheSharedFile) {
  PrefsSandbox sandbox;
  VantuUpdaterPrefs prefs;
  EXPECT_EQ(sandbox.DefaultDownloadDir(), Read(prefs.DownloadDir));
  EXPECT_TRUE(FileSystemUtils::DoesPathExist(sandbox.DefaultDownloadDir()));
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(sandbox.PrefsFile()));

  ASSERT_TRUE(prefs.AutoCheck.Set(false) && prefs.AutoCheckType.Set(1) &&
              prefs.DownloadDir.Set("/data/dl") && prefs.DisplayLang.Set("fr-FR") &&
              prefs.IsFirstRun.Set(false) && prefs.InBackground.Set(true) &&
              prefs.InTrayIcon.Set(true) && prefs.AutoCheckFreq.Set(2) &&
              prefs.LastDateCheck.Set("2024-07-31") && prefs.ShowNewProducts.Set(true) &&
              prefs.SilentCheck.Set(true) && prefs.ApplicationsEnabled.Set({{"com.app", true}}) &&
              prefs.NotificationMessage.Set({{"com.app", "Ready"}}) &&
              prefs.Launch.Set("Scheduled") && prefs.ProxyServer.Set("proxy.local") &&
              prefs.ProxyPort.Set("8080") && prefs.ConnectionType.Set(3) &&
              prefs.logFile.Set("/tmp/u.log") && prefs.logLevel.Set(4UL));
  EXPECT_EQ(std::string(kDeclaration) +
                "<VantuUpdater>\n<AutoCheck>0</AutoCheck>\n<AutoCheckType>1</AutoCheckType>\n"
                "<DownloadDir>/data/dl</DownloadDir>\n<DisplayLang>fr-FR</DisplayLang>\n"
                "<IsFirstRun>0</IsFirstRun>\n<InBackground>1</InBackground>\n"
                "<InTrayIcon>1</InTrayIcon>\n<AutoCheckFreq>2</AutoCheckFreq>\n"
                "<LastDateCheck>2024-07-31</LastDateCheck>\n"
                "<ShowNewProducts>1</ShowNewProducts>\n<SilentCheck>1</SilentCheck>\n"
                "<ApplicationsEnabled>\n<MapPrefEntry MapPrefKey=\"com.app\">1</MapPrefEntry>\n"
                "</ApplicationsEnabled>\n<NotificationMessage>\n"
                "<MapPrefEntry MapPrefKey=\"com.app\">Ready</MapPrefEntry>\n"
                "</NotificationMessage>\n<Launch>Scheduled</Launch>\n"
                "<ProxyServer>proxy.local</ProxyServer>\n<ProxyPort>8080</ProxyPort>\n"
                "<ConnectionType>3</ConnectionType>\n<logFile>/tmp/u.log</logFile>\n"
                "<logLevel>4</logLevel>\n</VantuUpdater>\n",
            ReadFile(sandbox.PrefsFile()));
  ASSERT_TRUE(prefs.ProxyPort.Set(""));
  EXPECT_EQ("", Read(prefs.ProxyPort));
}

// A deleted default download folder is made again at the next start; a chosen one never is.
TEST(VantuUpdaterPrefs, RecreatesOnlyTheDefaultDownloadFolder) {
  PrefsSandbox sandbox;
  const std::string custom = sandbox.home() + "/MyDownloads";
  for (const std::string& chosen : {sandbox.DefaultDownloadDir(), custom}) {
    ASSERT_TRUE(VantuUpdaterPrefs().DownloadDir.Set(chosen));
    ASSERT_TRUE(FileSystemUtils::DeleteDirectory(sandbox.DefaultDownloadDir(), true));
    VantuUpdaterPrefs restarted;
    EXPECT_EQ(chosen != custom, FileSystemUtils::DoesPathExist(sandbox.DefaultDownloadDir()));
    EXPECT_FALSE(FileSystemUtils::DoesPathExist(custom));
  }
  // A Documents folder that cannot be made leaves no default rather than ending the process.
  std::filesystem::create_directories(sandbox.home() + "/.config");
  WriteFile(sandbox.home() + "/.config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"/proc/none\"\n");
  VantuUpdaterPrefs withoutDocuments;
  ASSERT_TRUE(withoutDocuments.DownloadDir.Set(""));
  EXPECT_EQ("", Read(withoutDocuments.DownloadDir));
}

// A file that does not parse is replaced (defaults, then a whole new file at the next set); one
// that cannot even be deleted stops the start with the parse error.
TEST(VantuUpdaterPrefs, CorruptFileIsReplaced) {
  PrefsSandbox sandbox;
  WriteFile(sandbox.PrefsFile(), "<VantuUpdater><AutoCheck>0</AutoCheck>");
  {
    VantuUpdaterPrefs prefs;
    EXPECT_TRUE(Read(prefs.AutoCheck));
    ASSERT_TRUE(prefs.IsFirstRun.Set(false));
  }
  EXPECT_EQ(
      std::string(kDeclaration) + "<VantuUpdater>\n<IsFirstRun>0</IsFirstRun>\n</VantuUpdater>\n",
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

// Weekly checks are due seven days after the last, monthly ones a calendar month after (the last
// day of a month steps back to the last day of the month before); no or no readable date is due,
// and a frequency that cannot be read is never due.
TEST(VantuUpdaterPrefs, AutocheckIsDueOnlyAfterAWholePeriod) {
  struct {
    const char* today;
    int frequency;
    const char* lastCheck;
    bool due;
  } const cases[] = {
      {"2024-03-31", 1, "2024-03-24", true},  {"2024-03-31", 1, "2024-03-25", false},
      {"2024-03-03", 1, "2024-02-25", true},  {"2024-03-03", 1, "2024-02-26", false},
      {"2024-08-30", 0, "2024-07-31", false}, {"2024-08-30", 0, "2024-07-30", true},
      {"2024-04-30", 2, "2024-03-31", true},  {"2024-04-30", 2, "2024-04-01", false},
      {"2024-03-31", 0, "2024-02-29", true},  {"2024-03-31", 0, "2024-03-01", false},
      {"2023-03-31", 5, "2023-02-28", true},  {"2024-01-31", 0, "2023-12-31", true},
      {"2024-03-31", 1, "2024/3/24", true},   {"2024-03-31", 1, "2024-Mar-25", false},
      {"2024-03-31", 1, "2025-01-01", false}, {"2024-03-31", 1, "", true},
      {"2024-03-31", 1, "yesterday", true},   {"2024-03-31", 0, "2024-02-30", true},
      {"2024-03-31", 1, "20240330", true},
  };
  PrefsSandbox sandbox;
  WriteFile(sandbox.PrefsFile(), std::string(kDeclaration) +
                                     "<VantuUpdater><AutoCheckFreq>weekly</AutoCheckFreq>"
                                     "<LastDateCheck></LastDateCheck></VantuUpdater>");
  VantuUpdaterPrefs prefs;
  EXPECT_FALSE(prefs.HasAutocheckPeriodElapsed());
  for (const auto& c : cases) {
    sandbox.env().SetToday(boost::gregorian::from_simple_string(c.today));
    ASSERT_TRUE(prefs.AutoCheckFreq.Set(c.frequency) && prefs.LastDateCheck.Set(c.lastCheck));
    EXPECT_EQ(c.due, prefs.HasAutocheckPeriodElapsed())
        << c.today << ", frequency " << c.frequency << ", last \"" << c.lastCheck << "\"";
  }
}
