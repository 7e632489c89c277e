#include "xplat/JournaledXMLFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <string>

#include "support/TempDir.h"
#include "xplat/DOMUtils.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/JournaledXMLLockedFile.h"
#include "xplat/ResourceLocker.h"

namespace {

using esd::XMLDocumentNode;
using Builder = esd::ExpatDOMBuilder<XMLDocumentNode>;
using Names = std::set<std::string>;
using testing_support::ReadFile;
using testing_support::LockIsHeld;
using testing_support::LockFileGuard;
using testing_support::TempDir;
using testing_support::WriteFile;

const std::string kDecl = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";

std::string StoreText(const std::string& value) {
  return kDecl + "<Store value=\"" + value + "\">\n<Entry>text</Entry>\n</Store>\n";
}

// The "value" attribute of the store root, empty when there is none.
std::string Value(Builder& builder) {
  XMLDocumentNode* root = nullptr;
  std::string value;
  if (builder.GetDocumentNode() &&
      esd::DOMUtils::FindUniqueChildByName(builder.GetDocumentNode(), "Store", root))
    root->GetAttrValue("value", value);
  return value;
}

// Sets the value, making the store root when the file had none.
void SetValue(Builder& builder, const std::string& value) {
  XMLDocumentNode* root = nullptr;
  if (!esd::DOMUtils::FindUniqueChildByName(builder.GetDocumentNode(), "Store", root)) {
    builder.GetDocumentNode()->AddChildNode(root = new XMLDocumentNode("Store"));
    esd::DOMUtils::SetChildValue(root, "Entry", std::string("text"));
  }
  root->SetAttributeData("value", value);
}

// A store that can save from inside OnLoadSuccess, as the real stores do when they repair what
// they loaded.
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

Names ListFolder(const std::string& path) {
  Names names;
  for (const auto& entry : std::filesystem::directory_iterator(path))
    names.insert(entry.path().filename().string());
  return names;
}

// A store file in a fresh folder, its lock file removed afterwards.
class JournaledStore : public ::testing::Test {
 protected:
  TempDir dir;
  const std::string path = dir / "Store.xml";
  LockFileGuard guard{path};
};

// A whole journal ("Store.xml_") is the store, replacing the file if there is one; one cut short
// loses to the file, or gives an empty store without one, and the next save clears it away,
// whatever the old file's bits, leaving the file with the owner's. (Journals cut at every byte
// are the store fuzzers' case.)
TEST_F(JournaledStore, WholeJournalsWinAndCutOnesLose) {
  const std::string newText = StoreText("new");
  for (const bool withFile : {false, true}) {
    for (const std::string& journal : {newText, newText.substr(0, newText.size() / 2)}) {
      const bool whole = journal == newText;
      if (withFile) {
        WriteFile(path, StoreText("old"));
        chmod(path.c_str(), 0444);
      }
      WriteFile(path + "_", journal);
      TestStore store(path);
      ASSERT_TRUE(store.Load(nullptr));
      EXPECT_EQ(1, store.loads);
      EXPECT_EQ(whole ? "new" : withFile ? "old" : "", store.Value()) << withFile << whole;
      EXPECT_EQ(whole, ListFolder(dir.path()) == Names{"Store.xml"}) << withFile << whole;
      store.SetValue("saved");
      ASSERT_TRUE(store.Save()) << withFile << whole;
      EXPECT_EQ(Names{"Store.xml"}, ListFolder(dir.path()));
      struct stat info {};
      EXPECT_TRUE(stat(path.c_str(), &info) == 0 && (info.st_mode & 07777) == 0600);
      unlink(path.c_str());
    }
  }
}

// A missing store loads empty and creates nothing. (Damaged files are the store fuzzers' case.)
TEST_F(JournaledStore, MissingStoreLoadsEmpty) {
  TestStore store(path);
  ASSERT_TRUE(store.Load(nullptr));
  EXPECT_TRUE(store.mBuilder.GetDocumentNode()->GetChildNodes().empty());
  EXPECT_FALSE(store.Save());  // a lone declaration would never load again
  EXPECT_TRUE(ListFolder(dir.path()).empty());
}

// A tree from before a failed load (lock timed out, or damaged file) is never saved over the file,
// nor is an attribute value (written raw) that would not load again, which would lock every user
// out of the store; merely unusual text goes through.
TEST_F(JournaledStore, NeverWritesAStaleTreeOrTextThatWouldNotLoadAgain) {
  WriteFile(path, StoreText("first"));
  TestStore store(path, 20);
  ASSERT_TRUE(store.Load(nullptr));
  store.SetValue("stale");

  WriteFile(path, StoreText("other"));
  {
    esd::ResourceLocker other(path, 0);
    ASSERT_TRUE(other.Lock());
    EXPECT_FALSE(store.Load(nullptr) || store.Save() || store.Delete());
  }
  EXPECT_FALSE(store.Save());  // the lock is free again, the tree still stale
  EXPECT_EQ(StoreText("other"), ReadFile(path));
  ASSERT_TRUE(store.Load(nullptr));
  store.SetValue("a&b");
  EXPECT_FALSE(store.Save());
  EXPECT_EQ(StoreText("other"), ReadFile(path));
  EXPECT_EQ(Names{"Store.xml"}, ListFolder(dir.path()));
  store.SetValue("a>b 'c'");
  EXPECT_TRUE(store.Save());
  EXPECT_EQ(StoreText("a>b 'c'"), ReadFile(path));

  WriteFile(path, "<Store");
  EXPECT_FALSE(store.Load(nullptr));
  EXPECT_FALSE(store.Save());
  EXPECT_EQ("<Store", ReadFile(path));
}

TEST_F(JournaledStore, DeleteRemovesFileAndJournal) {
  Builder builder;
  JournaledXMLFile file(builder);
  EXPECT_TRUE(file.Delete());  // no path, nothing there
  EXPECT_FALSE(file.Save());   // no document

  ASSERT_TRUE(file.SetPath(path));
  ASSERT_TRUE(file.Load(nullptr));
  builder.GetDocumentNode()->AddChildNode(new XMLDocumentNode("Store"));
  ASSERT_TRUE(file.Save());
  WriteFile(path + "_", "<partial");
  EXPECT_TRUE(file.Delete());
  EXPECT_TRUE(ListFolder(dir.path()).empty());
  EXPECT_EQ(nullptr, builder.GetDocumentNode());
  EXPECT_FALSE(file.Save());  // nothing to save until the next load

  // A file whose own write bit is missing is not deleted (root included).
  WriteFile(path, StoreText("kept"));
  chmod(path.c_str(), 0444);
  EXPECT_FALSE(file.Delete());
  EXPECT_EQ(StoreText("kept"), ReadFile(path));
}

// A new path takes the file along (not the journal); a path in a missing folder is refused.
TEST_F(JournaledStore, SetPathMovesTheStore) {
  Builder builder;
  JournaledXMLFile file(builder);
  ASSERT_TRUE(file.SetPath(dir / "First.xml"));
  WriteFile(dir / "First.xml", StoreText("moved"));
  WriteFile(dir / "First.xml_", "<junk");
  EXPECT_FALSE(file.SetPath(dir / "missing-folder/Third.xml"));
  ASSERT_TRUE(file.SetPath(dir / "Second.xml"));
  EXPECT_EQ(Names{"Second.xml"}, ListFolder(dir.path()));
  EXPECT_EQ(StoreText("moved"), ReadFile(dir / "Second.xml"));
}

// Operations on their own take the lock and give it back; inside a held lock they keep it and
// shut everyone else out; a stale lock is broken with force; destroying the store releases it.
TEST_F(JournaledStore, OperationsNestInsideAHeldLock) {
  TestStore store(path, 20);
  WriteFile(path, StoreText("before"));
  int saveFlag = 1;
  ASSERT_TRUE(store.Load(&saveFlag));  // saves from inside the load, under the same lock
  EXPECT_TRUE(store.lockHeldDuringLoad);
  EXPECT_TRUE(store.saveInsideLoad);
  EXPECT_FALSE(store.HasLock());
  EXPECT_FALSE(LockIsHeld(path));

  ASSERT_TRUE(store.Lock());
  EXPECT_THROW(store.Lock(), esd::resource_lock_fail);
  ASSERT_TRUE(store.Load(nullptr));
  store.SetValue("inside");
  ASSERT_TRUE(store.Save());
  EXPECT_TRUE(store.HasLock());
  TestStore other(path, 20);
  EXPECT_FALSE(other.Load(nullptr) || other.Save() || other.Delete());
  EXPECT_EQ(StoreText("inside"), ReadFile(path));
  ASSERT_TRUE(store.Delete());
  EXPECT_TRUE(store.HasLock());
  EXPECT_TRUE(store.Unlock(false));
  EXPECT_FALSE(LockIsHeld(path));
  EXPECT_THROW(store.Unlock(false), esd::no_resource_lock);

  esd::ResourceLocker crashed(path, 0);
  ASSERT_TRUE(crashed.Lock());
  TestStore fresh(path, 0);
  EXPECT_FALSE(fresh.Unlock(false));  // no locker yet: nothing to release
  EXPECT_FALSE(fresh.Load(nullptr));
  EXPECT_TRUE(fresh.Unlock(true));
  EXPECT_TRUE(fresh.Load(nullptr));
  {
    TestStore holder(path);
    ASSERT_TRUE(holder.Lock());
  }
  EXPECT_FALSE(LockIsHeld(path));
}

}  // namespace
