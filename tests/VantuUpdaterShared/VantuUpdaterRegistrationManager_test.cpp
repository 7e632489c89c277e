#include "xplat/VantuUpdaterRegistrationManager.h"

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/FileStamp.h"
#include "support/LockHolder.h"
#include "support/LockFiles.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/ResourceLocker.h"

namespace {

using testing_support::ReadFile;
using testing_support::StampOf;
using testing_support::WriteFile;

VantuUpdaterRegisteredApp MakeApp(const std::string& id, const std::string& name,
                                  const std::string& path) {
  VantuUpdaterRegisteredApp app(id);
  app.SetDisplayName(name);
  app.SetInstallPath(path);
  return app;
}

std::string Entry(const std::string& id, const std::string& name, const std::string& path) {
  return "<Application appID=\"" + id + "\">\n<DisplayName>" + name +
         "</DisplayName>\n<InstallPath>" + path + "</InstallPath>\n</Application>\n";
}

std::string Store(const std::string& entries) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<VantuUpdaterRegistrationManager>\n" +
         entries + "</VantuUpdaterRegistrationManager>\n";
}

unsigned Insert(const std::string& id, const std::string& name, const std::string& path) {
  VantuUpdaterRegisteredApp app = MakeApp(id, name, path);
  return VantuUpdaterRegistrationManager().InsertOrUpdateRegisteredApp(app);
}

unsigned Unregister(const std::string& id) {
  return VantuUpdaterRegistrationManager().UnregisterApp(id);
}

class RegistrationStore : public ::testing::Test {
 protected:
  void SetUp() override { VantuUpdaterRegistrationManager makesFolders; }
  bool StoreExists() const { return FileSystemUtils::DoesPathExist(mStorePath); }
  uint16_t StoreMode() const {
    uint16_t mode = 0;
    FileSystemUtils::GetFilePermission(mStorePath, mode);
    return mode;
  }

  testing_support::UpdaterSandbox mSandbox;
  const std::string mStorePath = mSandbox.RegistryFile();
  testing_support::LockFileGuard mLockGuard{mStorePath};
};

// Exact text (name escaped), restricted permission, no journal; no data folder, no store.
TEST_F(RegistrationStore, FirstInsertionsWriteTheExactText) {
  EXPECT_EQ(0u, Insert("com.example.Writer", "Writer & <Co>", "/opt/Writer Pro"));
  EXPECT_EQ(Store(Entry("com.example.Writer", "Writer &amp; &lt;Co&gt;", "/opt/Writer Pro")),
            ReadFile(mStorePath));
  EXPECT_EQ(0664, StoreMode());
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath + "_"));

  WriteFile(mSandbox.home() + "/plain-file", "x");
  mSandbox.env().SetRoot(mSandbox.home() + "/plain-file");
  try {
    VantuUpdaterRegistrationManager store;
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("Unable to determine registration filepath!", e.what());
  }
}

// Unchanged: 2, bytes and mtime kept, as for a record with an empty identifier, name or path (3);
// changed: 1 and moved last; identifiers compare exactly.
TEST_F(RegistrationStore, ReinsertionKeepsOrReplacesTheEntry) {
  for (const char* id : {"A", "B", "C"}) ASSERT_EQ(0u, Insert(id, id, "/opt"));
  const std::string before = ReadFile(mStorePath);
  const testing_support::FileStamp stamp = StampOf(mStorePath);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(2u, Insert("A", "A", "/opt"));
  EXPECT_EQ("333", std::to_string(Insert("", "N", "/p")) + std::to_string(Insert("X", "", "/p")) +
                       std::to_string(Insert("X", "N", "")));
  EXPECT_EQ(before, ReadFile(mStorePath));
  EXPECT_TRUE(stamp == StampOf(mStorePath));

  EXPECT_EQ(1u, Insert("A", "A", "/opt/a2"));
  EXPECT_EQ(1u, Insert("B", "Beta 2", "/opt"));
  EXPECT_EQ(0u, Insert("c", "c", "/opt"));
  EXPECT_EQ(1u, Unregister("a"));
  EXPECT_EQ(Store(Entry("C", "C", "/opt") + Entry("A", "A", "/opt/a2") +
                  Entry("B", "Beta 2", "/opt") + Entry("c", "c", "/opt")),
            ReadFile(mStorePath));
}

// Refusals and misses leave the file alone; the last removal deletes it.
TEST_F(RegistrationStore, UnregisterResults) {
  EXPECT_EQ(2u, Unregister("A"));
  EXPECT_FALSE(StoreExists());
  ASSERT_EQ(0u, Insert("A", "Alpha", "/opt/a"));
  ASSERT_EQ(0u, Insert("B", "Beta", "/opt/b"));
  const testing_support::FileStamp stamp = StampOf(mStorePath);
  EXPECT_EQ(2u, Unregister("VantuUpdater"));
  EXPECT_EQ(1u, Unregister("Z"));
  EXPECT_TRUE(stamp == StampOf(mStorePath));
  EXPECT_EQ(0u, Unregister("A"));
  EXPECT_EQ(Store(Entry("B", "Beta", "/opt/b")), ReadFile(mStorePath));
  EXPECT_EQ(0u, Unregister("B"));
  EXPECT_FALSE(StoreExists());
}

