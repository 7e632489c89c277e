#include "xplat/VantuUpdaterMissingCompsManager.h"

#include <array>
#include <chrono>
#include <filesystem>
#include <list>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/FileStamp.h"
#include "support/LockFiles.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/ResourceLocker.h"

namespace {

using testing_support::ReadFile;
using testing_support::StampOf;
using testing_support::WriteFile;

std::string Comp(const std::string& name, const std::string& category, const std::string& v) {
  return "<AMissingComponent category=\"" + category + "\" name=\"" + name + "\" version=\"" + v +
         "\"></AMissingComponent>\n";
}

std::string Entry(const std::string& id, int opType, const std::string& name,
                  const std::string& path, const std::string& comps) {
  return "<VantuUpdaterMissingCompsApp AppID=\"" + id + "\" OperationType=\"" +
         std::to_string(opType) + "\" RedoCFU=\"1\">\n<DisplayName>" + name +
         "</DisplayName>\n<InstallPath>" + path + "</InstallPath>\n" + comps +
         "</VantuUpdaterMissingCompsApp>\n";
}

std::string Store(const std::string& entries) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<VantuUpdaterMissingCompsManager>\n" +
         entries + "</VantuUpdaterMissingCompsManager>\n";
}

// One request through a manager of its own, as the download workflow makes it; a null text
// argument is passed on as null.
unsigned Request(const char* id, const char* name, const char* path, int opType, const char* comp,
                 const char* category, const char* version) {
  std::string c(comp ? comp : ""), k(category ? category : ""), v(version ? version : "");
  return VantuUpdaterMissingCompsManager().UpdateWithAppAndCompData(
      id, reinterpret_cast<const unsigned char*>(name),
      reinterpret_cast<const unsigned char*>(path), opType, comp ? &c[0] : nullptr,
      category ? &k[0] : nullptr, version ? &v[0] : nullptr);
}

unsigned RequestA(const char* comp, const char* category, const char* version,
                  const char* name = "Alpha", const char* path = "/opt/a", int opType = 1) {
  return Request("A", name, path, opType, comp, category, version);
}

class MissingCompsStore : public ::testing::Test {
 protected:
  void SetUp() override { VantuUpdaterMissingCompsManager makesFolders; }
  bool StoreExists() const { return FileSystemUtils::DoesPathExist(mStorePath); }

  testing_support::UpdaterSandbox mSandbox;
  const std::string mStorePath = mSandbox.MissingCompsFile();
  testing_support::LockFileGuard mLockGuard{mStorePath};
};

// Exact text in the per-user folder, the owner's alone, no journal; no home, no store.
TEST_F(MissingCompsStore, FirstRequestsWriteTheExactText) {
  EXPECT_EQ(0u, Request("W", "Writer & Co", "/opt/W", 7, "Spelling", "Dictionary", "1.0"));
  EXPECT_EQ(
      Store(Entry("W", 7, "Writer &amp; Co", "/opt/W", Comp("Spelling", "Dictionary", "1.0.0.0"))),
      ReadFile(mStorePath));
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath + "_"));
  uint16_t mode = 0;
  ASSERT_TRUE(FileSystemUtils::GetFilePermission(mStorePath, mode));
  EXPECT_EQ(0600, mode);

  mSandbox.env().SetHome("");
  try {
    VantuUpdaterMissingCompsManager store;
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("Unable to determine missing comps filepath!", e.what());
  }
}

