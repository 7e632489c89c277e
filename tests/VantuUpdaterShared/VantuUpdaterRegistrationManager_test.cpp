#include "xplat/VantuUpdaterRegistrationManager.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/FileStamp.h"
#include "support/SemaphoreGuard.h"
#include "support/TestEnv.h"
#include "support/TempDir.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ScopedEnv.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

const char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";

VantuUpdaterRegisteredApp MakeApp(const std::string& appID, const std::string& name,
                                  const std::string& path) {
  VantuUpdaterRegisteredApp app(appID);
  app.SetDisplayName(name);
  app.SetInstallPath(path);
  return app;
}

// The text the store writes for one entry.
std::string EntryText(const std::string& appID, const std::string& name, const std::string& path) {
  return "<Application appID=\"" + appID + "\">\n<DisplayName>" + name +
         "</DisplayName>\n<InstallPath>" + path + "</InstallPath>\n</Application>\n";
}

std::string StoreText(const std::string& entries) {
  return std::string(kDeclaration) + "<VantuUpdaterRegistrationManager>\n" + entries +
         "</VantuUpdaterRegistrationManager>\n";
}

using testing_support::StampOf;

std::vector<std::string> ListAppIDs() {
  VantuUpdaterRegistrationManager store;
  std::list<VantuUpdaterRegisteredApp> apps;
  std::vector<std::string> ids;
  if (!store.GetRegisteredApps(apps)) return {"<unreadable>"};
  for (const VantuUpdaterRegisteredApp& app : apps) {
    std::string id;
    app.GetappID(id);
    ids.push_back(id);
  }
  return ids;
}

unsigned Insert(const std::string& appID, const std::string& name, const std::string& path) {
  VantuUpdaterRegistrationManager store;
  VantuUpdaterRegisteredApp app = MakeApp(appID, name, path);
  return store.InsertOrUpdateRegisteredApp(app);
}

unsigned Unregister(const std::string& appID) {
  VantuUpdaterRegistrationManager store;
  return store.UnregisterApp(appID);
}

// The folder of this test program, which is what the updater's own record reports when the test
// program stands in for the updater.
std::string RunningProgramDir() {
  char buffer[4096];
  const ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  if (length <= 0) return "<unknown>";
  return FileSystemUtils::GetParentPath(std::string(buffer, static_cast<size_t>(length)));
}

// Each test gets a private machine: a relocated machine root and a temporary home folder,
// installed as the library's Env (forked children inherit it). Any lock a test leaves behind,
// a killed child's included, is removed at the end.
class RegistrationStore : public ::testing::Test {
 protected:
  RegistrationStore()
      : mRoot(mTemp / "root"),
        mHome(mTemp / "home"),
        mScope(&mEnv),
        mStorePath(mRoot + "/var/lib/Vantu/Updater5/VantuESDGlobalApps.xml"),
        mLockGuard(mStorePath) {
    mEnv.SetRoot(mRoot);
    mEnv.SetHome(mHome);
    // Let the library make its folders, so tests can plant files where it will look.
    VantuUpdaterRegistrationManager makesFolders;
  }

  bool StoreExists() const { return FileSystemUtils::DoesPathExist(mStorePath); }

  testing_support::TempDir mTemp;
  const std::string mRoot;
  const std::string mHome;
  testing_support::TestEnv mEnv;
  esd::ScopedEnv mScope;
  const std::string mStorePath;
  testing_support::SemaphoreGuard mLockGuard;
};