// The updater's record comes from its running location, never from the file.
TEST_F(RegistrationStore, UpdaterRecordIsMadeUpOnTheSpot) {
  const std::string programDir = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  VantuUpdaterRegistrationManager store;
  for (bool planted : {false, true}) {
    if (planted) WriteFile(mStorePath, Store(Entry("VantuUpdater", "Impostor", "/tmp/evil")));
    std::unique_ptr<VantuUpdaterRegisteredApp> record;
    ASSERT_TRUE(store.GetRegisteredApplicationByAppID("VantuUpdater", record));
    std::string id, name, path;
    EXPECT_TRUE(record->GetappID(id) && record->GetDisplayName(name) &&
                record->GetInstallPath(path));
    EXPECT_EQ("VantuUpdater|Vantu Updater|" + programDir, id + "|" + name + "|" + path);
    EXPECT_EQ(planted, StoreExists());
  }
}

// Records handed out are private copies: they outlive the manager's tree, and a caller's change
// never reaches the file. A failed lookup leaves the caller's pointer alone.
TEST_F(RegistrationStore, RecordsHandedOutAreDetached) {
  ASSERT_EQ(0u, Insert("A", "Alpha", "/opt/a"));
  std::list<VantuUpdaterRegisteredApp> all;
  std::unique_ptr<VantuUpdaterRegisteredApp> found;
  {
    VantuUpdaterRegistrationManager store;
    ASSERT_TRUE(store.GetRegisteredApps(all) && store.GetRegisteredApplicationByAppID("A", found));
  }
  std::string name, path;
  EXPECT_TRUE(all.front().GetDisplayName(name) && found->GetInstallPath(path));
  EXPECT_EQ("Alpha /opt/a", name + " " + path);
  all.front().SetDisplayName("Changed by caller");
  found->SetInstallPath("/changed/by/caller");
  VantuUpdaterRegistrationManager store;
  VantuUpdaterRegisteredApp b = MakeApp("B", "Beta", "/opt/b");
  ASSERT_EQ(0u, store.InsertOrUpdateRegisteredApp(b));
  EXPECT_EQ(Store(Entry("A", "Alpha", "/opt/a") + Entry("B", "Beta", "/opt/b")),
            ReadFile(mStorePath));
  VantuUpdaterRegisteredApp* previous = found.get();
  EXPECT_FALSE(store.GetRegisteredApplicationByAppID("Unknown", found));
  EXPECT_EQ(previous, found.get());
}

// Any load drops each kind of entry it cannot use (no identifier, no single usable install path),
// found alone among good ones, and saves at once (restricted again); attributes and elements it
// does not know stay, and keep the file when its last entry goes. A store with nothing to drop is
// left untouched. An identifier listed twice is rewritten as one entry by its next registration.
TEST_F(RegistrationStore, LoadDropsUnusableEntriesAndKeepsForeignElements) {
  const std::string before =
      "<Application appID=\"Good\" extra=\"x\">\n<DisplayName>G</DisplayName>\n"
      "<InstallPath>/opt/g</InstallPath>\n<Icon>g.png</Icon>\n</Application>\n";
  const std::string after = "<Note>keep</Note>\n" + Entry("B", "Beta", "/opt/b");
  for (const std::string& bad :
       {Entry("Empty", "E", ""), Entry("", "No identifier", "/opt/n"),
        std::string("<Application>\n<DisplayName>N</DisplayName>\n"
                    "<InstallPath>/opt/n</InstallPath>\n</Application>\n"),
        std::string("<Application appID=\"None\">\n<DisplayName>N</DisplayName>\n"
                    "</Application>\n"),
        std::string("<Application appID=\"Twice\">\n<InstallPath>/a</InstallPath>\n"
                    "<InstallPath>/b</InstallPath>\n</Application>\n")}) {
    WriteFile(mStorePath, Store(before + bad + after));
    chmod(mStorePath.c_str(), 0600);
    EXPECT_EQ(1u, Unregister("Nobody")) << bad;
    EXPECT_EQ(Store(before + after), ReadFile(mStorePath)) << bad;
    EXPECT_EQ(0664, StoreMode());
  }
  const testing_support::FileStamp stamp = StampOf(mStorePath);
  EXPECT_EQ(1u, Unregister("Nobody"));
  EXPECT_TRUE(stamp == StampOf(mStorePath));
  EXPECT_EQ(0u, Unregister("Good"));
  EXPECT_EQ(0u, Unregister("B"));
  EXPECT_EQ(Store("<Note>keep</Note>\n"), ReadFile(mStorePath));

  WriteFile(mStorePath, Store(Entry("B", "Beta", "/opt/b") + Entry("B", "Old", "/opt/old")));
  EXPECT_EQ(1u, Insert("B", "Beta", "/opt/b"));
  EXPECT_EQ(Store(Entry("B", "Beta", "/opt/b")), ReadFile(mStorePath));
}