// A listed component: 1, written only when name, path or type changed; a new version: 0 and
// added to the entry (which stays bound to the loaded tree until the save).
TEST_F(MissingCompsStore, ListedComponentAnswersOneAndSavesOnlyChanges) {
  ASSERT_EQ(0u, RequestA("Spelling", "Dictionary", "1.0"));
  const std::string before = ReadFile(mStorePath);
  const testing_support::FileStamp stamp = StampOf(mStorePath);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(1u, RequestA("Spelling", "Dictionary", "1.0.0.0"));
  EXPECT_EQ(before, ReadFile(mStorePath));
  EXPECT_TRUE(stamp == StampOf(mStorePath));

  EXPECT_EQ(1u, RequestA("Spelling", "Dictionary", "1.0", "Alpha Pro"));
  const std::string comp = Comp("Spelling", "Dictionary", "1.0.0.0");
  EXPECT_EQ(Store(Entry("A", 1, "Alpha Pro", "/opt/a", comp)), ReadFile(mStorePath));
  EXPECT_EQ(1u, RequestA("Spelling", "Dictionary", "1.0", "Alpha Pro", "/srv/a", 4));
  EXPECT_EQ(Store(Entry("A", 4, "Alpha Pro", "/srv/a", comp)), ReadFile(mStorePath));
  EXPECT_EQ(0u, RequestA("Spelling", "Dictionary", "1.0.0.1", "Alpha Pro", "/srv/a", 4));
  EXPECT_EQ(
      Store(Entry("A", 4, "Alpha Pro", "/srv/a", comp + Comp("Spelling", "Dictionary", "1.0.0.1"))),
      ReadFile(mStorePath));
}

// "*" stands for any name on either side, never for a category, a version or another
// application (identifiers compare exactly).
TEST_F(MissingCompsStore, WildcardMatchesNamesOnly) {
  ASSERT_EQ(0u, RequestA("*", "Dictionary", "1.0"));
  EXPECT_EQ(1u, RequestA("Spelling", "Dictionary", "1.0"));
  EXPECT_EQ(0u, RequestA("Spelling", "Thesaurus", "1.0"));
  EXPECT_EQ(0u, RequestA("Spelling", "Dictionary", "2.0"));
  EXPECT_EQ(0u, Request("a", "Alpha", "/opt/a", 1, "*", "Dictionary", "1.0")) << "another app";
  ASSERT_EQ(0u, Request("B", "Beta", "/opt/b", 1, "Hyphenation", "Dictionary", "3.0"));
  EXPECT_EQ(1u, Request("B", "Beta", "/opt/b", 1, "*", "Dictionary", "3.0"));
  EXPECT_EQ(0u, Request("B", "Beta", "/opt/b", 1, "*", "Dictionary", "3.1"));
}

// The destructor deletes an empty or unparsable store and keeps one with entries as it was.
TEST_F(MissingCompsStore, DestructorDeletesEmptyOrUnparsableStore) {
  const std::pair<std::string, bool> cases[] = {
      {Store(""), false},
      {"<?xml version=\"1.0\"?>\n<VantuUpdaterMissingCompsManager>\n<VantuUpdater", false},
      {"", false},
      {Store(Entry("A", 1, "Alpha", "/opt/a", "")), true},
  };
  for (const auto& [bytes, kept] : cases) {
    WriteFile(mStorePath, bytes);
    { VantuUpdaterMissingCompsManager store; }
    EXPECT_EQ(kept ? bytes : "<gone>", StoreExists() ? ReadFile(mStorePath) : "<gone>");
    EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath + "_"));
  }
  std::filesystem::remove(mStorePath);
  { VantuUpdaterMissingCompsManager store; }
  EXPECT_FALSE(StoreExists());
}

