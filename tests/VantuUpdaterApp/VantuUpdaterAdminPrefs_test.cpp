// The administrator's policy file: which contents give an answer, read afresh on every call,
// only from the machine-wide folder.
#include "xplat/VantuUpdaterAdminPrefs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "support/Unprivileged.h"
#include "support/UpdaterSandbox.h"
#include "xplat/ScopedEnv.h"

namespace {

namespace fs = std::filesystem;
using testing_support::TestEnv;
using testing_support::WriteFile;

std::string XmlPolicy(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body +
         "\n</plist>\n";
}

const std::string kDisabled = XmlPolicy("<dict><key>Disable.Update</key><true/></dict>");

// A policy that disables checks and also holds `depth` arrays nested in one another, written by
// hand: the library's own writer would recurse as deeply as the parser does.
std::string NestedPolicy(size_t depth, bool binary) {
  if (!binary) {
    std::string arrays;
    for (size_t i = 0; i < depth; ++i) arrays += "<array>";
    for (size_t i = 0; i < depth; ++i) arrays += "</array>";
    return XmlPolicy("<dict><key>Disable.Update</key><true/><key>Deep</key>" + arrays + "</dict>");
  }
  // Objects: 0 the root dictionary, 1 and 2 its keys, 3 true, 4.. the arrays, each holding the
  // next; the innermost is empty. References and offsets are four bytes wide.
  std::string out = "bplist00";
  std::vector<uint32_t> offsets;
  auto put32 = [](std::string& to, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) to += static_cast<char>((value >> shift) & 0xFF);
  };
  offsets.push_back(out.size());
  out += '\xD2';
  for (uint32_t ref : {1u, 2u, 3u, 4u}) put32(out, ref);
  offsets.push_back(out.size());
  out += "\x5E" "Disable.Update";
  offsets.push_back(out.size());
  out += "\x54" "Deep";
  offsets.push_back(out.size());
  out += '\x09';
  for (size_t i = 0; i < depth; ++i) {
    offsets.push_back(out.size());
    if (i + 1 == depth) {
      out += '\xA0';
    } else {
      out += '\xA1';
      put32(out, static_cast<uint32_t>(5 + i));
    }
  }
  const uint32_t table = static_cast<uint32_t>(out.size());
  for (uint32_t offset : offsets) put32(out, offset);
  out += std::string(6, '\0') + "\x04\x04";
  for (uint64_t value : {uint64_t{offsets.size()}, uint64_t{0}, uint64_t{table}}) {
    put32(out, static_cast<uint32_t>(value >> 32));
    put32(out, static_cast<uint32_t>(value));
  }
  return out;
}

// The answer, or nullopt for none; no answer must leave the caller's value alone.
std::optional<bool> Ask() {
  for (bool start : {true, false}) {
    bool enabled = start;
    if (VantuUpdaterAdminPrefs::GetVantuUpdaterAdminPrefs().GetUpdateCheckEnabled(enabled))
      return enabled;
    EXPECT_EQ(enabled, start) << "no answer changed the caller's value";
  }
  return std::nullopt;
}

class AdminPrefsTest : public ::testing::Test {
 protected:
  void WritePolicy(const std::string& bytes) {
    fs::create_directories(mSandbox.root() + "/etc");
    WriteFile(mSandbox.PolicyFile(), bytes);
  }
  testing_support::UpdaterSandbox mSandbox;
};

// Only a boolean "Disable.Update" answers, in XML or binary form (other booleans, keys and
// contents are the policy fuzzer's); the answer follows every edit, and a missing file or folder gives none (and is never
// created). A policy file in the user's own folders is never consulted.
TEST_F(AdminPrefsTest, OnlyABooleanInADictionaryAnswers) {
  for (const char* folder : {"/.config", "/.local/share", ""}) {
    fs::create_directories(mSandbox.home() + folder);
    WriteFile(mSandbox.home() + folder + "/com.vantu.VantuUpdater.Admin.plist", kDisabled);
  }
  EXPECT_EQ(Ask(), std::nullopt);
  EXPECT_FALSE(CreateVantuUpdaterAdminPrefsPropListRef());
  EXPECT_FALSE(fs::exists(mSandbox.root() + "/etc"));
  const std::pair<std::string, std::optional<bool>> cases[] = {
      {kDisabled, false},
      {XmlPolicy("<dict><key>Other</key><true/><key>Disable.Update</key><false/></dict>"), true},
      {XmlPolicy("<dict><key>Disable.Update</key><integer>1</integer></dict>"), std::nullopt},
      // Nesting is bounded before parsing: the parser recurses once per level and a deep enough
      // file would overflow the host's stack.
      {NestedPolicy(60, false), false},
      {NestedPolicy(60, true), false},
      {NestedPolicy(70, false), std::nullopt},
      {NestedPolicy(70, true), std::nullopt},
      {NestedPolicy(200000, false), std::nullopt},
      {NestedPolicy(200000, true), std::nullopt},
  };
  for (const auto& [bytes, expected] : cases) {
    WritePolicy(bytes);
    EXPECT_EQ(Ask(), expected) << bytes.substr(0, 200);
  }
  fs::remove(mSandbox.PolicyFile());
  EXPECT_EQ(Ask(), std::nullopt);
  fs::create_directory(mSandbox.PolicyFile());
  EXPECT_EQ(Ask(), std::nullopt) << "a folder";
  fs::remove(mSandbox.PolicyFile());
  ASSERT_EQ(mkfifo(mSandbox.PolicyFile().c_str(), 0600), 0);
  EXPECT_EQ(Ask(), std::nullopt) << "a named pipe, which must not block";
}

// The parsed list is handed out as a dictionary; a file the user cannot read gives nothing.
TEST_F(AdminPrefsTest, PropertyListIsReadableOnlyWhenTheFileIs) {
  WritePolicy(kDisabled);
  const esd::PropertyList list = CreateVantuUpdaterAdminPrefsPropListRef();
  ASSERT_TRUE(list);
  EXPECT_TRUE(list.IsDictionary());

  const std::string root = mSandbox.root();
  for (const std::string& path : {fs::path(root).parent_path().string(), root, root + "/etc"})
    chmod(path.c_str(), 0755);
  chmod(mSandbox.PolicyFile().c_str(), 0600);
  const int status = testing_support::RunUnprivileged([&] {
    if (access(mSandbox.PolicyFile().c_str(), R_OK) == 0) return 50;  // no such view for this user
    TestEnv env;
    env.SetRoot(root);
    esd::ScopedEnv scope(&env);
    return CreateVantuUpdaterAdminPrefsPropListRef() || Ask() ? 1 : 0;
  });
  if (status == 50) GTEST_SKIP() << "the file stays readable for this user";
  EXPECT_EQ(status, 0);
}

}  // namespace
