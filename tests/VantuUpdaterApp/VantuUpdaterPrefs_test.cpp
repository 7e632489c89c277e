// The user's preferences file and the administrator's policy file: defaults, the text the
// updater reads, replacement of a broken file, the due date of a check, and which policy contents
// give an answer, read afresh on every call, only from the machine-wide folder.
#include "xplat/VantuUpdaterAdminPrefs.h"
#include "xplat/VantuUpdaterPrefs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/date_time/gregorian/parsers.hpp>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/PropertyList.h"

namespace {

namespace fs = std::filesystem;
using testing_support::ReadFile;
using testing_support::WriteFile;

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

std::string XmlPolicy(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body +
         "\n</plist>\n";
}

const std::string kDisabled = XmlPolicy("<dict><key>Disable.Update</key><true/></dict>");

// A policy that disables checks and also holds `depth` arrays nested in one another.
std::string DeepPolicy(size_t depth) {
  std::string arrays;
  for (size_t i = 0; i < depth; ++i) arrays += "<array>";
  for (size_t i = 0; i < depth; ++i) arrays += "</array>";
  return XmlPolicy("<dict><key>Disable.Update</key><true/><key>Deep</key>" + arrays + "</dict>");
}

// The binary form of an XML property list.
std::string Binary(const std::string& xml) {
  plist_t root = nullptr;
  plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
  const esd::PropertyList owner(root);
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(root, &bytes, &length);
  const std::string out(bytes, length);
  free(bytes);
  return out;
}

// The answer, or nullopt for none (that no answer leaves the caller's value alone is the policy
// fuzzer's).
std::optional<bool> Ask() {
  bool enabled = false;
  if (!VantuUpdaterAdminPrefs::GetVantuUpdaterAdminPrefs().GetUpdateCheckEnabled(enabled))
    return std::nullopt;
  return enabled;
}

// Only a boolean "Disable.Update" answers, in XML or binary form (other booleans, keys and
// contents are the policy fuzzer's); the answer follows every edit, and a missing file or folder
// gives none (and is never created). A policy file in the user's own folders is never consulted.
TEST(AdminPrefs, OnlyABooleanInADictionaryAnswers) {
  testing_support::UpdaterSandbox sandbox;
  for (const char* folder : {"/.config", "/.local/share", ""}) {
    fs::create_directories(sandbox.home() + folder);
    WriteFile(sandbox.home() + folder + "/com.vantu.VantuUpdater.Admin.plist", kDisabled);
  }
  EXPECT_EQ(Ask(), std::nullopt);
  EXPECT_FALSE(CreateVantuUpdaterAdminPrefsPropListRef());
  EXPECT_FALSE(fs::exists(sandbox.root() + "/etc"));
  const std::pair<std::string, std::optional<bool>> cases[] = {
      {kDisabled, false},
      // Nesting is bounded before parsing: the parser recurses once per level and a deep enough
      // file would overflow the host's stack.
      {DeepPolicy(60), false},
      {Binary(DeepPolicy(60)), false},
      {DeepPolicy(70), std::nullopt},
      {Binary(DeepPolicy(70)), std::nullopt},
      {DeepPolicy(200000), std::nullopt},
  };
  fs::create_directories(sandbox.root() + "/etc");
  for (const auto& [bytes, expected] : cases) {
    WriteFile(sandbox.PolicyFile(), bytes);
    EXPECT_EQ(Ask(), expected) << bytes.substr(0, 200);
  }
  fs::remove(sandbox.PolicyFile());
  EXPECT_EQ(Ask(), std::nullopt);
  fs::create_directory(sandbox.PolicyFile());
  EXPECT_EQ(Ask(), std::nullopt) << "a folder";
  fs::remove(sandbox.PolicyFile());
  ASSERT_EQ(mkfifo(sandbox.PolicyFile().c_str(), 0600), 0);
  EXPECT_EQ(Ask(), std::nullopt) << "a named pipe, which must not block";
}

}  // namespace