// Null arguments, markup in (unescaped) attributes, incomplete entries, an unparsable store:
// 2, and nothing written.
TEST_F(MissingCompsStore, BadRequestsAnswerTwoAndWriteNothing) {
  ASSERT_EQ(0u, RequestA("Spelling", "Dictionary", "1.0"));
  const std::string before = ReadFile(mStorePath);
  for (int i = 0; i < 6; ++i) {
    std::array<const char*, 6> args = {"A", "Alpha", "/opt/a", "Fonts", "Extras", "1.0"};
    args[i] = nullptr;
    EXPECT_EQ(2u, Request(args[0], args[1], args[2], 1, args[3], args[4], args[5])) << i;
  }
  EXPECT_EQ(2u, RequestA("Spell\"ing", "Dictionary", "1.0"));
  EXPECT_EQ(2u, RequestA("Spelling", "Dict<", "1.0"));
  EXPECT_EQ(2u, Request("B&", "Beta", "/opt/b", 1, "Spelling", "Dictionary", "1.0"));
  // A tab, line feed or carriage return in an attribute would read back as a blank: the entry or
  // component would never be found again, and every request would add it once more.
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(2u, Request("B\tb", "Beta", "/opt/b", 1, "Spelling", "Dictionary", "1.0"));
    EXPECT_EQ(2u, RequestA("Spell\ning", "Dictionary", "1.0"));
    EXPECT_EQ(2u, RequestA("Spelling", "Dict\r", "1.0"));
  }
  EXPECT_EQ(before, ReadFile(mStorePath));

  VantuUpdaterMissingCompsApp complete("A", 1), noName("A", 1), noPath("A", 1), noID("", 1);
  for (auto* entry : {&complete, &noPath, &noID}) entry->SetDisplayName("Alpha");
  for (auto* entry : {&complete, &noName, &noID}) entry->SetInstallPath("/opt/a");
  for (auto* entry : {&noName, &noPath, &noID})
    EXPECT_EQ(2u, VantuUpdaterMissingCompsManager().InsertMissingCompsApp(*entry));
  EXPECT_EQ(before, ReadFile(mStorePath));

  const std::string damaged = "<VantuUpdaterMissingCompsManager><Vantu";
  WriteFile(mStorePath, damaged);
  {
    VantuUpdaterMissingCompsManager store;
    EXPECT_EQ(2u, store.InsertMissingCompsApp(complete));
    EXPECT_EQ(damaged, ReadFile(mStorePath));
  }
  WriteFile(mStorePath, damaged);
  EXPECT_EQ(2u, RequestA("Spelling", "Dictionary", "1.0"));
  EXPECT_EQ(0u, RequestA("Spelling", "Dictionary", "1.0")) << "the damaged store was removed";
}

// An unparsable version fails the request, and nothing of it (a new name here) is saved.
TEST_F(MissingCompsStore, UnparsableVersionSavesNothing) {
  ASSERT_EQ(0u, RequestA("Spelling", "Dictionary", "1.0"));
  const std::string before = ReadFile(mStorePath);
  EXPECT_EQ(2u, RequestA("Spelling", "Dictionary", ".1", "Renamed"));
  EXPECT_EQ(before, ReadFile(mStorePath));
}

// Loads drop every record a request cannot use, found before a good one, and save at once:
// entries without an identifier, a readable type, a name or a path, and components without a
// name, a category or a version. Foreign elements ride along.
TEST_F(MissingCompsStore, UnusableRecordsAreDroppedOnLoad) {
  const std::string comp = Comp("Spelling", "Dictionary", "1.0.0.0");
  const std::string tail = "<InstallPath>/n</InstallPath>\n</VantuUpdaterMissingCompsApp>\n";
  const std::string badEntries[] = {
      Entry("EmptyPath", 1, "E", "", ""), Entry("", 1, "N", "/n", ""),
      "<VantuUpdaterMissingCompsApp OperationType=\"1\">\n<DisplayName>N</DisplayName>\n" + tail,
      "<VantuUpdaterMissingCompsApp AppID=\"T\" OperationType=\"x\">\n<DisplayName>N</DisplayName>\n" +
          tail,
      "<VantuUpdaterMissingCompsApp AppID=\"NoName\" OperationType=\"1\">\n" + tail};
  const std::string good = "<Note>keep</Note>\n" + Entry("Good", 1, "Good", "/opt/good", comp);
  for (const std::string& bad : badEntries) {
    WriteFile(mStorePath, Store(bad + good));
    EXPECT_EQ(1u, Request("Good", "Good", "/opt/good", 1, "Spelling", "Dictionary", "1.0")) << bad;
    EXPECT_EQ(Store(good), ReadFile(mStorePath)) << bad;
  }
  for (const char* bad : {"category=\"Dictionary\" version=\"1.0\"", "name=\"S\" version=\"1.0\"",
                          "category=\"Dictionary\" name=\"S\"",
                          "category=\"Dictionary\" name=\"S\" version=\"\""}) {
    WriteFile(mStorePath, Store(Entry("Good", 1, "Good", "/opt/good",
                                      "<AMissingComponent " + std::string(bad) + "/>\n" + comp)));
    EXPECT_EQ(1u, Request("Good", "Good", "/opt/good", 1, "*", "Dictionary", "1.0")) << bad;
    EXPECT_EQ(Store(Entry("Good", 1, "Good", "/opt/good", comp)), ReadFile(mStorePath)) << bad;
  }
}

}  // namespace
