#include "xplat/VantuUpdaterMissingCompsManager.h"


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

std::string ComponentText(const std::string& name, const std::string& category,
                          const std::string& version) {
  return "<AMissingComponent category=\"" + category + "\" name=\"" + name + "\" version=\"" +
         version + "\"></AMissingComponent>\n";
}

std::string EntryText(const std::string& appID, int opType, const std::string& name,
                      const std::string& path, const std::string& components) {
  return "<VantuUpdaterMissingCompsApp AppID=\"" + appID + "\" OperationType=\"" +
         std::to_string(opType) + "\" RedoCFU=\"1\">\n<DisplayName>" + name +
         "</DisplayName>\n<InstallPath>" + path + "</InstallPath>\n" + components +
         "</VantuUpdaterMissingCompsApp>\n";
}

std::string StoreText(const std::string& entries) {
  return std::string(kDeclaration) + "<VantuUpdaterMissingCompsManager>\n" + entries +
         "</VantuUpdaterMissingCompsManager>\n";
}

// One request through a manager of its own, as the download workflow makes it.
unsigned Request(const char* appID, const char* name, const char* path, int opType,
                 const char* compName, const char* compCategory, const char* compVersion) {
  VantuUpdaterMissingCompsManager store;
  std::string n(compName ? compName : ""), c(compCategory ? compCategory : ""),
      v(compVersion ? compVersion : "");
  return store.UpdateWithAppAndCompData(
      appID, reinterpret_cast<const unsigned char*>(name),
      reinterpret_cast<const unsigned char*>(path), opType, compName ? &n[0] : nullptr,
      compCategory ? &c[0] : nullptr, compVersion ? &v[0] : nullptr);
}

using testing_support::StampOf;

// Each test gets a private machine: a relocated machine root and a temporary home folder,
// installed as the library's Env (forked children inherit it). Any lock a test leaves behind,
// a killed child's included, is removed at the end.
class MissingCompsStore : public ::testing::Test {
 protected:
  MissingCompsStore()
      : mRoot(mTemp / "root"),
        mHome(mTemp / "home"),
        mScope(&mEnv),
        mStorePath(mHome + "/.local/share/Vantu/Updater5/VantuMissingComps.xml"),
        mLockGuard(mStorePath) {
    mEnv.SetRoot(mRoot);
    mEnv.SetHome(mHome);
    // Let the library make its folders, so tests can plant files where it will look.
    VantuUpdaterMissingCompsManager makesFolders;
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

// The first request creates the file in the per-user folder, in the library's exact text form;
// the store's destructor keeps a store that has entries.
TEST_F(MissingCompsStore, FirstRequestWritesTheExactText) {
  {
    VantuUpdaterMissingCompsManager store;
    std::string path;
    ASSERT_TRUE(store.GetXMLFileFullPath(path));
    EXPECT_EQ(mStorePath, path);
  }
  EXPECT_EQ(0u, Request("com.example.Writer", "Writer & Co", "/opt/Writer", 7, "Spelling",
                        "Dictionary", "1.0"));
  const std::string first =
      EntryText("com.example.Writer", 7, "Writer &amp; Co", "/opt/Writer",
                ComponentText("Spelling", "Dictionary", "1.0.0.0"));
  EXPECT_EQ(StoreText(first), ReadFile(mStorePath));
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath + "_"));
  uint16_t mode = 0;
  ASSERT_TRUE(FileSystemUtils::GetFilePermission(mStorePath, mode));
  EXPECT_EQ(0666, mode & 0666);

  // Another application gets an entry of its own after the first.
  EXPECT_EQ(0u, Request("B", "Beta", "/opt/b", 0, "Fonts", "Extras", "2.1.0.3"));
  EXPECT_EQ(StoreText(first + EntryText("B", 0, "Beta", "/opt/b",
                                        ComponentText("Fonts", "Extras", "2.1.0.3"))),
            ReadFile(mStorePath));
}

