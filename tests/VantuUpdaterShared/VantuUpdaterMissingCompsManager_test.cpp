#include "xplat/VantuUpdaterMissingCompsManager.h"

#include <array>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/FileStamp.h"
#include "support/LockFiles.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/FileSystemUtils.h"

namespace {

using Manager = VantuUpdaterMissingCompsManager;
constexpr unsigned kAdded = Manager::kAdded;
constexpr unsigned kListed = Manager::kAlreadyListed;
constexpr unsigned kFailed = Manager::kUpdateFailed;
using testing_support::ReadFile;
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
  return Manager().UpdateWithAppAndCompData(
      id, reinterpret_cast<const unsigned char*>(name),
      reinterpret_cast<const unsigned char*>(path), opType, comp ? &c[0] : nullptr,
      category ? &k[0] : nullptr, version ? &v[0] : nullptr);
}

unsigned RequestA(const char* comp, const char* category, const char* version,
                  const char* name = "Alpha") {
  return Request("A", name, "/opt/a", 1, comp, category, version);
}

class MissingCompsStore : public ::testing::Test {
 protected:
  void SetUp() override { Manager makesFolders; }

  testing_support::UpdaterSandbox mSandbox;
  const std::string mStorePath = mSandbox.MissingCompsFile();
  testing_support::LockFileGuard mLockGuard{mStorePath};
};

// Exact text in the per-user folder, the owner's alone, no journal. A listed component is
// written only when name, path or type changed; a new version is added to the entry. "*" stands
// for any name on either side, never for a category, a version or another application
// (identifiers compare exactly). No home, no store.
TEST_F(MissingCompsStore, RequestsAreListedOnceAndSavedOnlyWhenChanged) {
  const struct {
    const char* id;
    const char* name;
    const char* path;
    int opType;
    const char* comp;
    const char* category;
    const char* version;
    unsigned result;
  } requests[] = {
      {"W", "Writer & Co", "/opt/W", 7, "Spelling", "Dictionary", "1.0", kAdded},
      {"W", "Writer & Co", "/opt/W", 7, "Spelling", "Dictionary", "1.0.0.0", kListed},  // unchanged
      {"W", "Writer & Co", "/opt/W", 7, "*", "Dictionary", "1.0", kListed},             // unchanged
      {"W", "Writer", "/opt/W", 7, "Spelling", "Dictionary", "1.0", kListed},
      {"W", "Writer", "/srv/w", 4, "Spelling", "Dictionary", "1.0", kListed},
      {"W", "Writer", "/srv/w", 4, "Spelling", "Dictionary", "1.0.0.1", kAdded},
      {"W", "Writer", "/srv/w", 4, "*", "Thesaurus", "1.0", kAdded},
      {"W", "Writer", "/srv/w", 4, "Grammar", "Thesaurus", "1.0", kListed},
      {"w", "Writer", "/srv/w", 4, "Grammar", "Thesaurus", "1.0", kAdded},
  };
  std::string before;
  testing_support::FileStamp stamp;
  for (const auto& r : requests) {
    EXPECT_EQ(r.result, Request(r.id, r.name, r.path, r.opType, r.comp, r.category, r.version))
        << r.id << " " << r.name << " " << r.comp << " " << r.category << " " << r.version;
    if (&r == &requests[0]) {
      EXPECT_EQ(Store(Entry("W", 7, "Writer &amp; Co", "/opt/W",
                            Comp("Spelling", "Dictionary", "1.0.0.0"))),
                ReadFile(mStorePath));
      uint16_t mode = 0;
      EXPECT_TRUE(FileSystemUtils::GetFilePermission(mStorePath, mode) && mode == 0600);
      before = ReadFile(mStorePath);
      stamp = testing_support::StampOf(mStorePath);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } else if (&r == &requests[2]) {
      EXPECT_EQ(before, ReadFile(mStorePath));
      EXPECT_TRUE(stamp == testing_support::StampOf(mStorePath));
    }
  }
  EXPECT_EQ(Store(Entry("W", 4, "Writer", "/srv/w",
                        Comp("Spelling", "Dictionary", "1.0.0.0") +
                            Comp("Spelling", "Dictionary", "1.0.0.1") +
                            Comp("*", "Thesaurus", "1.0.0.0")) +
                  Entry("w", 4, "Writer", "/srv/w", Comp("Grammar", "Thesaurus", "1.0.0.0"))),
            ReadFile(mStorePath));
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath + "_"));

  mSandbox.env().SetHome("");
  EXPECT_THROW(Manager(), std::runtime_error);
}