// The file lives in the relocated all-users folder and holds exactly the library's text form,
// with the display name escaped and the restricted permission applied after the save.
TEST_F(RegistrationStore, FirstInsertionsWriteTheExactText) {
  {
    VantuUpdaterRegistrationManager store;
    std::string path;
    ASSERT_TRUE(store.GetXMLFileFullPath(path));
    EXPECT_EQ(mStorePath, path);
  }
  EXPECT_FALSE(StoreExists());

  EXPECT_EQ(0u, Insert("com.example.Writer", "Writer & <Co>", "/opt/Writer Pro"));
  const std::string first = EntryText("com.example.Writer", "Writer &amp; &lt;Co&gt;",
                                      "/opt/Writer Pro");
  EXPECT_EQ(StoreText(first), ReadFile(mStorePath));

  uint16_t mode = 0;
  ASSERT_TRUE(FileSystemUtils::GetFilePermission(mStorePath, mode));
  EXPECT_EQ(0664, mode);
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath + "_"));

  // A second entry goes after the first; the reloaded text keeps its form.
  EXPECT_EQ(0u, Insert("com.example.Sheets", "Sheets", "/opt/Sheets"));
  EXPECT_EQ(StoreText(first + EntryText("com.example.Sheets", "Sheets", "/opt/Sheets")),
            ReadFile(mStorePath));
}

// Without an all-users data folder there is no store to open.
TEST_F(RegistrationStore, NoDataFolderThrows) {
  const std::string notAFolder = mTemp / "plain-file";
  WriteFile(notAFolder, "x");
  mEnv.SetRoot(notAFolder);
  try {
    VantuUpdaterRegistrationManager store;
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("Unable to determine registration filepath!", e.what());
  }
}

// Registering again with the same name and path must not rewrite the shared file at all.
TEST_F(RegistrationStore, UnchangedReinsertionLeavesTheFileUntouched) {
  ASSERT_EQ(0u, Insert("com.example.Writer", "Writer", "/opt/Writer"));
  const std::string before = ReadFile(mStorePath);
  const testing_support::FileStamp stamp = StampOf(mStorePath);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));

  EXPECT_EQ(2u, Insert("com.example.Writer", "Writer", "/opt/Writer"));
  EXPECT_EQ(before, ReadFile(mStorePath));
  EXPECT_TRUE(stamp == StampOf(mStorePath));
}

// A changed path or name replaces the entry, which then comes last; identifiers compare exactly.
TEST_F(RegistrationStore, ChangedEntryIsReplacedAndMovesToTheEnd) {
  ASSERT_EQ(0u, Insert("A", "Alpha", "/opt/a"));
  ASSERT_EQ(0u, Insert("B", "Beta", "/opt/b"));
  ASSERT_EQ(0u, Insert("C", "Gamma", "/opt/c"));

  EXPECT_EQ(1u, Insert("A", "Alpha", "/opt/a2"));
  EXPECT_EQ((std::vector<std::string>{"B", "C", "A"}), ListAppIDs());
  EXPECT_EQ(1u, Insert("B", "Beta 2", "/opt/b"));
  EXPECT_EQ((std::vector<std::string>{"C", "A", "B"}), ListAppIDs());
  EXPECT_EQ(StoreText(EntryText("C", "Gamma", "/opt/c") + EntryText("A", "Alpha", "/opt/a2") +
                      EntryText("B", "Beta 2", "/opt/b")),
            ReadFile(mStorePath));

  EXPECT_EQ(0u, Insert("c", "Lower", "/opt/lower"));
  EXPECT_EQ((std::vector<std::string>{"C", "A", "B", "c"}), ListAppIDs());
  EXPECT_EQ(1u, Unregister("a"));
}

// A record lacking an identifier, name or path is refused with 3, whether or not a file exists,
// and nothing is written.
TEST_F(RegistrationStore, IncompleteRecordIsRefused) {
  std::vector<VantuUpdaterRegisteredApp> bad = {
      MakeApp("", "Name", "/opt/x"), MakeApp("X", "", "/opt/x"), MakeApp("X", "Name", "")};
  VantuUpdaterRegisteredApp noName("X");
  noName.SetInstallPath("/opt/x");
  VantuUpdaterRegisteredApp noPath("X");
  noPath.SetDisplayName("Name");
  bad.push_back(noName);
  bad.push_back(noPath);

  for (VantuUpdaterRegisteredApp& app : bad) {
    VantuUpdaterRegistrationManager store;
    EXPECT_EQ(3u, store.InsertOrUpdateRegisteredApp(app));
  }
  EXPECT_FALSE(StoreExists());

  ASSERT_EQ(0u, Insert("A", "Alpha", "/opt/a"));
  const std::string before = ReadFile(mStorePath);
  for (VantuUpdaterRegisteredApp& app : bad) {
    VantuUpdaterRegistrationManager store;
    EXPECT_EQ(3u, store.InsertOrUpdateRegisteredApp(app));
  }
  EXPECT_EQ(before, ReadFile(mStorePath));
}

