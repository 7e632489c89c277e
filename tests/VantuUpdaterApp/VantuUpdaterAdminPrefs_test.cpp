// The administrator's policy file: which contents give an answer, read afresh on every call,
// only from the machine-wide folder.
#include "xplat/VantuUpdaterAdminPrefs.h"

#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>

#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "support/Unprivileged.h"
#include "xplat/ScopedEnv.h"

namespace {

namespace fs = std::filesystem;
using testing_support::TempDir;
using testing_support::TestEnv;
using testing_support::WriteFile;

std::string XmlPolicy(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body +
         "\n</plist>\n";
}

std::string BinaryPolicy(bool disable) {
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, "Disable.Update", plist_new_bool(disable));
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(dict, &bytes, &length);
  plist_free(dict);
  std::string result(bytes, length);
  plist_to_bin_free(bytes);
  return result;
}

class AdminPrefsTest : public ::testing::Test {
 protected:
  AdminPrefsTest() : mScope(&mEnv) {
    mEnv.SetRoot(mBase / "root");
    mEnv.SetHome(mBase / "home");
    fs::create_directories(mBase / "root");
  }
  std::string policyFile() const { return mBase / "root/etc/com.vantu.VantuUpdater.Admin.plist"; }
  void WritePolicy(const std::string& bytes) {
    fs::create_directories(mBase / "root/etc");
    WriteFile(policyFile(), bytes);
  }
  // The answer, or nullopt for none; checks that no answer leaves `enabled` alone.
  static std::optional<bool> Ask() {
    for (bool start : {true, false}) {
      bool enabled = start;
      if (!VantuUpdaterAdminPrefs::GetVantuUpdaterAdminPrefs().GetUpdateCheckEnabled(enabled)) {
        EXPECT_EQ(enabled, start) << "no answer changed the caller's value";
        continue;
      }
      return enabled;
    }
    return std::nullopt;
  }

  TempDir mBase;
  TestEnv mEnv;
  esd::ScopedEnv mScope;
};

// Only a boolean "Disable.Update" in a root dictionary answers, in XML or binary form.
TEST_F(AdminPrefsTest, OnlyABooleanInADictionaryAnswers) {
  EXPECT_EQ(Ask(), std::nullopt) << "no etc folder";
  EXPECT_FALSE(fs::exists(mBase / "root/etc")) << "the folder is never created";
  fs::create_directories(mBase / "root/etc");
  EXPECT_EQ(Ask(), std::nullopt) << "no policy file";

  const std::pair<std::string, std::optional<bool>> cases[] = {
      {XmlPolicy("<dict><key>Disable.Update</key><true/></dict>"), false},
      {XmlPolicy("<dict><key>Disable.Update</key><false/></dict>"), true},
      {XmlPolicy("<dict><key>Other</key><true/><key>Disable.Update</key><false/></dict>"), true},
      {BinaryPolicy(true), false},
      {BinaryPolicy(false), true},
      {XmlPolicy("<dict><key>Disable.Update</key><string>true</string></dict>"), std::nullopt},
      {XmlPolicy("<dict><key>Disable.Update</key><integer>1</integer></dict>"), std::nullopt},
      {XmlPolicy("<dict><key>Disable.Update</key><real>1.0</real></dict>"), std::nullopt},
      {XmlPolicy("<dict><key>disable.update</key><true/></dict>"), std::nullopt},
      {XmlPolicy("<dict/>"), std::nullopt},
      {XmlPolicy("<array><dict><key>Disable.Update</key><true/></dict></array>"), std::nullopt},
      {XmlPolicy("<true/>"), std::nullopt},
      {"<?xml version=\"1.0\"?><plist><dict><key>Disable.Update</key><true/>", std::nullopt},
      {"bplist00 not really", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [bytes, expected] : cases) {
    SCOPED_TRACE(bytes);
    WritePolicy(bytes);
    EXPECT_EQ(Ask(), expected);
  }

  // Neither a folder nor a named pipe in its place is a policy, and the pipe does not block.
  fs::remove(policyFile());
  fs::create_directory(policyFile());
  EXPECT_EQ(Ask(), std::nullopt);
  fs::remove(policyFile());
  ASSERT_EQ(mkfifo(policyFile().c_str(), 0600), 0);
  EXPECT_EQ(Ask(), std::nullopt);
}

// Nothing is cached: the administrator's edit counts from the next call, and removing the file
// removes the answer.
TEST_F(AdminPrefsTest, EveryCallReadsTheFileAfresh) {
  WritePolicy(XmlPolicy("<dict><key>Disable.Update</key><true/></dict>"));
  EXPECT_EQ(Ask(), false);
  WritePolicy(XmlPolicy("<dict><key>Disable.Update</key><false/></dict>"));
  EXPECT_EQ(Ask(), true);
  fs::remove(policyFile());
  EXPECT_EQ(Ask(), std::nullopt);
  EXPECT_EQ(&VantuUpdaterAdminPrefs::GetVantuUpdaterAdminPrefs(),
            &VantuUpdaterAdminPrefs::GetVantuUpdaterAdminPrefs());
}

// A policy file in the user's own folders is never consulted.
TEST_F(AdminPrefsTest, UsersOwnPolicyFileIsIgnored) {
  for (const char* folder : {"home/.config", "home/.local/share", "home"}) {
    fs::create_directories(mBase / folder);
    WriteFile(mBase / (std::string(folder) + "/com.vantu.VantuUpdater.Admin.plist"),
              XmlPolicy("<dict><key>Disable.Update</key><true/></dict>"));
  }
  EXPECT_EQ(Ask(), std::nullopt);
  EXPECT_FALSE(CreateVantuUpdaterAdminPrefsPropListRef());
}

// The parsed list is handed out as a dictionary; a file the user cannot read gives nothing.
TEST_F(AdminPrefsTest, PropertyListIsReadableOnlyWhenTheFileIs) {
  WritePolicy(XmlPolicy("<dict><key>Disable.Update</key><true/></dict>"));
  const esd::PropertyList list = CreateVantuUpdaterAdminPrefsPropListRef();
  ASSERT_TRUE(list);
  EXPECT_TRUE(list.IsDictionary());

  for (const std::string& path : {mBase.path(), mBase / "root", mBase / "root/etc"})
    chmod(path.c_str(), 0755);
  chmod(policyFile().c_str(), 0600);
  const int status = testing_support::RunUnprivileged([&] {
    if (access(policyFile().c_str(), R_OK) == 0) return 50;  // still readable: no such view
    TestEnv env;
    env.SetRoot(mBase / "root");
    esd::ScopedEnv scope(&env);
    bool enabled = true;
    if (CreateVantuUpdaterAdminPrefsPropListRef()) return 1;
    return VantuUpdaterAdminPrefs::GetVantuUpdaterAdminPrefs().GetUpdateCheckEnabled(enabled) ? 2
                                                                                                : 0;
  });
  if (status == 50) GTEST_SKIP() << "the file stays readable for this user";
  EXPECT_EQ(status, 0);
}

}  // namespace
