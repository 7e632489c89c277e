#include "xplat/JournaledXMLFile.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/SemaphoreGuard.h"
#include "support/TempDir.h"
#include "xplat/DOMUtils.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/JournaledXMLLockedFile.h"
#include "xplat/ResourceLocker.h"
#include "xplat/SearchResults.h"

namespace {

using esd::XMLDocumentNode;
using Builder = esd::ExpatDOMBuilder<XMLDocumentNode>;
using testing_support::ReadFile;
using testing_support::SemaphoreExists;
using testing_support::SemaphoreGuard;
using testing_support::TempDir;
using testing_support::WriteFile;

const std::string kDecl = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";

std::string StoreText(const std::string& value) {
  return kDecl + "<Store value=\"" + value + "\">\n<Entry>text</Entry>\n</Store>\n";
}

// The "value" attribute of the store root, empty when there is none.
std::string Value(Builder& builder) {
  XMLDocumentNode* doc = builder.GetDocumentNode();
  XMLDocumentNode* root = nullptr;
  std::string value;
  if (doc && esd::DOMUtils::FindUniqueChildByName(doc, "Store", root))
    root->GetAttrValue("value", value);
  return value;
}

// Sets the value, making the store root when the file had none.
void SetValue(Builder& builder, const std::string& value) {
  XMLDocumentNode* doc = builder.GetDocumentNode();
  XMLDocumentNode* root = nullptr;
  if (!esd::DOMUtils::FindUniqueChildByName(doc, "Store", root)) {
    root = new XMLDocumentNode("Store");
    doc->AddChildNode(root);
    esd::DOMUtils::SetChildValue(root, "Entry", std::string("text"));
  }
  root->SetAttributeData("value", value);
}

// A store that counts its loads and can save from inside OnLoadSuccess, as the real stores do
// when they repair what they loaded.
class TestStore : public JournaledXMLLockedFile {
 public:
  explicit TestStore(const std::string& path, unsigned long timeoutMs = 2000)
      : JournaledXMLLockedFile(mBuilder, timeoutMs) {
    SetPath(path);
  }

  bool OnLoadSuccess(XMLDocumentNode* root, void* context) override {
    ++loads;
    lockHeldDuringLoad = HasLock();
    if (context) saveInsideLoad = Save();
    return JournaledXMLFile::OnLoadSuccess(root, context);
  }

  std::string Value() { return ::Value(mBuilder); }
  void SetValue(const std::string& value) { ::SetValue(mBuilder, value); }