TEST_F(RegistrationStore, UnregisterResults) {
  // No file: refused, and no file appears.
  EXPECT_EQ(2u, Unregister("A"));
  EXPECT_FALSE(StoreExists());

  ASSERT_EQ(0u, Insert("A", "Alpha", "/opt/a"));
  ASSERT_EQ(0u, Insert("B", "Beta", "/opt/b"));
  const std::string before = ReadFile(mStorePath);
  const testing_support::FileStamp stamp = StampOf(mStorePath);

  // The updater cannot be unregistered; an unknown identifier is reported, not saved.
  EXPECT_EQ(2u, Unregister("VantuUpdater"));
  EXPECT_EQ(1u, Unregister("Z"));
  EXPECT_EQ(before, ReadFile(mStorePath));
  EXPECT_TRUE(stamp == StampOf(mStorePath));

  EXPECT_EQ(0u, Unregister("A"));
  EXPECT_EQ(StoreText(EntryText("B", "Beta", "/opt/b")), ReadFile(mStorePath));

  // The last entry takes the file with it (and leaves no journal behind).
  EXPECT_EQ(0u, Unregister("B"));
  EXPECT_FALSE(StoreExists());
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath + "_"));
  EXPECT_EQ(2u, Unregister("B"));
}

// The updater's record is made up from its running location; the file is neither read nor made,
// and an entry that claims the updater's identifier is never answered.
TEST_F(RegistrationStore, UpdaterRecordIsMadeUpOnTheSpot) {
  VantuUpdaterRegistrationManager store;
  std::unique_ptr<VantuUpdaterRegisteredApp> record;
  ASSERT_TRUE(store.GetRegisteredApplicationByAppID("VantuUpdater", record));
  ASSERT_TRUE(record);
  std::string id, name, path;
  EXPECT_TRUE(record->GetappID(id));
  EXPECT_TRUE(record->GetDisplayName(name));
  EXPECT_TRUE(record->GetInstallPath(path));
  EXPECT_EQ("VantuUpdater", id);
  EXPECT_EQ("Vantu Updater", name);
  EXPECT_EQ(RunningProgramDir(), path);
  EXPECT_FALSE(StoreExists());

  WriteFile(mStorePath, StoreText(EntryText("VantuUpdater", "Impostor", "/tmp/evil")));
  record.reset();
  ASSERT_TRUE(store.GetRegisteredApplicationByAppID("VantuUpdater", record));
  record->GetInstallPath(path);
  EXPECT_EQ(RunningProgramDir(), path);
}

// Records handed out are private copies: changing one never reaches the file, even when the
// store saves afterwards. A failed lookup leaves the caller's pointer alone.
TEST_F(RegistrationStore, RecordsHandedOutAreDetached) {
  ASSERT_EQ(0u, Insert("A", "Alpha", "/opt/a"));
  VantuUpdaterRegistrationManager store;

  std::unique_ptr<VantuUpdaterRegisteredApp> found;
  ASSERT_TRUE(store.GetRegisteredApplicationByAppID("A", found));
  found->SetInstallPath("/changed/by/caller");
  std::list<VantuUpdaterRegisteredApp> all;
  ASSERT_TRUE(store.GetRegisteredApps(all));
  ASSERT_EQ(1u, all.size());
  all.front().SetDisplayName("Changed by caller");

  VantuUpdaterRegisteredApp b = MakeApp("B", "Beta", "/opt/b");
  ASSERT_EQ(0u, store.InsertOrUpdateRegisteredApp(b));
  EXPECT_EQ(StoreText(EntryText("A", "Alpha", "/opt/a") + EntryText("B", "Beta", "/opt/b")),
            ReadFile(mStorePath));

  VantuUpdaterRegisteredApp* previous = found.get();
  EXPECT_FALSE(store.GetRegisteredApplicationByAppID("Unknown", found));
  EXPECT_EQ(previous, found.get());
}

