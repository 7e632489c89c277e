// The exported functions' own rules: who may check for updates, and the argument checks that
// every export makes before it touches a file.

#include <sys/stat.h>

#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "VantuUpdaterLib/LibraryTestFixture.h"

namespace vantu_test {
namespace {

using ExportsTest = LibraryTest;

// Without a policy only members of an administrator group, compared by exact name, may check.
// The policy, read afresh each time, can only switch checks off.
TEST_F(ExportsTest, ChecksAreForAdministratorsUnlessThePolicySwitchesThemOff) {
  const struct {
    std::vector<std::string> groups;
    const char* disable;  // the policy's "Disable.Update"; null: no policy
    int32_t enabled;
  } cases[] = {
      {{"admin"}, nullptr, 1},
      {{"sudo"}, nullptr, 1},
      {{"wheel"}, nullptr, 1},
      {{"users", "root"}, nullptr, 1},
      {{"x", "admin2", "sudo"}, nullptr, 1},
      {{}, nullptr, 0},
      {{"users"}, nullptr, 0},
      {{"admin2", "sudoers", "Admin", "wheel ", "adm"}, nullptr, 0},
      {{"admin"}, "<true/>", 0},
      {{"admin"}, "<false/>", 1},
      {{"users"}, "<false/>", 0},
  };
  ::mkdir((sandbox.root() + "/etc").c_str(), 0755);
  for (const auto& c : cases) {
    sandbox.env().SetGroups(c.groups);
    std::remove(sandbox.PolicyFile().c_str());
    if (c.disable != nullptr)
      testing_support::WriteFile(sandbox.PolicyFile(),
                                 "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>"
                                 "Disable.Update</key>" + std::string(c.disable) + "</dict></plist>");
    EXPECT_EQ(c.enabled, ROZIsUpdateCheckEnabled())
        << ::testing::PrintToString(c.groups) << (c.disable ? c.disable : "");
  }
}

// Arguments one byte over their limit, identifiers that are not one plain 7-bit file-name
// component (they name folders, files and locks) and text that is not UTF-8 give 3 and leave the
// machine as it was. The limits are inclusive, an encoded surrogate passes, the download has no
// path limit and the language is never a reason to refuse; without an application the trigger
// checks only the name and that there is a path.
TEST_F(ExportsTest, EachExportChecksItsArguments) {
  BecomeAdministrator();
  using Text = std::optional<std::string>;
  const Text id = appID, name = displayName, path = installPath, null;
  const std::string all = "ruatpd";  // register, unregister, available, trigger, plug-in, download
  const struct {
    const char* what;
    Text id, name, path;
    std::string refusedBy;
    const char* language = "en_US";
  } rows[] = {
      {"empty identifier", "", name, path, all},
      {"identifier of 257 bytes", std::string(257, 'a'), name, path, all},
      {"identifier of 256 bytes", std::string(256, 'a'), name, path, ""},
      {"identifier not 7-bit", "org.example.caf\xC3\xA9", name, path, all},
      {"identifier .", ".", name, path, all},
      {"identifier ..", "..", name, path, all},
      {"identifier with /", "org/example", name, path, all},
      {"identifier climbing out", "../../../../esc", name, path, all},
      {"identifier with a tab", "org.example\tA", name, path, all},
      {"identifier with DEL", "org.example\x7F", name, path, all},
      {"null identifier", null, name, path, "ruapd"},
      {"null name", id, null, path, "ratd"},
      {"empty name", id, "", path, "ratd"},
      {"name of 513 bytes", id, std::string(513, 'n'), path, "ratd"},
      {"name of 512 bytes", id, std::string(512, 'n'), path, ""},
      {"overlong name", id, "Host \xC0\x80", path, "ratd"},
      {"encoded surrogate in the name", id, "Host \xED\xA0\x80", path, ""},
      {"null path", id, name, null, "ratd"},
      {"empty path", id, name, "", "ratd"},
      {"truncated path", id, name, "/opt/\xE2\x82", "ratd"},
      {"path of 255 bytes", id, name, "/" + std::string(254, 'p'), ""},
      {"path of 256 bytes", id, name, "/" + std::string(255, 'p'), "rat"},
      {"no language code", id, name, path, "", "\xFF"},
      {"no application, null name", null, null, path, all},
      {"no application, empty name", null, "", path, all},
      {"no application, name of 513 bytes", null, std::string(513, 'n'), path, all},
      {"no application, null path", null, name, null, all},
      {"no application, empty path", null, name, "", all},
      {"no application, overlong path", null, name, "/opt/\xC0\x80", "ruapd"},
  };
  const Components components = {{"fonts", "Serif", "1.0.0.0"}};
  for (const auto& row : rows) {
    const char* a = row.id ? row.id->c_str() : nullptr;
    const unsigned char* n = row.name ? U(*row.name) : nullptr;
    const unsigned char* p = row.path ? U(*row.path) : nullptr;
    bool available = false;
    const std::pair<char, std::function<int32_t()>> exports[] = {
        {'r', [&] { return ROZRegisterApplication(a, n, p); }},
        {'u', [&] { return ROZUnRegisterApplication(a); }},
        {'a', [&] { return ROZIsUpdateAvailable(a, n, p, 7, &available, true); }},
        {'t', [&] { return ROZTriggerUpdateCheck(a, n, p, row.language, kROZTriggerManual, true); }},
        {'p', [&] { return ROZDoPluginAction(a); }},
        {'d', [&] {
           return ROZDownloadMissingComponents(a, n, p, row.language, &components.list,
                                               kROZDownloadMissingCompTypeDefault, true);
         }}};
    for (const auto& [letter, call] : exports) {
      SCOPED_TRACE(std::string(1, letter) + ": " + row.what);
      const auto before = sandbox.Snapshot();
      if (row.refusedBy.find(letter) == std::string::npos) {
        EXPECT_NE(kROZResultInvalidArgument, call());
        continue;
      }
      EXPECT_EQ(kROZResultInvalidArgument, call());
      EXPECT_EQ(before, sandbox.Snapshot()) << "left something on disk";
    }
  }
}

}  // namespace
}  // namespace vantu_test