// An unparsable file is refused by every operation and kept, also after an earlier good load
// (whose tree the manager must let go).
TEST_F(RegistrationStore, UnparsableFileIsRefusedAndKept) {
  VantuUpdaterRegistrationManager store;
  WriteFile(mStorePath, Store(Entry("A", "Alpha", "/opt/a")));
  std::list<VantuUpdaterRegisteredApp> all;
  ASSERT_TRUE(store.GetRegisteredApps(all));
  const std::string damaged = "<?xml version=\"1.0\"?>\n<VantuUpdaterRegistrationManager>\n<Ap";
  WriteFile(mStorePath, damaged);
  VantuUpdaterRegisteredApp app = MakeApp("B", "Beta", "/opt/b");
  EXPECT_EQ(3u, store.InsertOrUpdateRegisteredApp(app));
  EXPECT_EQ(2u, store.UnregisterApp("A"));
  EXPECT_FALSE(store.GetRegisteredApps(all));
  std::unique_ptr<VantuUpdaterRegisteredApp> found;
  EXPECT_FALSE(store.GetRegisteredApplicationByAppID("A", found));
  EXPECT_EQ(0u, store.DeleteVantuUpdaterRegisteredAppIf(
                    VantuUpdaterRegistrationManager::RegisteredAppMatcher("A")));
  EXPECT_EQ(damaged, ReadFile(mStorePath));
}

// Another program's top element, in the file or in a journal that wins over it, gives way to an
// empty store at the next registration (a second top element could never be saved); a journal
// that does not parse is ignored. Markup in an identifier is refused (2: an entry refused, not an
// unusable store that callers would rebuild), and nothing is written.
TEST_F(RegistrationStore, ForeignTextHealsAndTextThatWouldNotLoadIsNeverWritten) {
  const std::string foreign = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<Other>\n</Other>\n";
  const std::string good = Store(Entry("Z", "Zeta", "/opt/z"));
  const std::pair<std::string, std::string> fileAndJournal[] = {
      {foreign, ""}, {good, foreign}, {foreign, "<VantuUpdaterRegistrationManager><App"}};
  for (const auto& [file, journal] : fileAndJournal) {
    WriteFile(mStorePath, file);
    if (!journal.empty()) WriteFile(mStorePath + "_", journal);
    EXPECT_EQ(0u, Insert("A", "Alpha", "/opt/a")) << file << journal;
    EXPECT_EQ(Store(Entry("A", "Alpha", "/opt/a")), ReadFile(mStorePath)) << file << journal;
    EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath + "_"));
  }

  const std::string before = ReadFile(mStorePath);
  for (const char* id : {"a\"b", "a<b", "a&b"}) EXPECT_EQ(2u, Insert(id, "Name", "/opt/x")) << id;
  EXPECT_EQ(before, ReadFile(mStorePath));

  // A tab, line feed or carriage return would be written raw and read back as a blank: the entry
  // could never be found under its identifier again, and every registration would add one more.
  for (const char* id : {"a\tb", "a\nb", "a\rb"}) {
    EXPECT_EQ(2u, Insert(id, "Name", "/opt/x")) << id;
    EXPECT_EQ(2u, Insert(id, "Name", "/opt/x")) << id;
  }
  EXPECT_EQ(before, ReadFile(mStorePath));
  EXPECT_EQ(0u, Insert("a b", "Name", "/opt/x"));
}

// A lock held by another process fails both operations after the time-out, writing nothing.
TEST_F(RegistrationStore, HeldLockMakesOperationsFailWithoutWriting) {
  ASSERT_EQ(0u, Insert("A", "Alpha", "/opt/a"));
  const std::string before = ReadFile(mStorePath);
  testing_support::LockHolder holder(mStorePath, 30000);
  ASSERT_TRUE(holder.Locked());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(3u, Insert("B", "Beta", "/opt/b"));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(1900));
  EXPECT_LT(waited, std::chrono::seconds(10));
  EXPECT_EQ(2u, Unregister("A"));
  EXPECT_EQ(before, ReadFile(mStorePath));
  holder.Release();
  EXPECT_EQ(0, holder.Wait());
  EXPECT_EQ(0u, Insert("B", "Beta", "/opt/b"));
}

}  // namespace