// A new user gets the default download folder without a file being written; sets write each
// kind of value under its element name (the names and defaults are what rozctl's tests list). A
// deleted default download folder is made again at the next start; a chosen one never is. A
// file that does not parse is replaced (defaults, then a whole new file at the next set); one
// that cannot even be deleted stops the start with the parse error.
TEST(VantuUpdaterPrefs, TheUsersPreferencesFile) {
  PrefsSandbox sandbox;
  VantuUpdaterPrefs prefs;
  EXPECT_EQ(sandbox.DefaultDownloadDir(), Read(prefs.DownloadDir));
  EXPECT_TRUE(FileSystemUtils::DoesPathExist(sandbox.DefaultDownloadDir()));
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(sandbox.PrefsFile()));

  ASSERT_TRUE(prefs.AutoCheck.Set(false) && prefs.AutoCheckFreq.Set(2) &&
              prefs.LastDateCheck.Set("2024-07-31") &&
              prefs.ApplicationsEnabled.Set({{"a", true}}) &&
              prefs.NotificationMessage.Set({{"a", "Ready"}}) && prefs.logLevel.Set(4UL));
  EXPECT_EQ(std::string(kDeclaration) +
                "<VantuUpdater>\n<AutoCheck>0</AutoCheck>\n<AutoCheckFreq>2</AutoCheckFreq>\n"
                "<LastDateCheck>2024-07-31</LastDateCheck>\n<ApplicationsEnabled>\n"
                "<MapPrefEntry MapPrefKey=\"a\">1</MapPrefEntry>\n</ApplicationsEnabled>\n"
                "<NotificationMessage>\n<MapPrefEntry MapPrefKey=\"a\">Ready</MapPrefEntry>\n"
                "</NotificationMessage>\n<logLevel>4</logLevel>\n</VantuUpdater>\n",
            ReadFile(sandbox.PrefsFile()));
  ASSERT_TRUE(prefs.ProxyPort.Set(""));
  EXPECT_EQ("", Read(prefs.ProxyPort));

  const std::string custom = sandbox.home() + "/MyDownloads";
  for (const std::string& chosen : {sandbox.DefaultDownloadDir(), custom}) {
    ASSERT_TRUE(VantuUpdaterPrefs().DownloadDir.Set(chosen));
    ASSERT_TRUE(FileSystemUtils::DeleteDirectory(sandbox.DefaultDownloadDir(), true));
    VantuUpdaterPrefs restarted;
    EXPECT_EQ(chosen != custom, FileSystemUtils::DoesPathExist(sandbox.DefaultDownloadDir()));
    EXPECT_FALSE(FileSystemUtils::DoesPathExist(custom));
  }
  // A Documents folder that cannot be made leaves no default rather than ending the process.
  fs::create_directories(sandbox.home() + "/.config");
  WriteFile(sandbox.home() + "/.config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"/proc/none\"\n");
  VantuUpdaterPrefs withoutDocuments;
  ASSERT_TRUE(withoutDocuments.DownloadDir.Set(""));
  EXPECT_EQ("", Read(withoutDocuments.DownloadDir));

  WriteFile(sandbox.PrefsFile(), "<VantuUpdater><AutoCheck>0</AutoCheck>");
  {
    VantuUpdaterPrefs replaced;
    EXPECT_TRUE(Read(replaced.AutoCheck));
    ASSERT_TRUE(replaced.IsFirstRun.Set(false));
  }
  EXPECT_EQ(
      std::string(kDeclaration) + "<VantuUpdater>\n<IsFirstRun>0</IsFirstRun>\n</VantuUpdater>\n",
      ReadFile(sandbox.PrefsFile()));

  WriteFile(sandbox.PrefsFile(), "\x01\x02 not xml");
  ASSERT_EQ(0, chmod(sandbox.PrefsFile().c_str(), 0444));
  try {
    VantuUpdaterPrefs broken;
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