  Builder mBuilder;
  int loads = 0;
  bool lockHeldDuringLoad = false;
  bool saveInsideLoad = false;
};

std::vector<std::string> ListFolder(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(path.c_str())) {
    while (dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

mode_t Mode(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

bool Parses(const std::string& path) {
  Builder builder;
  return builder.Create(nullptr, nullptr) && builder.ParseFile(path, false);
}

TEST(JournaledXMLFile, SaveLeavesOnlyTheFileWithSharedPermissions) {
  TempDir dir;
  const std::string path = dir / "Store.xml";
  SemaphoreGuard guard(path);
  const mode_t oldMask = umask(022);
  for (mode_t before : {mode_t(0), mode_t(0600), mode_t(0444), mode_t(0777)}) {
    if (before) {
      WriteFile(path, StoreText("old"));
      chmod(path.c_str(), before);
    } else {
      unlink(path.c_str());
    }
    TestStore store(path);
    ASSERT_TRUE(store.Load(nullptr));
    store.SetValue("new");
    ASSERT_TRUE(store.Save()) << std::oct << before;
    EXPECT_EQ(std::vector<std::string>{"Store.xml"}, ListFolder(dir.path()));
    EXPECT_EQ(StoreText("new"), ReadFile(path));
    // The old file (read-only or not) is never left behind as a journal, and the new one can
    // be rewritten by every user.
    // The new file is the journal, so its bits do not depend on the old file's.
    EXPECT_EQ(mode_t(0666), Mode(path)) << std::oct << before;

    TestStore reread(path);
    ASSERT_TRUE(reread.Load(nullptr));
    EXPECT_EQ("new", reread.Value());
  }
  umask(oldMask);
  EXPECT_FALSE(SemaphoreExists(path));
}

TEST(JournaledXMLFile, ValidJournalWinsOverOlderFile) {
  TempDir dir;
  const std::string path = dir / "Store.xml";
  SemaphoreGuard guard(path);
  std::string journal;
  ASSERT_TRUE(JournaledXMLFile::GetJournalPath(path, journal));
  EXPECT_EQ(path + "_", journal);

  for (bool fileExists : {true, false}) {
    if (fileExists) WriteFile(path, StoreText("old"));
    WriteFile(journal, StoreText("new"));
    TestStore store(path);
    ASSERT_TRUE(store.Load(nullptr));
    EXPECT_EQ(1, store.loads);
    EXPECT_EQ("new", store.Value());
    EXPECT_EQ(std::vector<std::string>{"Store.xml"}, ListFolder(dir.path()));
    EXPECT_EQ(StoreText("new"), ReadFile(path));
    unlink(path.c_str());
  }
}

TEST(JournaledXMLFile, IncompleteJournalLosesToTheFile) {
  TempDir dir;
  const std::string path = dir / "Store.xml";
  const std::string journal = path + "_";
  SemaphoreGuard guard(path);
  const std::string newText = StoreText("new");
  // Every way a save can be cut short while writing the journal.
  for (std::size_t cut = 0; cut <= newText.size(); ++cut) {
    WriteFile(path, StoreText("old"));
    WriteFile(journal, newText.substr(0, cut));
    TestStore store(path);
    ASSERT_TRUE(store.Load(nullptr)) << cut;
    // Only the whole text, or the whole text short of its final line feed, is complete.
    const bool complete = cut + 1 >= newText.size();
    EXPECT_EQ(complete ? "new" : "old", store.Value()) << cut;
    EXPECT_EQ(complete ? newText.substr(0, cut) : StoreText("old"), ReadFile(path)) << cut;

    store.SetValue("saved");
    ASSERT_TRUE(store.Save()) << cut;
    EXPECT_EQ(std::vector<std::string>{"Store.xml"}, ListFolder(dir.path()));
    EXPECT_EQ(StoreText("saved"), ReadFile(path));
  }

  // An unusable journal and no file: an empty store, not the journal's fragment.
  unlink(path.c_str());
  WriteFile(journal, newText.substr(0, newText.size() / 2));
  TestStore store(path);
  ASSERT_TRUE(store.Load(nullptr));
  EXPECT_EQ(kDecl, [&] {
    std::ostringstream out;
    out << *store.mBuilder.GetDocumentNode();
    return out.str();
  }());
}

TEST(JournaledXMLFile, MissingStoreLoadsEmptyAndBadFilesFailTheLoad) {
  TempDir dir;
  const std::string path = dir / "Store.xml";
  SemaphoreGuard guard(path);
  {
    TestStore store(path);
    ASSERT_TRUE(store.Load(nullptr));
    EXPECT_EQ(1, store.loads);
    EXPECT_TRUE(store.mBuilder.GetDocumentNode()->GetChildNodes().empty());
    EXPECT_TRUE(ListFolder(dir.path()).empty());  // loading creates nothing
    // A lone declaration would never load again, so an empty document is not saved.
    EXPECT_FALSE(store.Save());
    EXPECT_TRUE(ListFolder(dir.path()).empty());
  }
  for (const std::string& bad :
       {std::string(), std::string("<Store>"), std::string("garbage"), kDecl,
        StoreText("x").substr(0, 50), std::string("<Store/>\0", 9)}) {
    WriteFile(path, bad);
    TestStore store(path);
    EXPECT_FALSE(store.Load(nullptr)) << bad;
    EXPECT_EQ(0, store.loads);
    // Nothing from the failed load may be written over the file.
    EXPECT_FALSE(store.Save());
    EXPECT_EQ(bad, ReadFile(path));
    EXPECT_EQ(std::vector<std::string>{"Store.xml"}, ListFolder(dir.path()));
  }
}

TEST(JournaledXMLFile, FailedLoadNeverWritesTheOlderTreeOverAGoodFile) {
  TempDir dir;
  const std::string path = dir / "Store.xml";
  SemaphoreGuard guard(path);
  WriteFile(path, StoreText("first"));

  TestStore store(path, 20);
  ASSERT_TRUE(store.Load(nullptr));
  store.SetValue("stale");

  // Another writer replaces the file, then holds the lock so our next load times out.
  WriteFile(path, StoreText("other"));
  {
    esd::ResourceLocker other(path, 0);
    ASSERT_TRUE(other.Lock());
    EXPECT_FALSE(store.Load(nullptr));
    EXPECT_FALSE(store.Save());
    EXPECT_FALSE(store.Delete());
    EXPECT_EQ(StoreText("other"), ReadFile(path));
  }
  // With the lock free again the stale tree still may not be saved...
  EXPECT_FALSE(store.Save());
  EXPECT_EQ(StoreText("other"), ReadFile(path));
  // ...until a load succeeds.
  ASSERT_TRUE(store.Load(nullptr));
  EXPECT_EQ("other", store.Value());
  store.SetValue("third");
  EXPECT_TRUE(store.Save());
  EXPECT_EQ(StoreText("third"), ReadFile(path));

  // The same after a load that failed on a damaged file: the earlier tree is not written back.
  WriteFile(path, "<Store");
  EXPECT_FALSE(store.Load(nullptr));
  EXPECT_FALSE(store.Save());
  EXPECT_EQ("<Store", ReadFile(path));
}

// Attribute values are written raw; a value that would break the file must not reach the disk,
// or one caller's odd identifier would lock every user out of the shared store.
TEST(JournaledXMLFile, SaveRefusesTextThatWouldNotLoadAgain) {
  TempDir dir;
  const std::string path = dir / "Store.xml";
  SemaphoreGuard guard(path);
  WriteFile(path, StoreText("good"));
  TestStore store(path);
  ASSERT_TRUE(store.Load(nullptr));
  for (const char* bad : {"a\"b", "a&b", "a<b", "&"}) {
    store.SetValue(bad);
    EXPECT_FALSE(store.Save()) << bad;
    EXPECT_EQ(StoreText("good"), ReadFile(path));
    EXPECT_EQ(std::vector<std::string>{"Store.xml"}, ListFolder(dir.path()));
  }
  // Characters that are only unusual still go through raw.
  store.SetValue("a>b 'c'");
  ASSERT_TRUE(store.Save());
  EXPECT_EQ(StoreText("a>b 'c'"), ReadFile(path));
  // So does markup in element text, which is escaped.
  store.mBuilder.GetDocumentNode()->GetChildNodes()[0]->GetChildNodes()[0]->SetElementData("<&>");
  ASSERT_TRUE(store.Save());
  ASSERT_TRUE(store.Load(nullptr));
  EXPECT_EQ("<&>", store.mBuilder.GetDocumentNode()->GetChildNodes()[0]->GetChildNodes()[0]->GetData());
}

TEST(JournaledXMLFile, DeleteRemovesFileAndJournal) {
  TempDir dir;
  const std::string path = dir / "Store.xml";
  SemaphoreGuard guard(path);
  Builder builder;
  JournaledXMLFile file(builder);
  EXPECT_TRUE(file.Delete());  // no path, nothing there
  std::string out = "untouched";
  EXPECT_FALSE(file.GetXMLFileFullPath(out));
  EXPECT_EQ("", out);
  EXPECT_FALSE(file.Save());  // no document

  ASSERT_TRUE(file.SetPath(path));
  ASSERT_TRUE(file.GetXMLFileFullPath(out));
  EXPECT_EQ(path, out);
  ASSERT_TRUE(file.Load(nullptr));
  builder.GetDocumentNode()->AddChildNode(new XMLDocumentNode("Store"));
  ASSERT_TRUE(file.Save());
  WriteFile(path + "_", "<partial");

  EXPECT_TRUE(file.Delete());
  EXPECT_TRUE(ListFolder(dir.path()).empty());
  EXPECT_EQ(nullptr, builder.GetDocumentNode());
  EXPECT_FALSE(file.Save());  // nothing to save until the next load
  EXPECT_TRUE(file.Delete());

  // A file whose own write bit is missing is not deleted (root included).
  WriteFile(path, StoreText("kept"));
  chmod(path.c_str(), 0444);
  EXPECT_FALSE(file.Delete());
  EXPECT_EQ(StoreText("kept"), ReadFile(path));
}

TEST(JournaledXMLFile, SetPathMovesTheStore) {
  TempDir dir;
  const std::string first = dir / "First.xml";
  const std::string second = dir / "Second.xml";
  Builder builder;
  JournaledXMLFile file(builder);
  ASSERT_TRUE(file.SetPath(first));
  WriteFile(first, StoreText("moved"));
  WriteFile(first + "_", "<junk");

  EXPECT_TRUE(file.SetPath(first));  // the same path deletes nothing
  EXPECT_EQ((std::vector<std::string>{"First.xml", "First.xml_"}), ListFolder(dir.path()));

  EXPECT_FALSE(file.SetPath(dir / "missing-folder/Third.xml"));
  std::string current;
  ASSERT_TRUE(file.GetXMLFileFullPath(current));
  EXPECT_EQ(first, current);
  EXPECT_EQ(StoreText("moved"), ReadFile(first));

  ASSERT_TRUE(file.SetPath(second));
  EXPECT_EQ(std::vector<std::string>{"Second.xml"}, ListFolder(dir.path()));
  EXPECT_EQ(StoreText("moved"), ReadFile(second));
  ASSERT_TRUE(file.Load(nullptr));
  ASSERT_TRUE(file.Save());
  EXPECT_EQ(StoreText("moved"), ReadFile(second));  // the rewrite is byte-identical

  // Moving a store that has no file yet only changes the paths.
  ASSERT_TRUE(file.Delete());
  ASSERT_TRUE(file.SetPath(first));
  EXPECT_TRUE(ListFolder(dir.path()).empty());
}

TEST(JournaledXMLLockedFile, OperationsNestInsideAHeldLock) {
  TempDir dir;
  const std::string path = dir / "Store.xml";
  SemaphoreGuard guard(path);
  TestStore store(path, 20);
  EXPECT_FALSE(store.HasLock());

  // On their own, operations take the lock and give it back.
  WriteFile(path, StoreText("before"));
  int saveFlag = 1;
  ASSERT_TRUE(store.Load(&saveFlag));  // saves from inside the load, under the same lock
  EXPECT_TRUE(store.lockHeldDuringLoad);
  EXPECT_TRUE(store.saveInsideLoad);
  EXPECT_FALSE(store.HasLock());
  EXPECT_FALSE(SemaphoreExists(path));

  // Inside a held lock they keep it.
  ASSERT_TRUE(store.Lock());
  EXPECT_TRUE(SemaphoreExists(path));
  EXPECT_THROW(store.Lock(), esd::resource_lock_fail);
  ASSERT_TRUE(store.Load(nullptr));
  store.SetValue("inside");
  ASSERT_TRUE(store.Save());
  EXPECT_TRUE(store.HasLock());
  // Meanwhile nobody else gets in.
  TestStore other(path, 20);
  EXPECT_FALSE(other.Load(nullptr));
  EXPECT_FALSE(other.Save());
  EXPECT_FALSE(other.Delete());
  EXPECT_EQ(StoreText("inside"), ReadFile(path));
  ASSERT_TRUE(store.Delete());
  EXPECT_TRUE(store.HasLock());
  EXPECT_TRUE(store.Unlock(false));
  EXPECT_FALSE(store.HasLock());
  EXPECT_FALSE(SemaphoreExists(path));
  EXPECT_THROW(store.Unlock(false), esd::no_resource_lock);

  // A lock left by someone who went away is broken with force, without ever holding it.
  esd::ResourceLocker crashed(path, 0);
  ASSERT_TRUE(crashed.Lock());
  TestStore fresh(path, 0);
  EXPECT_FALSE(fresh.Unlock(false));  // no locker yet: nothing to release
  EXPECT_FALSE(fresh.Load(nullptr));
  EXPECT_TRUE(fresh.Unlock(true));
  EXPECT_TRUE(fresh.Load(nullptr));
  EXPECT_FALSE(SemaphoreExists(path));

  // Without a path there is no lock to take.
  Builder builder;
  JournaledXMLLockedFile pathless(builder, 0);
  EXPECT_FALSE(pathless.Lock());
  EXPECT_FALSE(pathless.Unlock(true));
  EXPECT_FALSE(pathless.HasLock());
  EXPECT_FALSE(pathless.Load(nullptr));
}

TEST(JournaledXMLLockedFile, DestroyingTheStoreReleasesItsLock) {
  TempDir dir;
  const std::string path = dir / "Store.xml";
  SemaphoreGuard guard(path);
  {
    TestStore store(path);
    ASSERT_TRUE(store.Lock());
    EXPECT_TRUE(SemaphoreExists(path));
  }
  EXPECT_FALSE(SemaphoreExists(path));
}

// The number stored in the store's "value", bumped by every save of either process.
int Counter(TestStore& store) { return store.Value().empty() ? 0 : std::stoi(store.Value()); }

TEST(JournaledXMLLockedFile, TwoProcessesSavingAlternatelyNeverLeaveABrokenFile) {
  TempDir dir;
  const std::string path = dir / "Store.xml";
  SemaphoreGuard guard(path);
  const int kRounds = 150;

  auto writer = [&] {
    TestStore store(path, 10000);
    for (int i = 0; i < kRounds; ++i) {
      // Lock, read, change, write: the increment of the other process is never lost.
      if (!store.Lock()) return 2;
      if (!store.Load(nullptr)) return 3;
      store.SetValue(std::to_string(Counter(store) + 1));
      if (!store.Save()) return 4;
      if (!store.Unlock(false)) return 5;
    }
    return 0;
  };
  testing_support::Pipe stop;
  // Reads the file without any lock: every version it ever sees must be complete.
  const pid_t reader = testing_support::StartChild([&] {
    int reads = 0;
    while (!stop.Wait(0)) {
      if (access(path.c_str(), F_OK) != 0) continue;
      if (!Parses(path)) return 10;
      ++reads;
    }
    return reads > 0 ? 0 : 11;
  });
  const pid_t first = testing_support::StartChild(writer);
  const pid_t second = testing_support::StartChild(writer);
  EXPECT_EQ(0, testing_support::WaitChild(first));
  EXPECT_EQ(0, testing_support::WaitChild(second));
  stop.Signal();
  EXPECT_EQ(0, testing_support::WaitChild(reader));

  TestStore store(path);
  ASSERT_TRUE(store.Load(nullptr));
  EXPECT_EQ(2 * kRounds, Counter(store));
  EXPECT_EQ(std::vector<std::string>{"Store.xml"}, ListFolder(dir.path()));
  EXPECT_FALSE(SemaphoreExists(path));
}

// A crash at any point of a save leaves a store that loads, holding the old or the new text.
// (Unlocked: a process killed inside sem_open would leave the C library's temporary behind.)
TEST(JournaledXMLFile, ProcessKilledWhileSavingLeavesOldOrNewStore) {
  TempDir dir;
  const std::string path = dir / "Store.xml";
  int last = 0;
  for (int round = 0; round < 25; ++round) {
    testing_support::Pipe started;
    const pid_t saver = testing_support::StartChild([&] {
      Builder builder;
      JournaledXMLFile store(builder);
      store.SetPath(path);
      started.Signal();
      for (;;) {
        if (!store.Load(nullptr)) return 3;
        const std::string value = Value(builder);
        SetValue(builder, std::to_string(value.empty() ? 1 : std::stoi(value) + 1));
        if (!store.Save()) return 4;
      }
    });
    ASSERT_TRUE(started.Wait());
    std::this_thread::sleep_for(std::chrono::microseconds(500 + 397 * round % 4000));
    kill(saver, SIGKILL);
    EXPECT_EQ(-1, testing_support::WaitChild(saver));

    Builder builder;
    JournaledXMLFile store(builder);
    store.SetPath(path);
    ASSERT_TRUE(store.Load(nullptr)) << round;
    const std::string value = Value(builder);
    // Saves only ever count up: nothing older than what a finished save wrote comes back.
    const int now = value.empty() ? 0 : std::stoi(value);
    EXPECT_LE(last, now) << round;
    last = now;
    ASSERT_TRUE(store.Save() || value.empty());
    EXPECT_FALSE(access((path + "_").c_str(), F_OK) == 0 && !value.empty()) << round;
  }
}

}  // namespace