// Without a home folder there is no per-user store to open.
TEST_F(MissingCompsStore, NoDataFolderThrows) {
  mEnv.SetHome("");
  try {
    VantuUpdaterMissingCompsManager store;
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("Unable to determine missing comps filepath!", e.what());
  }
}

// Asking again for a listed component answers 1 and does not rewrite the file; another version
// of it is another component.
TEST_F(MissingCompsStore, RepeatedRequestWritesNothingButAnotherVersionIsAdded) {
  ASSERT_EQ(0u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Dictionary", "1.0"));
  const std::string before = ReadFile(mStorePath);
  const testing_support::FileStamp stamp = StampOf(mStorePath);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));

  EXPECT_EQ(1u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Dictionary", "1.0.0.0"));
  EXPECT_EQ(before, ReadFile(mStorePath));
  EXPECT_TRUE(stamp == StampOf(mStorePath));

  EXPECT_EQ(0u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Dictionary", "1.0.0.1"));
  EXPECT_EQ(StoreText(EntryText("A", 1, "Alpha", "/opt/a",
                                ComponentText("Spelling", "Dictionary", "1.0.0.0") +
                                    ComponentText("Spelling", "Dictionary", "1.0.0.1"))),
            ReadFile(mStorePath));
}

// "*" stands for any name on either side, never for a category or a version.
TEST_F(MissingCompsStore, WildcardMatchesNamesOnly) {
  ASSERT_EQ(0u, Request("A", "Alpha", "/opt/a", 1, "*", "Dictionary", "1.0"));
  EXPECT_EQ(1u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Dictionary", "1.0"));
  EXPECT_EQ(0u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Thesaurus", "1.0"));
  EXPECT_EQ(0u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Dictionary", "2.0"));

  ASSERT_EQ(0u, Request("B", "Beta", "/opt/b", 1, "Hyphenation", "Dictionary", "3.0"));
  EXPECT_EQ(1u, Request("B", "Beta", "/opt/b", 1, "*", "Dictionary", "3.0"));
  EXPECT_EQ(0u, Request("B", "Beta", "/opt/b", 1, "*", "Dictionary", "3.1"));

  // Without the wildcard flag a "*" is just a name.
  VantuUpdaterAMissingComponent star("*", "Dictionary", FileSystemVersion("1.0"));
  VantuUpdaterAMissingComponent named("Spelling", "Dictionary", FileSystemVersion("1.0"));
  const FileSystemVersion v1("1.0");
  EXPECT_FALSE(VantuUpdaterMissingCompsApp::MissingCompMatcher("Spelling", "Dictionary", v1,
                                                                false)(star));
  EXPECT_FALSE(
      VantuUpdaterMissingCompsApp::MissingCompMatcher("*", "Dictionary", v1, false)(named));
  EXPECT_TRUE(VantuUpdaterMissingCompsApp::MissingCompMatcher("Spelling", "Dictionary", v1,
                                                               false)(named));
}

// A request that only refreshes the entry's name, path or type still answers 1 (the component was
// known) but saves the new values.
TEST_F(MissingCompsStore, ChangedEntryWithListedComponentAnswersOneAndSaves) {
  ASSERT_EQ(0u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Dictionary", "1.0"));
  EXPECT_EQ(1u, Request("A", "Alpha Pro", "/opt/a", 1, "Spelling", "Dictionary", "1.0"));
  EXPECT_EQ(StoreText(EntryText("A", 1, "Alpha Pro", "/opt/a",
                                ComponentText("Spelling", "Dictionary", "1.0.0.0"))),
            ReadFile(mStorePath));
  EXPECT_EQ(1u, Request("A", "Alpha Pro", "/srv/a", 4, "Spelling", "Dictionary", "1.0"));
  EXPECT_EQ(StoreText(EntryText("A", 4, "Alpha Pro", "/srv/a",
                                ComponentText("Spelling", "Dictionary", "1.0.0.0"))),
            ReadFile(mStorePath));
}

// A manager never leaves an empty or damaged store behind: its destructor deletes it. A store with
// entries survives byte for byte.
TEST_F(MissingCompsStore, DestructorDeletesEmptyOrUnparsableStore) {
  const std::string withEntry = StoreText(EntryText("A", 1, "Alpha", "/opt/a", ""));
  const std::vector<std::pair<std::string, bool>> cases = {
      {StoreText(""), false},
      {std::string(kDeclaration) + "<VantuUpdaterMissingCompsManager>\n<VantuUpdater", false},
      {"", false},
      // Entries without a display name or install path are dropped on load, which empties it.
      {StoreText("<VantuUpdaterMissingCompsApp AppID=\"A\" OperationType=\"1\" RedoCFU=\"1\">\n"
                 "<InstallPath>/opt/a</InstallPath>\n</VantuUpdaterMissingCompsApp>\n"),
       false},
      {withEntry, true},
  };
  for (const auto& c : cases) {
    WriteFile(mStorePath, c.first);
    { VantuUpdaterMissingCompsManager store; }
    EXPECT_EQ(c.second, StoreExists()) << c.first;
    if (c.second) {
      EXPECT_EQ(c.first, ReadFile(mStorePath));
    }
    EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath + "_"));
  }
  // Without a file there is nothing to delete and nothing is made.
  std::remove(mStorePath.c_str());
  { VantuUpdaterMissingCompsManager store; }
  EXPECT_FALSE(StoreExists());
}

// Any null text argument answers 2 before the store is touched.
TEST_F(MissingCompsStore, NullArgumentAnswersTwoAndWritesNothing) {
  const char* a = "A";
  const char* n = "Alpha";
  const char* p = "/opt/a";
  const char* c = "Spelling";
  const char* k = "Dictionary";
  const char* v = "1.0";
  auto all = [&](int nullIndex) {
    return Request(nullIndex == 0 ? nullptr : a, nullIndex == 1 ? nullptr : n,
                   nullIndex == 2 ? nullptr : p, 1, nullIndex == 3 ? nullptr : c,
                   nullIndex == 4 ? nullptr : k, nullIndex == 5 ? nullptr : v);
  };
  for (int i = 0; i < 6; ++i) EXPECT_EQ(2u, all(i)) << "null argument " << i;
  EXPECT_FALSE(StoreExists());

  ASSERT_EQ(0u, Request("B", "Beta", "/opt/b", 1, "Fonts", "Extras", "1.0"));
  const std::string before = ReadFile(mStorePath);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(2u, all(i)) << "null argument " << i;
  EXPECT_EQ(before, ReadFile(mStorePath));
}

// An unparsable version throws "Unable to parse version", for a new and for an existing entry,
// and nothing of the request is saved.
TEST_F(MissingCompsStore, UnparsableVersionThrowsAndSavesNothing) {
  auto expectThrow = [&](const char* name, const char* version) {
    try {
      Request("A", name, "/opt/a", 1, "Spelling", "Dictionary", version);
      ADD_FAILURE() << "no exception for " << version;
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ("Unable to parse version", e.what());
    }
  };
  expectThrow("Alpha", "1..2");
  EXPECT_FALSE(StoreExists());

  ASSERT_EQ(0u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Dictionary", "1.0"));
  const std::string before = ReadFile(mStorePath);
  expectThrow("Renamed", ".1");
  EXPECT_EQ(before, ReadFile(mStorePath));
}

// A store that does not parse answers 2 and is not written over; the manager's destructor then
// removes it, so the next request starts afresh.
TEST_F(MissingCompsStore, UnparsableStoreAnswersTwo) {
  const std::string damaged = "<VantuUpdaterMissingCompsManager><Vantu";
  WriteFile(mStorePath, damaged);
  {
    VantuUpdaterMissingCompsManager store;
    char name[] = "Spelling", category[] = "Dictionary", version[] = "1.0";
    EXPECT_EQ(2u, store.UpdateWithAppAndCompData(
                      "A", reinterpret_cast<const unsigned char*>("Alpha"),
                      reinterpret_cast<const unsigned char*>("/opt/a"), 1, name, category,
                      version));
    EXPECT_EQ(damaged, ReadFile(mStorePath));
    VantuUpdaterMissingCompsApp entry("A", 1);
    entry.SetDisplayName("Alpha");
    entry.SetInstallPath("/opt/a");
    EXPECT_EQ(2u, store.InsertMissingCompsApp(entry));
    EXPECT_EQ(damaged, ReadFile(mStorePath));
  }
  EXPECT_FALSE(StoreExists());
  EXPECT_EQ(0u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Dictionary", "1.0"));
}

// Attribute values are written unescaped, so a name or identifier holding markup would give a
// file that never loads again: the request fails with 2 and the file keeps its last good text.
TEST_F(MissingCompsStore, MarkupInAttributesIsNeverWritten) {
  ASSERT_EQ(0u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Dictionary", "1.0"));
  const std::string before = ReadFile(mStorePath);
  EXPECT_EQ(2u, Request("A", "Alpha", "/opt/a", 1, "Spell\"ing", "Dictionary", "1.0"));
  EXPECT_EQ(2u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Dict<", "1.0"));
  EXPECT_EQ(2u, Request("B&", "Beta", "/opt/b", 1, "Spelling", "Dictionary", "1.0"));
  EXPECT_EQ(before, ReadFile(mStorePath));
}

// Entries without a display name or install path are dropped on load and the file is rewritten
// at once; foreign elements and attributes ride along.
TEST_F(MissingCompsStore, UnusableEntriesAreDroppedOnLoad) {
  const std::string good = EntryText("Good", 1, "Good", "/opt/good",
                                     ComponentText("Spelling", "Dictionary", "1.0.0.0"));
  WriteFile(mStorePath,
            StoreText("<Note>keep</Note>\n" + good +
                      EntryText("EmptyPath", 1, "E", "", "") +
                      "<VantuUpdaterMissingCompsApp AppID=\"NoName\" OperationType=\"1\" "
                      "RedoCFU=\"1\">\n<InstallPath>/opt/n</InstallPath>\n"
                      "</VantuUpdaterMissingCompsApp>\n"));
  VantuUpdaterMissingCompsManager store;
  std::list<VantuUpdaterMissingCompsApp> apps;
  ASSERT_TRUE(store.GetMissingCompsApps(apps));
  ASSERT_EQ(1u, apps.size());
  std::string id;
  EXPECT_TRUE(apps.front().GetAppID(id));
  EXPECT_EQ("Good", id);
  EXPECT_EQ(StoreText("<Note>keep</Note>\n" + good), ReadFile(mStorePath));
}

// Entries handed out stay bound to the loaded tree: a change through one followed by a save
// reaches the file. The request path depends on this.
TEST_F(MissingCompsStore, EntriesStayBoundToTheStore) {
  ASSERT_EQ(0u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Dictionary", "1.0"));
  VantuUpdaterMissingCompsManager store;
  std::unique_ptr<VantuUpdaterMissingCompsApp> entry;
  ASSERT_TRUE(store.GetMissingCompsAppByAppID("A", entry));
  std::list<VantuUpdaterAMissingComponent> comps;
  ASSERT_TRUE(entry->GetMissingComponents(comps));
  ASSERT_EQ(1u, comps.size());
  comps.front().Setcategory("Thesaurus");
  entry->SetDisplayName("Alpha 2");
  ASSERT_TRUE(store.SaveMissingCompsApps());
  EXPECT_EQ(StoreText(EntryText("A", 1, "Alpha 2", "/opt/a",
                                ComponentText("Spelling", "Thesaurus", "1.0.0.0"))),
            ReadFile(mStorePath));

  std::unique_ptr<VantuUpdaterMissingCompsApp> none;
  EXPECT_FALSE(store.GetMissingCompsAppByAppID("a", none));
  EXPECT_FALSE(none);
}

// An entry lacking its identifier, name or path is refused by the insertion and nothing is
// written.
TEST_F(MissingCompsStore, IncompleteEntryIsRefused) {
  VantuUpdaterMissingCompsApp noName("A", 1), noPath("A", 1), noID("", 1);
  noName.SetInstallPath("/opt/a");
  noPath.SetDisplayName("Alpha");
  noID.SetDisplayName("Alpha");
  noID.SetInstallPath("/opt/a");
  VantuUpdaterMissingCompsManager store;
  for (VantuUpdaterMissingCompsApp* entry : {&noName, &noPath, &noID})
    EXPECT_EQ(2u, store.InsertMissingCompsApp(*entry));
  EXPECT_FALSE(StoreExists());
}

// Eight processes record requests of different applications at the same moment: every entry
// lands and the file parses afterwards.
TEST_F(MissingCompsStore, EightProcessesInsertingAtOnceAllLand) {
  const int kProcesses = 8;
  testing_support::Pipe go;
  std::vector<pid_t> children;
  for (int i = 0; i < kProcesses; ++i) {
    children.push_back(testing_support::StartChild([&go, i]() {
      if (!go.Wait()) return 90;
      const std::string id = "com.example.App" + std::to_string(i);
      const std::string name = "App " + std::to_string(i);
      return static_cast<int>(Request(id.c_str(), name.c_str(), "/opt/app", i, "Spelling",
                                      "Dictionary", "1.0"));
    }));
  }
  for (int i = 0; i < kProcesses; ++i) go.Signal();
  for (pid_t child : children) EXPECT_EQ(0, testing_support::WaitChild(child));

  VantuUpdaterMissingCompsManager store;
  std::list<VantuUpdaterMissingCompsApp> apps;
  ASSERT_TRUE(store.GetMissingCompsApps(apps));
  std::vector<std::string> ids;
  for (const VantuUpdaterMissingCompsApp& app : apps) {
    std::string id;
    app.GetAppID(id);
    ids.push_back(id);
  }
  std::sort(ids.begin(), ids.end());
  std::vector<std::string> expected;
  for (int i = 0; i < kProcesses; ++i) expected.push_back("com.example.App" + std::to_string(i));
  EXPECT_EQ(expected, ids);
}

// While another process holds the store's lock a request gives up with 2 and the file is left
// alone; the manager's destructor cannot take the lock either, so it deletes nothing.
TEST_F(MissingCompsStore, HeldLockMakesRequestFailWithoutWriting) {
  ASSERT_EQ(0u, Request("A", "Alpha", "/opt/a", 1, "Spelling", "Dictionary", "1.0"));
  const std::string before = ReadFile(mStorePath);

  testing_support::Pipe locked, release;
  const std::string lockName = mStorePath;
  pid_t holder = testing_support::StartChild([&]() {
    esd::ResourceLocker locker(lockName, 0);
    if (!locker.Lock()) return 91;
    locked.Signal();
    release.Wait(60000);
    return locker.Unlock(false) ? 0 : 92;
  });
  ASSERT_TRUE(locked.Wait());

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(2u, Request("B", "Beta", "/opt/b", 1, "Fonts", "Extras", "1.0"));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(1900));
  EXPECT_LT(waited, std::chrono::seconds(30));
  EXPECT_EQ(before, ReadFile(mStorePath));

  release.Signal();
  EXPECT_EQ(0, testing_support::WaitChild(holder));
  EXPECT_EQ(0u, Request("B", "Beta", "/opt/b", 1, "Fonts", "Extras", "1.0"));
}

}  // namespace