// Entries the updater cannot use (no install path, an empty one, or two of them) are dropped on
// the next load and the repaired file is written at once, even by a read-only operation.
TEST_F(RegistrationStore, EntriesWithoutInstallPathAreDroppedOnLoad) {
  WriteFile(mStorePath,
            StoreText(EntryText("Good", "Good", "/opt/good") + EntryText("Empty", "E", "") +
                      "<Application appID=\"None\">\n<DisplayName>N</DisplayName>\n"
                      "</Application>\n"
                      "<Application appID=\"Twice\">\n<DisplayName>T</DisplayName>\n"
                      "<InstallPath>/a</InstallPath>\n<InstallPath>/b</InstallPath>\n"
                      "</Application>\n"));
  chmod(mStorePath.c_str(), 0600);

  EXPECT_EQ((std::vector<std::string>{"Good"}), ListAppIDs());
  EXPECT_EQ(StoreText(EntryText("Good", "Good", "/opt/good")), ReadFile(mStorePath));
  uint16_t mode = 0;
  ASSERT_TRUE(FileSystemUtils::GetFilePermission(mStorePath, mode));
  EXPECT_EQ(0664, mode);
}

// A file that does not parse is refused by every operation and left exactly as it was; the
// registration workflow above decides whether to rebuild it. The manager had loaded a good file
// before, so it must also let go of that tree when the next load fails.
TEST_F(RegistrationStore, UnparsableFileIsRefusedAndKept) {
  const std::vector<std::string> damaged = {
      "", std::string(kDeclaration) + "<VantuUpdaterRegistrationManager>\n<Application appID=",
      "not xml at all"};
  VantuUpdaterRegistrationManager store;
  for (const std::string& bytes : damaged) {
    WriteFile(mStorePath, StoreText(EntryText("A", "Alpha", "/opt/a")));
    std::list<VantuUpdaterRegisteredApp> all;
    ASSERT_TRUE(store.GetRegisteredApps(all));

    WriteFile(mStorePath, bytes);
    VantuUpdaterRegisteredApp app = MakeApp("B", "Beta", "/opt/b");
    EXPECT_EQ(3u, store.InsertOrUpdateRegisteredApp(app));
    EXPECT_EQ(2u, store.UnregisterApp("A"));
    EXPECT_FALSE(store.GetRegisteredApps(all));
    std::unique_ptr<VantuUpdaterRegisteredApp> found;
    EXPECT_FALSE(store.GetRegisteredApplicationByAppID("A", found));
    EXPECT_EQ(0u, store.DeleteVantuUpdaterRegisteredAppIf(
                      VantuUpdaterRegistrationManager::RegisteredAppMatcher("A")));
    EXPECT_EQ(bytes, ReadFile(mStorePath));
  }
}

// Elements the store does not know are carried along untouched and never listed; a store root
// that still holds one is saved rather than deleted when its last entry goes.
TEST_F(RegistrationStore, ForeignElementsAreKeptAndIgnored) {
  WriteFile(mStorePath,
            StoreText("<Note>keep me</Note>\n"
                      "<Application appID=\"A\" extra=\"x\">\n<DisplayName>Alpha</DisplayName>\n"
                      "<InstallPath>/opt/a</InstallPath>\n<Icon>a.png</Icon>\n</Application>\n"));
  EXPECT_EQ((std::vector<std::string>{"A"}), ListAppIDs());
  EXPECT_EQ(0u, Unregister("A"));
  EXPECT_EQ(StoreText("<Note>keep me</Note>\n"), ReadFile(mStorePath));
}

