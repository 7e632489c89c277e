// The exported functions' own rules: the version, who may check for updates, and the argument
// checks that every export makes before it touches a file.

#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "VantuUpdaterLib/LibraryTestFixture.h"

namespace vantu_test {
namespace {

using testing_support::WriteFile;

const std::string kPolicyHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
    "<key>Disable.Update</key>";
const std::string kPolicyTail = "\n</dict>\n</plist>\n";

class ExportsTest : public LibraryTest {
 protected:
  void WritePolicy(const std::string& value) {
    ::mkdir((sandbox.root() + "/etc").c_str(), 0755);
    WriteFile(sandbox.PolicyFile(), kPolicyHead + value + kPolicyTail);
  }
};

// Without a policy only administrators may check: members of an administrator group, compared
// by exact name.
TEST_F(ExportsTest, EnabledOnlyForAdministratorGroups) {
  struct Case {
    std::vector<std::string> groups;
    int32_t enabled;
  };
  const std::vector<Case> cases = {{{"admin"}, 1},
                                   {{"sudo"}, 1},
                                   {{"wheel"}, 1},
                                   {{"users", "root"}, 1},
                                   {{"x", "admin2", "sudo"}, 1},
                                   {{}, 0},
                                   {{"users"}, 0},
                                   {{"admin2", "sudoers", "Admin", "wheel ", "adm"}, 0}};
  for (const Case& c : cases) {
    sandbox.env().SetGroups(c.groups);
    EXPECT_EQ(c.enabled, ROZIsUpdateCheckEnabled()) << ::testing::PrintToString(c.groups);
  }
}

// The policy can only switch checks off; an answer of the wrong type is no answer.
TEST_F(ExportsTest, PolicyDisablesEvenForAdministratorsAndIsReadAfresh) {
  BecomeAdministrator();
  WritePolicy("<true/>");
  EXPECT_EQ(0, ROZIsUpdateCheckEnabled());
  WritePolicy("<false/>");
  EXPECT_EQ(1, ROZIsUpdateCheckEnabled());
  WritePolicy("<string>true</string>");
  EXPECT_EQ(1, ROZIsUpdateCheckEnabled());

  BecomeOrdinaryUser();
  WritePolicy("<false/>");
  EXPECT_EQ(0, ROZIsUpdateCheckEnabled());
}

// Every request that needs checks enabled answers 7 first, even for arguments it would reject,
// and leaves no trace.
TEST_F(ExportsTest, DisabledRequestsAnswerSevenBeforeAnyCheck) {
  BecomeAdministrator();
  WritePolicy("<true/>");
  InstallUpdater();
  const auto before = sandbox.Snapshot();
  bool available = true;
  ROZMissingComptList empty = {0, nullptr};

  for (const int32_t result :
       {ROZIsUpdateAvailable(nullptr, nullptr, nullptr, 1, &available, true),
        ROZTriggerUpdateCheck(appID.c_str(), U(displayName), U(installPath), "en_US",
                              kROZTriggerManual, true),
        ROZDoPluginAction(""),
        ROZDownloadMissingComponents(appID.c_str(), U(displayName), U(installPath), "en_US", &empty,
                                     kROZDownloadMissingCompTypeDefault, true)})
    EXPECT_EQ(kROZResultUpdateCheckDisabled, result);
  EXPECT_TRUE(available);
  EXPECT_EQ(before, sandbox.Snapshot());
  EXPECT_TRUE(sandbox.Launches().empty());
}

// Each export's invalid arguments give 3 and create, change or start nothing: the limits one
// byte over, identifiers that are not one plain 7-bit file-name component (they name folders,
// files and locks), and the UTF-8 faults the check knows. Other applications' files, planted
// where a bad identifier would lead, stay as they were.
TEST_F(ExportsTest, InvalidArgumentsAreRejectedBeforeAnythingIsTouched) {
  BecomeAdministrator();
  InstallUpdater();
  ASSERT_EQ(kROZResultOK, Register(otherAppID));
  const std::string data = sandbox.CacheDataDir();
  for (const std::string& file :
       {data + "/UpdateAvailable/" + otherAppID + "/1.xml", data + "/" + otherAppID + ".rzp.xml",
        sandbox.home() + "/.local/esc.rzp.xml"}) {
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    WriteFile(file, "<UpdateInfo><Result>1</Result></UpdateInfo>");
  }

  // The third is valid UTF-8 but not 7-bit.
  const std::vector<std::string> badIDs = {"",
                                           std::string(257, 'a'),
                                           "org.example.caf\xC3\xA9",
                                           ".",
                                           "..",
                                           "org/example",
                                           "../../../../esc",
                                           "org.example\tA",
                                           "org.example\x7F"};
  const std::string name = displayName, path = installPath, id = appID;
  const std::string name513(513, 'n'), path256 = "/" + std::string(255, 'p'), none;
  const std::vector<std::string> badTexts = {
      "Host \xC0\x80" /* overlong */, "Host \xEF\xBF\xBE" /* U+FFFE */,
      "Host \xEF\xB7\x90" /* U+FDD0 */, "Host \xE2\x82" /* truncated */, "\x80Host"};
  bool available = false;
  const Components components = {{"fonts", "Serif", "1.0.0.0"}};
  using Export = std::function<int32_t(const char*, const unsigned char*, const unsigned char*)>;
  const std::vector<std::pair<std::string, Export>> exports = {
      {"register", ROZRegisterApplication},
      {"available",
       [&](auto a, auto n, auto p) { return ROZIsUpdateAvailable(a, n, p, 7, &available, true); }},
      {"trigger",
       [](auto a, auto n, auto p) {
         return ROZTriggerUpdateCheck(a, n, p, "en_US", kROZTriggerManual, true);
       }},
      {"download", [&](auto a, auto n, auto p) {
         return ROZDownloadMissingComponents(a, n, p, "en_US", &components.list,
                                             kROZDownloadMissingCompTypeDefault, true);
       }}};

  // (label, identifier or null, name, path); the trigger alone accepts a null identifier, which
  // then means "every application".
  struct Row {
    std::string label;
    const char* id;
    const unsigned char* name;
    const unsigned char* path;
  };
  std::vector<Row> rows;
  for (const std::string& badID : badIDs)
    rows.push_back({"appID", badID.c_str(), U(name), U(path)});
  for (const char* a : {id.c_str(), static_cast<const char*>(nullptr)}) {
    rows.push_back({"null name", a, nullptr, U(path)});
    rows.push_back({"empty name", a, U(none), U(path)});
    rows.push_back({"name of 513 bytes", a, U(name513), U(path)});
    rows.push_back({"null path", a, U(name), nullptr});
    rows.push_back({"empty path", a, U(name), U(none)});
  }
  for (const std::string& bad : badTexts) {
    rows.push_back({"bad UTF-8 name", id.c_str(), U(bad), U(path)});
    rows.push_back({"bad UTF-8 path", id.c_str(), U(name), U(bad)});
  }
  rows.push_back({"path of 256 bytes", id.c_str(), U(name), U(path256)});
  rows.push_back({"null appID", nullptr, U(name), U(path)});

  const auto before = sandbox.Snapshot();
  const auto rejected = [&](const std::string& label, int32_t result) {
    EXPECT_EQ(kROZResultInvalidArgument, result) << label;
    ASSERT_EQ(before, sandbox.Snapshot()) << label << " left something on disk";
  };
  for (const auto& [exportName, call] : exports) {
    for (const Row& row : rows) {
      if ((row.label == "path of 256 bytes" && exportName == "download") ||
          (row.label == "null appID" && exportName == "trigger"))
        continue;
      rejected(exportName + ": " + row.label, call(row.id, row.name, row.path));
    }
  }
  std::vector<const char*> ids = {nullptr};
  for (const std::string& badID : badIDs) ids.push_back(badID.c_str());
  for (const char* badID : ids) {
    rejected("unregister", ROZUnRegisterApplication(badID));
    rejected("plug-in", ROZDoPluginAction(badID));
  }
  EXPECT_TRUE(sandbox.Launches().empty());
}

// The limits are inclusive byte counts, and the UTF-8 check is no stricter than it says.
TEST_F(ExportsTest, ArgumentsAtTheirLimitsAreAccepted) {
  BecomeAdministrator();
  const std::string id256(256, 'a');
  const std::string name512(512, 'n');
  const std::string path255 = "/" + std::string(254, 'p');
  EXPECT_EQ(kROZResultOK, ROZRegisterApplication(id256.c_str(), U(name512), U(path255)));
  const std::string registry = FileText(sandbox.RegistryFile());
  EXPECT_NE(std::string::npos, registry.find("appID=\"" + id256 + "\""));
  EXPECT_NE(std::string::npos, registry.find(name512));
  EXPECT_NE(std::string::npos, registry.find(path255));

  // A four-byte character passes and is stored as given.
  const std::string fourByteName = "Host \xF0\x9F\x8E\xB5";
  EXPECT_EQ(kROZResultOK, ROZRegisterApplication(appID.c_str(), U(fourByteName), U(installPath)));
  EXPECT_NE(std::string::npos, FileText(sandbox.RegistryFile()).find(fourByteName));

  // The identifier limit holds for the other exports too: 256 bytes pass the checks and reach
  // the store, which does not know the application.
  EXPECT_EQ(kROZResultNotRegistered, ROZUnRegisterApplication(std::string(256, 'b').c_str()));
  EXPECT_EQ(kROZResultNotRegistered, ROZDoPluginAction(std::string(256, 'b').c_str()));

  // Without an updater installed, requests that pass every check end in 2, not 3: the download
  // has no path limit, the language is never a reason to reject, and the UTF-8 check lets an
  // encoded surrogate through (the empty list keeps it out of the store).
  const std::string path300 = "/" + std::string(299, 'p');
  const std::string surrogateName = "Host \xED\xA0\x80";
  ROZMissingComptList empty = {0, nullptr};
  EXPECT_EQ(2, ROZDownloadMissingComponents(appID.c_str(), U(surrogateName), U(path300), "\xFF",
                                            &empty, kROZDownloadMissingCompTypeDefault, false));
  EXPECT_EQ(2, ROZTriggerUpdateCheck(appID.c_str(), U(displayName), U(path255), "x",
                                     kROZTriggerManual, false));
}

}  // namespace
}  // namespace vantu_test