// Null arguments, markup or blanks in (unescaped) attributes, incomplete entries, an unparsable
// version or store: failure, and nothing written (a damaged store is removed once its manager
// goes).
TEST_F(MissingCompsStore, BadRequestsFailAndWriteNothing) {
  ASSERT_EQ(kAdded, RequestA("Spelling", "Dictionary", "1.0"));
  const std::string before = ReadFile(mStorePath);
  for (int i = 0; i < 6; ++i) {
    std::array<const char*, 6> args = {"A", "Alpha", "/opt/a", "Fonts", "Extras", "1.0"};
    args[i] = nullptr;
    EXPECT_EQ(kFailed, Request(args[0], args[1], args[2], 1, args[3], args[4], args[5])) << i;
  }
  // A tab, line feed or carriage return in an attribute would read back as a blank: the entry or
  // component would never be found again, and every request would add it once more.
  for (const char* bad : {"B\"", "B<", "B&", "B\tb", "B\nb", "B\rb"}) {
    EXPECT_EQ(kFailed, Request(bad, "Beta", "/opt/b", 1, "Spelling", "Dictionary", "1.0")) << bad;
    EXPECT_EQ(kFailed, RequestA(bad, "Dictionary", "1.0")) << bad;
    EXPECT_EQ(kFailed, RequestA("Spelling", bad, "1.0")) << bad;
  }
  EXPECT_EQ(kFailed, RequestA("Spelling", "Dictionary", ".1", "Renamed"));
  VantuUpdaterMissingCompsApp complete("A", 1), noName("A", 1), noPath("A", 1), noID("", 1);
  for (auto* entry : {&complete, &noPath, &noID}) entry->SetDisplayName("Alpha");
  for (auto* entry : {&complete, &noName, &noID}) entry->SetInstallPath("/opt/a");
  for (auto* entry : {&noName, &noPath, &noID})
    EXPECT_EQ(kFailed, Manager().InsertMissingCompsApp(*entry));
  EXPECT_EQ(before, ReadFile(mStorePath));

  const std::string damaged = "<VantuUpdaterMissingCompsManager><Vantu";
  WriteFile(mStorePath, damaged);
  {
    Manager store;
    EXPECT_EQ(kFailed, store.InsertMissingCompsApp(complete));
    EXPECT_EQ(damaged, ReadFile(mStorePath));
  }
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath));
}

// A load drops an entry without an identifier, found before a good one, and saves at once;
// foreign elements ride along.
TEST_F(MissingCompsStore, EntriesWithoutIdentifierAreDroppedOnLoad) {
  const std::string tail = "<DisplayName>N</DisplayName>\n<InstallPath>/n</InstallPath>\n"
                           "</VantuUpdaterMissingCompsApp>\n";
  const std::string good = "<Note>keep</Note>\n" +
                           Entry("A", 1, "Alpha", "/opt/a", Comp("Spelling", "Dictionary", "1.0.0.0"));
  for (const char* id : {"", "AppID=\"\" "}) {
    const std::string bad =
        std::string("<VantuUpdaterMissingCompsApp ") + id + "OperationType=\"1\">\n" + tail;
    WriteFile(mStorePath, Store(bad + good));
    EXPECT_EQ(kListed, RequestA("Spelling", "Dictionary", "1.0")) << bad;
    EXPECT_EQ(Store(good), ReadFile(mStorePath)) << bad;
  }
}

}  // namespace