// A document whose root is not the store's gets a fresh store root beside it, but a document
// with two roots would never load again, so the save is refused and the file stays as it was.
// An identifier holding markup, which attribute values carry unescaped, is refused as an entry
// (2), never reported as an unusable store (3), which callers would answer by rebuilding the file.
TEST_F(RegistrationStore, TextThatWouldNotLoadAgainIsNeverWritten) {
  const std::string foreign = std::string(kDeclaration) +
                              "<Other>\n<Application appID=\"Q\"></Application>\n</Other>\n";
  WriteFile(mStorePath, foreign);
  EXPECT_EQ(3u, Insert("A", "Alpha", "/opt/a"));
  EXPECT_EQ(foreign, ReadFile(mStorePath));

  std::remove(mStorePath.c_str());
  ASSERT_EQ(0u, Insert("A", "Alpha", "/opt/a"));
  const std::string before = ReadFile(mStorePath);
  for (const char* id : {"a\"b", "a<b", "a&b"}) EXPECT_EQ(2u, Insert(id, "Name", "/opt/x")) << id;
  EXPECT_EQ(before, ReadFile(mStorePath));
  EXPECT_EQ((std::vector<std::string>{"A"}), ListAppIDs());
}

// Two entries for one identifier cannot be written by the store; meeting them is a programming
// error that stops the process before anything is written.
TEST_F(RegistrationStore, DuplicatedIdentifierStopsBeforeWriting) {
  const std::string text =
      StoreText(EntryText("A", "Alpha", "/opt/a") + EntryText("A", "Alpha 2", "/opt/a2"));
  WriteFile(mStorePath, text);
  EXPECT_DEATH(Insert("A", "Alpha 3", "/opt/a3"), "failed assertion `1 == mResultSet.size\\(\\)'");
  EXPECT_EQ(text, ReadFile(mStorePath));
}

// Eight processes register different applications at the same moment: every one of them lands
// and the file parses afterwards.
TEST_F(RegistrationStore, EightProcessesInsertingAtOnceAllLand) {
  const int kProcesses = 8;
  testing_support::Pipe go;
  std::vector<pid_t> children;
  for (int i = 0; i < kProcesses; ++i) {
    children.push_back(testing_support::StartChild([&go, i]() {
      if (!go.Wait()) return 90;
      const std::string n = std::to_string(i);
      return static_cast<int>(Insert("com.example.App" + n, "App " + n, "/opt/app" + n));
    }));
  }
  for (int i = 0; i < kProcesses; ++i) go.Signal();
  for (pid_t child : children) EXPECT_EQ(0, testing_support::WaitChild(child));

  std::vector<std::string> ids = ListAppIDs();
  std::sort(ids.begin(), ids.end());
  std::vector<std::string> expected;
  for (int i = 0; i < kProcesses; ++i) expected.push_back("com.example.App" + std::to_string(i));
  EXPECT_EQ(expected, ids);
  EXPECT_FALSE(testing_support::SemaphoreExists(mStorePath));
}

// While another process holds the store's lock, an insertion or removal gives up after the
// time-out with its failure code and leaves the file alone; once released, it goes through.
TEST_F(RegistrationStore, HeldLockMakesOperationsFailWithoutWriting) {
  ASSERT_EQ(0u, Insert("A", "Alpha", "/opt/a"));
  const std::string before = ReadFile(mStorePath);

  testing_support::Pipe locked, release;
  const std::string lockName = mStorePath;
  pid_t holder = testing_support::StartChild([&]() {
    esd::ResourceLocker locker(lockName, 0);
    if (!locker.Lock()) return 91;
    locked.Signal();
    release.Wait(30000);
    return locker.Unlock(false) ? 0 : 92;
  });
  ASSERT_TRUE(locked.Wait());

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(3u, Insert("B", "Beta", "/opt/b"));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(1900));
  EXPECT_LT(waited, std::chrono::seconds(10));
  EXPECT_EQ(2u, Unregister("A"));
  EXPECT_EQ(before, ReadFile(mStorePath));

  release.Signal();
  EXPECT_EQ(0, testing_support::WaitChild(holder));
  EXPECT_EQ(0u, Insert("B", "Beta", "/opt/b"));
}

}  // namespace
