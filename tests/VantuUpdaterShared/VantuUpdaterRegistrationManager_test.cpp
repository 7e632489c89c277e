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
#include "support/LockFiles.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/FileSystemUtils.h"

namespace {

using Reg = VantuUpdaterRegistrationManager;
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
  return Reg().InsertOrUpdateRegisteredApp(app);
}

unsigned Unregister(const std::string& id) { return Reg().UnregisterApp(id); }

class RegistrationStore : public ::testing::Test {
 protected:
  void SetUp() override { Reg makesFolders; }
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

// Exact text (name escaped), group-writable, no journal. An unchanged or incomplete record keeps
// bytes and mtime; a changed one is replaced and moved last; identifiers compare exactly. The
// updater's own identifier is never removed, a miss changes nothing, the last removal deletes the
// file. No data folder, no store.
TEST_F(RegistrationStore, InsertAndUnregisterResults) {
  EXPECT_EQ(Reg::kUnregisterFailed, Unregister("A"));
  EXPECT_EQ(Reg::kInserted, Insert("W", "Writer & <Co>", "/opt/Writer Pro"));
  EXPECT_EQ(Store(Entry("W", "Writer &amp; &lt;Co&gt;", "/opt/Writer Pro")), ReadFile(mStorePath));
  EXPECT_EQ(0664, StoreMode());
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath + "_"));
  for (const char* id : {"A", "B"}) ASSERT_EQ(Reg::kInserted, Insert(id, id, "/opt"));
  const std::string before = ReadFile(mStorePath);
  const testing_support::FileStamp stamp = StampOf(mStorePath);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(Reg::kUnchanged, Insert("A", "A", "/opt"));
  const char* const incomplete[][3] = {{"", "N", "/p"}, {"X", "", "/p"}, {"X", "N", ""}};
  for (const auto& a : incomplete) EXPECT_EQ(Reg::kInsertFailed, Insert(a[0], a[1], a[2]));
  EXPECT_EQ(Reg::kUnregisterFailed, Unregister("VantuUpdater"));
  EXPECT_EQ(Reg::kNotFound, Unregister("a"));
  EXPECT_EQ(before, ReadFile(mStorePath));
  EXPECT_TRUE(stamp == StampOf(mStorePath));

  EXPECT_EQ(Reg::kReplaced, Insert("A", "A", "/opt/a2"));
  EXPECT_EQ(Reg::kInserted, Insert("a", "a", "/opt"));
  EXPECT_EQ(Reg::kRemoved, Unregister("W"));
  EXPECT_EQ(Store(Entry("B", "B", "/opt") + Entry("A", "A", "/opt/a2") + Entry("a", "a", "/opt")),
            ReadFile(mStorePath));
  for (const char* id : {"A", "B", "a"}) EXPECT_EQ(Reg::kRemoved, Unregister(id));
  EXPECT_FALSE(StoreExists());

  WriteFile(mSandbox.home() + "/plain-file", "x");
  mSandbox.env().SetRoot(mSandbox.home() + "/plain-file");
  EXPECT_THROW(Reg(), std::runtime_error);
}

// The updater's record comes from its running location, never from the file.
TEST_F(RegistrationStore, UpdaterRecordIsMadeUpOnTheSpot) {
  const std::string programDir = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  Reg store;
  WriteFile(mStorePath, Store(Entry("VantuUpdater", "Impostor", "/tmp/evil")));
  std::unique_ptr<VantuUpdaterRegisteredApp> record;
  ASSERT_TRUE(store.GetRegisteredApplicationByAppID("VantuUpdater", record));
  std::string id, name, path;
  EXPECT_TRUE(record->GetappID(id) && record->GetDisplayName(name) && record->GetInstallPath(path));
  EXPECT_EQ("VantuUpdater|Vantu Updater|" + programDir, id + "|" + name + "|" + path);
}

// Records handed out are private copies: they outlive the manager's tree, and a caller's change
// never reaches the file. A failed lookup leaves the caller's pointer alone.
TEST_F(RegistrationStore, RecordsHandedOutAreDetached) {
  ASSERT_EQ(Reg::kInserted, Insert("A", "Alpha", "/opt/a"));
  std::list<VantuUpdaterRegisteredApp> all;
  std::unique_ptr<VantuUpdaterRegisteredApp> found;
  {
    Reg store;
    ASSERT_TRUE(store.GetRegisteredApps(all) && store.GetRegisteredApplicationByAppID("A", found));
  }
  all.front().SetDisplayName("Changed by caller");
  found->SetInstallPath("/changed/by/caller");
  Reg store;
  VantuUpdaterRegisteredApp b = MakeApp("B", "Beta", "/opt/b");
  ASSERT_EQ(Reg::kInserted, store.InsertOrUpdateRegisteredApp(b));
  EXPECT_EQ(Store(Entry("A", "Alpha", "/opt/a") + Entry("B", "Beta", "/opt/b")),
            ReadFile(mStorePath));
  VantuUpdaterRegisteredApp* previous = found.get();
  EXPECT_FALSE(store.GetRegisteredApplicationByAppID("Unknown", found));
  EXPECT_EQ(previous, found.get());
}

// Any load drops each kind of entry it cannot use (no identifier, no single usable install path),
// found alone among good ones, and saves at once (group-writable again); elements it does not
// know stay, and keep the file when its last entry goes.
TEST_F(RegistrationStore, LoadDropsUnusableEntriesAndKeepsForeignElements) {
  const std::string good = "<Note>keep</Note>\n" + Entry("B", "Beta", "/opt/b");
  for (const std::string& bad :
       {Entry("Empty", "E", ""), Entry("", "No identifier", "/opt/n"),
        std::string("<Application>\n<InstallPath>/opt/n</InstallPath>\n</Application>\n"),
        std::string("<Application appID=\"None\">\n<DisplayName>N</DisplayName>\n</Application>\n"),
        std::string("<Application appID=\"Twice\">\n<InstallPath>/a</InstallPath>\n"
                    "<InstallPath>/b</InstallPath>\n</Application>\n")}) {
    WriteFile(mStorePath, Store(bad + good));
    chmod(mStorePath.c_str(), 0600);
    EXPECT_EQ(Reg::kNotFound, Unregister("Nobody")) << bad;
    EXPECT_EQ(Store(good), ReadFile(mStorePath)) << bad;
    EXPECT_EQ(0664, StoreMode());
  }
  EXPECT_EQ(Reg::kRemoved, Unregister("B"));
  EXPECT_EQ(Store("<Note>keep</Note>\n"), ReadFile(mStorePath));
}

// Another program's top element, in the file or in a journal that wins over it, gives way to an
// empty store at the next registration (a second top element could never be saved); a journal
// that does not parse is ignored.
TEST_F(RegistrationStore, ForeignTopElementGivesWay) {
  const std::string foreign = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<Other>\n</Other>\n";
  const std::pair<std::string, std::string> fileAndJournal[] = {
      {foreign, ""},
      {Store(Entry("Z", "Zeta", "/opt/z")), foreign},
      {foreign, "<VantuUpdaterRegistrationManager><App"}};
  for (const auto& [file, journal] : fileAndJournal) {
    WriteFile(mStorePath, file);
    if (!journal.empty()) WriteFile(mStorePath + "_", journal);
    EXPECT_EQ(Reg::kInserted, Insert("A", "Alpha", "/opt/a")) << file << journal;
    EXPECT_EQ(Store(Entry("A", "Alpha", "/opt/a")), ReadFile(mStorePath)) << file << journal;
    EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath + "_"));
  }
}

// An unparsable file is refused by every operation and kept, also after an earlier good load
// (whose tree the manager must let go). Markup or a blank that would read back as a space in an
// identifier is refused (the entry, not the store), and nothing is written.
TEST_F(RegistrationStore, TextThatWouldNotLoadIsRefusedAndNeverWritten) {
  Reg store;
  WriteFile(mStorePath, Store(Entry("A", "Alpha", "/opt/a")));
  std::list<VantuUpdaterRegisteredApp> all;
  ASSERT_TRUE(store.GetRegisteredApps(all));
  for (const char* id : {"a\"b", "a<b", "a&b", "a\tb", "a\nb", "a\rb"})
    EXPECT_EQ(Reg::kRefused, Insert(id, "Name", "/opt/x")) << id;
  EXPECT_EQ(Store(Entry("A", "Alpha", "/opt/a")), ReadFile(mStorePath));
  const std::string damaged = "<?xml version=\"1.0\"?>\n<VantuUpdaterRegistrationManager>\n<Ap";
  WriteFile(mStorePath, damaged);
  VantuUpdaterRegisteredApp app = MakeApp("B", "Beta", "/opt/b");
  EXPECT_EQ(Reg::kInsertFailed, store.InsertOrUpdateRegisteredApp(app));
  EXPECT_EQ(Reg::kUnregisterFailed, store.UnregisterApp("A"));
  EXPECT_FALSE(store.GetRegisteredApps(all));
  std::unique_ptr<VantuUpdaterRegisteredApp> found;
  EXPECT_FALSE(store.GetRegisteredApplicationByAppID("A", found));
  EXPECT_EQ(0u, store.DeleteVantuUpdaterRegisteredAppIf(Reg::RegisteredAppMatcher("A")));
  EXPECT_EQ(damaged, ReadFile(mStorePath));
}

}  // namespace
