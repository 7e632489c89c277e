// The file layer: file-system utilities, the journaled store file and the preference file.

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>

#include "support/ChildProcess.h"
#include "support/FaultyEnv.h"
#include "support/TempDir.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/JournaledXMLLockedFile.h"
#include "xplat/MapPref.h"
#include "xplat/PrefsWriter.h"
#include "xplat/ResourceLocker.h"

namespace {

using namespace FileSystemUtils;
using esd::XMLDocumentNode;
using Builder = esd::ExpatDOMBuilder<XMLDocumentNode>;
using Names = std::set<std::string>;
using namespace testing_support;

const std::string kDecl = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";

mode_t ModeOf(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

Names ListFolder(const std::string& folder) {
  Names names;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    names.insert(entry.path().filename().string());
  return names;
}

// Writes a file with exact permission bits (chmod ignores the umask).
void MakeFile(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
  WriteFile(path, bytes);
  ASSERT_EQ(0, ::chmod(path.c_str(), mode));
}

// A fresh folder, under a umask that would show any bits a function forgets to set.
class FileSystemUtilsTest : public ::testing::Test {
 protected:
  ~FileSystemUtilsTest() override { ::umask(oldMask); }
  const mode_t oldMask = ::umask(077);
  TempDir dir;
};

// The kernel's exchange refused, as on file systems without it: the swap goes by renames.
int NoExchange(FileOp op, int, const std::string&) { return op == FileOp::kExchange ? EINVAL : 0; }

TEST(FileSystemUtilsPaths, SplitAndJoinAtTheEdges) {
  const std::pair<const char*, const char*> kParents[] = {
      {"/a", "/"}, {"/a/b/", "/a/b"}, {"a/b", "a"}, {"name", ""}, {"/", "/"}};
  for (const auto& [path, parent] : kParents) EXPECT_EQ(parent, GetParentPath(path)) << path;
  const std::pair<const char*, const char*> kLast[] = {{"/a/b", "b"}, {"/a/b/", ""}, {"name", "name"}};
  for (const auto& [path, last] : kLast) EXPECT_EQ(last, GetPathLastComponent(path)) << path;
  // Only one leading "/" of the element is dropped.
  const char* const kJoined[][3] = {
      {"/x/", "/y", "/x/y"}, {"/x", "y", "/x/y"}, {"/x/", "//y", "/x//y"}, {"/", "y", "/y"}};
  for (const auto& row : kJoined) EXPECT_EQ(row[2], AppendPathElement(row[0], row[1])) << row[1];
}

// A new file gets exactly its bits whatever the umask; a name already taken (a link included)
// is never written through; every failure leaves no file behind.
TEST_F(FileSystemUtilsTest, CreateFileWith) {
  const auto writeText = [](std::ostream& out) { return static_cast<bool>(out << "text"); };
  ASSERT_TRUE(CreateFileWith(dir / "new", 0664, true, writeText));
  EXPECT_EQ("text", ReadFile(dir / "new"));
  EXPECT_EQ(0664u, ModeOf(dir / "new"));

  MakeFile(dir / "target", "kept");
  ASSERT_EQ(0, ::symlink((dir / "target").c_str(), (dir / "link").c_str()));
  EXPECT_FALSE(CreateFileWith(dir / "new", 0664, false, writeText));
  EXPECT_FALSE(CreateFileWith(dir / "link", 0664, false, writeText));
  EXPECT_EQ("text", ReadFile(dir / "new"));
  EXPECT_EQ("kept", ReadFile(dir / "target"));

  const Names before = ListFolder(dir.path());
  EXPECT_FALSE(CreateFileWith(dir / "refused", 0664, false, [](std::ostream& out) {
    out << "partial";
    return false;
  }));
  EXPECT_FALSE(CreateFileWith(dir / "thrown", 0664, false, [](std::ostream&) -> bool {
    throw std::bad_alloc();
  }));
  EXPECT_EQ(before, ListFolder(dir.path()));
}

// A folder is not made over a file, nor below one. A tree goes whole, read-only files inside
// included; a link is removed, never what it points to, a dangling one too though it does not
// exist. (A file refused by its own bits is the journaled file's deletion test.)
TEST_F(FileSystemUtilsTest, DeleteLocalFileAndFoldersOverFiles) {
  MakeFile(dir / "plain", "x");
  ASSERT_TRUE(CreateLocalDirectory(dir / "tree/a/b"));
  MakeFile(dir / "tree/a/b/f", "x", 0444);
  ASSERT_TRUE(CreateLocalDirectory(dir / "target"));
  MakeFile(dir / "target/f", "x");
  ASSERT_EQ(0, ::symlink((dir / "target").c_str(), (dir / "link").c_str()));
  ASSERT_EQ(0, ::symlink((dir / "gone").c_str(), (dir / "dangling").c_str()));
  const std::pair<const char*, bool> kMade[] = {{"", true}, {"plain", false}, {"plain/below", false}};
  for (const auto& [name, made] : kMade) EXPECT_EQ(made, CreateLocalDirectory(dir / name)) << name;
  const std::pair<const char*, bool> kExists[] = {
      {"link", true}, {"dangling", false}, {"target/f/below", false}};
  for (const auto& [name, exists] : kExists) EXPECT_EQ(exists, DoesPathExist(dir / name)) << name;
  for (const char* name : {"missing", "plain", "tree", "link", "dangling"})
    EXPECT_TRUE(DeleteLocalFile(dir / name)) << name;
  EXPECT_EQ(Names{"target"}, ListFolder(dir.path()));  // access() would follow the dangling link
  EXPECT_EQ("x", ReadFile(dir / "target/f"));
}

// A stranger needs a file's other-write bit to delete it, even in a world-writable folder. New
// folder levels take their parent's bits whatever the umask (and, under root, owner and group).
TEST_F(FileSystemUtilsTest, OtherUsersFilesAndFolders) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs files owned by another user";
  ASSERT_EQ(0, ::chmod(dir.path().c_str(), 0777));
  const std::string shared = dir / "shared", guarded = dir / "guarded";
  MakeFile(shared, "x", 0666);
  MakeFile(guarded, "x", 0664);
  EXPECT_EQ(0, RunUnprivileged([&] {
    if (!DeleteLocalFile(shared) || DoesPathExist(shared)) return 1;
    return DeleteLocalFile(guarded) || !DoesPathExist(guarded) ? 2 : 0;
  }));

  const std::string top = dir / "owned", open = dir / "rootowned";
  ASSERT_EQ(0, ::mkdir(top.c_str(), 0700));
  ASSERT_EQ(0, ::chown(top.c_str(), kUnprivilegedUid, kUnprivilegedGid));
  ASSERT_EQ(0, ::chmod(top.c_str(), 02750));
  ASSERT_TRUE(CreateLocalDirectory(top + "/a/b/"));
  ASSERT_EQ(0, ::mkdir(open.c_str(), 0700));
  ASSERT_EQ(0, ::chmod(open.c_str(), 01777));
  EXPECT_EQ(0, RunUnprivileged([&] { return CreateLocalDirectory(open + "/x/y") ? 0 : 1; }));
  const std::pair<std::string, mode_t> kMade[] = {
      {top + "/a", 02750}, {top + "/a/b", 02750}, {open + "/x", 01777}, {open + "/x/y", 01777}};
  for (const auto& [sub, bits] : kMade) {
    struct stat st {};
    ASSERT_EQ(0, ::lstat(sub.c_str(), &st)) << sub;
    EXPECT_EQ(kUnprivilegedUid, st.st_uid) << sub;
    EXPECT_EQ(bits, st.st_mode & 07777) << sub;
    EXPECT_TRUE(bits != 02750 || st.st_gid == kUnprivilegedGid) << sub;
  }
}

TEST_F(FileSystemUtilsTest, CopyLocalFile) {
  std::string big(300 * 1024, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7919 % 251);
  MakeFile(dir / "src", big, 0640);
  EXPECT_TRUE(CopyLocalFile(dir / "src", dir / "dst"));
  EXPECT_EQ(big, ReadFile(dir / "dst"));
  EXPECT_EQ(0640u, ModeOf(dir / "dst"));
  for (const mode_t added : {0004, 0600}) {  // SetFilePermission only adds bits, never takes any
    EXPECT_TRUE(SetFilePermission(dir / "dst", added));
    EXPECT_EQ(0644u, ModeOf(dir / "dst")) << added;
  }
  EXPECT_FALSE(SetFilePermission(dir / "missing", 0666));

  // An existing writable destination is replaced; a read-only one or a folder is kept.
  MakeFile(dir / "old", "old", 0600);
  EXPECT_TRUE(CopyLocalFile(dir / "src", dir / "old"));
  EXPECT_EQ(big, ReadFile(dir / "old"));
  MakeFile(dir / "locked", "locked", 0444);
  ASSERT_TRUE(CreateLocalDirectory(dir / "folder"));
  const std::pair<const char*, const char*> kRefused[] = {{"src", "locked"}, {"src", "folder"},
      {"src", "nofolder/dst"}, {"missing", "dst2"}, {"folder", "dst2"}};
  for (const auto& [from, to] : kRefused) EXPECT_FALSE(CopyLocalFile(dir / from, dir / to)) << to;
  EXPECT_EQ("locked", ReadFile(dir / "locked"));
  EXPECT_FALSE(DoesPathExist(dir / "nofolder"));

  // A read that fails midway (this file cannot be read at offset 0) leaves nothing behind.
  MakeFile(dir / "victim", "victim");
  const Names before = ListFolder(dir.path());
  EXPECT_FALSE(CopyLocalFile("/proc/self/mem", dir / "victim"));
  EXPECT_EQ("victim", ReadFile(dir / "victim"));
  EXPECT_EQ(before, ListFolder(dir.path()));
}

class ExchangeFilesTest : public FileSystemUtilsTest {
 protected:
  void SetUp() override {
    MakeFile(a, "content A");
    MakeFile(b, "content B");
  }
  void ExpectSwapped(bool swapped = true) {
    EXPECT_EQ(swapped ? "content B" : "content A", ReadFile(a));
    EXPECT_EQ(swapped ? "content A" : "content B", ReadFile(b));
  }
  const std::string a = dir / "a.xml";
  const std::string b = dir / "a.xml_";
  const Names kBoth{"a.xml", "a.xml_"};
};

// Without the kernel's exchange (every save's) renames swap with no leftovers, through the 32nd
// temporary name and no further; two names of one file stay as they are.
TEST_F(ExchangeFilesTest, SwapsByRenames) {
  FaultyEnv refuse(NoExchange);
  EXPECT_TRUE(ExchangeFiles(a, b));
  ExpectSwapped();
  EXPECT_EQ(kBoth, ListFolder(dir.path()));
  for (int n = 0; n < 31; ++n) MakeFile(dir / ("TempSwap." + std::to_string(n)), std::to_string(n));
  EXPECT_TRUE(ExchangeFiles(a, b));
  ExpectSwapped(false);
  EXPECT_FALSE(DoesPathExist(dir / "TempSwap.31"));
  MakeFile(dir / "TempSwap.31", "31");
  EXPECT_FALSE(ExchangeFiles(a, b));
  ExpectSwapped(false);
  for (int n = 0; n < 32; ++n)
    EXPECT_EQ(std::to_string(n), ReadFile(dir / ("TempSwap." + std::to_string(n))));
  ASSERT_EQ(0, ::link(a.c_str(), (dir / "hard").c_str()));  // two names of one file
  EXPECT_TRUE(ExchangeFiles(a, dir / "hard"));
  EXPECT_EQ("content A", ReadFile(dir / "hard"));

  // With one side missing, a move that makes the missing folders as its parent's.
  ASSERT_EQ(0, ::chmod(dir.path().c_str(), 0751));
  const std::string far = dir / "new/deeper/a.xml";
  EXPECT_TRUE(ExchangeFiles(far, a));
  EXPECT_EQ("content A", ReadFile(far));
  EXPECT_EQ(0751u, ModeOf(dir / "new/deeper"));
  EXPECT_FALSE(ExchangeFiles(a, dir / "neither"));
}

// Moves between file systems (no exchange there either) copy, with the bits, then delete; an
// undeletable source cancels the move. A failed third rename whose undo fails too stops the swap
// with both contents on disk. (An undone failed rename is the fault-injection suite's case.)
TEST_F(ExchangeFilesTest, CrossDeviceMovesAndFailedUndo) {
  ASSERT_EQ(0, ::chmod(b.c_str(), 0640));
  {
    FaultyEnv crossDevice([](FileOp op, int before, const std::string&) {
      return op == FileOp::kExchange || (op == FileOp::kRename && before == 1) ? EXDEV : 0;
    });
    EXPECT_TRUE(ExchangeFiles(a, b));
  }
  ExpectSwapped();
  EXPECT_EQ(0640u, ModeOf(a));
  EXPECT_EQ(kBoth, ListFolder(dir.path()));
  {
    FaultyEnv crossDevice([&](FileOp op, int, const std::string& path) {
      return op == FileOp::kRename ? EXDEV : op == FileOp::kRemove && path == a ? EACCES : 0;
    });
    EXPECT_FALSE(ExchangeFiles(a, dir / "moved"));
  }
  EXPECT_FALSE(DoesPathExist(dir / "moved"));
  EXPECT_EQ("content B", ReadFile(a));

  FaultyEnv fail([](FileOp op, int before, const std::string&) {
    return op == FileOp::kRename && (before == 2 || before == 3) ? EIO : NoExchange(op, before, "");
  });
  EXPECT_FALSE(ExchangeFiles(a, b));
  std::multiset<std::string> contents;
  for (const std::string& name : ListFolder(dir.path())) contents.insert(ReadFile(dir / name));
  EXPECT_EQ((std::multiset<std::string>{"content A", "content B"}), contents);
  EXPECT_EQ("content B", ReadFile(dir / "TempSwap.0"));  // a's, parked for a later repair
}

std::string StoreText(const std::string& value) {
  return kDecl + "<Store value=\"" + value + "\">\n<Entry>text</Entry>\n</Store>\n";
}

// A store that can save from inside OnLoadSuccess, as the real stores do when they repair what
// they loaded. Its root "Store" carries the attribute "value".
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
  std::string Value() {
    std::string value;
    for (const XMLDocumentNode* root : mBuilder.GetDocumentNode()->GetChildNodes())
      root->GetAttrValue("value", value);
    return value;
  }
  // Makes the store root when the file had none.
  void SetValue(const std::string& value) {
    XMLDocumentNode* document = mBuilder.GetDocumentNode();
    if (document->GetChildNodes().empty()) document->AddChildNode(new XMLDocumentNode("Store"));
    document->GetChildNodes().front()->SetAttributeData("value", value);
  }

  Builder mBuilder;
  int loads = 0;
  bool lockHeldDuringLoad = false;
  bool saveInsideLoad = false;
};

// A store or preference file in a fresh folder, the store's lock file removed afterwards.
class JournaledStore : public FileSystemUtilsTest {
 protected:
  const std::string path = dir / "Store.xml";
  LockFileGuard guard{path};
};

// A whole journal ("Store.xml_") replaces the file; a cut one loses to the file (or gives an empty
// store) and the next save clears it, whatever the old file's bits, leaving the owner's. (Cuts at
// every byte are the store fuzzers'.)
TEST_F(JournaledStore, WholeJournalsWinAndCutOnesLose) {
  const std::string newText = StoreText("new");
  for (const bool withFile : {false, true}) {
    for (const std::string& journal : {newText, newText.substr(0, newText.size() / 2)}) {
      const bool whole = journal == newText;
      if (withFile) MakeFile(path, StoreText("old"), 0444);
      WriteFile(path + "_", journal);
      TestStore store(path);
      ASSERT_TRUE(store.Load(nullptr));
      EXPECT_EQ(1, store.loads);
      EXPECT_EQ(whole ? "new" : withFile ? "old" : "", store.Value()) << withFile << whole;
      EXPECT_EQ(whole, ListFolder(dir.path()) == Names{"Store.xml"}) << withFile << whole;
      store.SetValue("saved");
      ASSERT_TRUE(store.Save()) << withFile << whole;
      EXPECT_EQ(Names{"Store.xml"}, ListFolder(dir.path()));
      EXPECT_EQ(0600u, ModeOf(path));
      unlink(path.c_str());
    }
  }
}

// A missing store loads empty and creates nothing; an empty tree is not saved (a lone declaration
// would never load again). Delete takes file and journal, not a file missing its own write bit
// (root included); a new path takes the file along, not the journal; a missing folder is refused.
TEST_F(JournaledStore, EmptyStoresDeletionAndMoves) {
  Builder builder;
  JournaledXMLFile file(builder);
  EXPECT_TRUE(file.Delete());  // no path, nothing there
  EXPECT_FALSE(file.Save());   // no document
  ASSERT_TRUE(file.SetPath(path));
  ASSERT_TRUE(file.Load(nullptr));
  EXPECT_TRUE(builder.GetDocumentNode()->GetChildNodes().empty());
  EXPECT_FALSE(file.Save());
  EXPECT_TRUE(ListFolder(dir.path()).empty());

  builder.GetDocumentNode()->AddChildNode(new XMLDocumentNode("Store"));
  ASSERT_TRUE(file.Save());
  WriteFile(path + "_", "<partial");
  EXPECT_TRUE(file.Delete());
  EXPECT_TRUE(ListFolder(dir.path()).empty());
  EXPECT_EQ(nullptr, builder.GetDocumentNode());
  EXPECT_FALSE(file.Save());  // nothing to save until the next load
  MakeFile(path, StoreText("kept"), 0444);
  EXPECT_FALSE(file.Delete());
  EXPECT_EQ(StoreText("kept"), ReadFile(path));

  chmod(path.c_str(), 0644);
  WriteFile(path + "_", "<junk");
  EXPECT_FALSE(file.SetPath(dir / "missing-folder/Third.xml"));
  ASSERT_TRUE(file.SetPath(dir / "Second.xml"));
  EXPECT_EQ(Names{"Second.xml"}, ListFolder(dir.path()));
  EXPECT_EQ(StoreText("kept"), ReadFile(dir / "Second.xml"));
}

// Operations take the lock and give it back, and nest inside it (a save inside the load); a stale
// lock is broken with force; destroying the store releases it. A tree from before a failed load is
// never saved over the file; unusual text goes through. (Callers holding the lock across load and
// save are the torture's; damaged files and raw attribute text, the registration store fuzzer's.)
TEST_F(JournaledStore, LocksAndStaleTrees) {
  WriteFile(path, StoreText("first"));
  TestStore store(path, 20);
  int saveFlag = 1;
  ASSERT_TRUE(store.Load(&saveFlag));  // saves from inside the load, under the same lock
  EXPECT_TRUE(store.lockHeldDuringLoad && store.saveInsideLoad);
  EXPECT_FALSE(store.HasLock());
  EXPECT_FALSE(LockIsHeld(path));
  store.SetValue("stale");

  WriteFile(path, StoreText("other"));
  {
    esd::ResourceLocker crashed(path, 0);
    ASSERT_TRUE(crashed.Lock());
    EXPECT_FALSE(store.Load(nullptr) || store.Save() || store.Delete());
    TestStore fresh(path, 0);
    EXPECT_FALSE(fresh.Unlock(false));  // no locker yet: nothing to release, but one to break
    EXPECT_TRUE(fresh.Unlock(true));
    EXPECT_TRUE(fresh.Load(nullptr));
  }
  EXPECT_FALSE(store.Save());  // the lock is free again, the tree still stale
  EXPECT_EQ(StoreText("other"), ReadFile(path));
  ASSERT_TRUE(store.Load(nullptr));
  store.SetValue("a>b 'c'");
  EXPECT_TRUE(store.Save());
  EXPECT_EQ(StoreText("a>b 'c'"), ReadFile(path));
  auto holder = std::make_unique<TestStore>(path);
  ASSERT_TRUE(holder->Lock());
  holder.reset();
  EXPECT_FALSE(LockIsHeld(path));
}

// A writer on `path` guarded by its own lock, as the owners of preference files set them up.
struct LockedWriter {
  LockedWriter(const std::string& path, const std::string& resource, unsigned long timeoutMs = 2000)
      : guard(resource), lock(resource, timeoutMs), writer("", "Root") {
    writer.SetLockPolicy(&lock);
    writer.SetPrefsPath(path);
  }
  LockFileGuard guard;
  esd::ResourceLocker lock;
  esd::PrefsWriter writer;
};

// The value read for `key` (`missing` when the key is absent), or nothing when the read fails.
template <class T>
std::optional<T> Read(esd::PrefsWriter& writer, const std::string& key, T missing = T()) {
  T value{};
  return writer.GetPref<T>(key, value, missing) ? std::optional<T>(value) : std::nullopt;
}

using PrefsWriterTest = JournaledStore;

// A missing file reads as defaults and is not created by reading; a set writes the whole file in
// the one text form other processes parse. Only text that converts whole reads back; an empty
// string reads as the default; an empty path raises its fixed error. (Round trips, text the file
// cannot hold and broken map entries are the fuzzer's.)
TEST_F(PrefsWriterTest, FileFormatAndValueConversions) {
  esd::PrefsWriter writer(path, "Root");
  EXPECT_EQ(42, Read<int>(writer, "Count", 42));
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(path));

  ASSERT_TRUE(writer.SetPref<bool>("Flag", false));
  ASSERT_TRUE(writer.SetPref<unsigned long>("Big", 4000000000UL));
  ASSERT_TRUE(writer.SetPref<std::string>("Text", "a <b> & c\n\t\xC3\xA9 "));
  ASSERT_TRUE(writer.SetPref<std::string>("Empty", ""));
  esd::MapPref<std::string, bool> enabled("Enabled");
  enabled.SetPrefsFile(&writer);
  ASSERT_TRUE(enabled.Set({{"b.app", false}, {"c", true}}));
  ASSERT_TRUE(enabled.Set({{"b.app", false}, {"a.app", true}}));
  EXPECT_EQ(kDecl + "<Root>\n<Flag>0</Flag>\n<Big>4000000000</Big>\n"
                    "<Text>a &lt;b&gt; &amp; c\n\t\xC3\xA9 </Text>\n<Empty></Empty>\n"
                    "<Enabled>\n<MapPrefEntry MapPrefKey=\"a.app\">1</MapPrefEntry>\n"
                    "<MapPrefEntry MapPrefKey=\"b.app\">0</MapPrefEntry>\n</Enabled>\n</Root>\n",
            ReadFile(path));
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(dir.path()), {}));

  esd::PrefsWriter reader(path, "Root");
  EXPECT_EQ(false, Read<bool>(reader, "Flag", true));
  EXPECT_EQ(4000000000UL, Read<unsigned long>(reader, "Big"));
  EXPECT_EQ("default", Read<std::string>(reader, "Empty", "default"));

  // Text written by hand that does not convert whole fails the read, never a silent default.
  WriteFile(path, kDecl + "<Root>\n<Num>12a</Num>\n</Root>\n");
  esd::PrefsWriter handWritten(path, "Root");
  EXPECT_EQ(std::nullopt, Read<int>(handWritten, "Num"));
  try {
    handWritten.SetPrefsPath("");
    ADD_FAILURE() << "an empty path must throw";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ("Prefs file unable to lock file for reading!", error.what());
  }
  // Another program's top element gives way to ours.
  WriteFile(path, kDecl + "<Other>\n<Num>1</Num>\n</Other>\n");
  handWritten.SetPrefsPath(path);
  EXPECT_EQ(0, Read<int>(handWritten, "Num"));
  ASSERT_TRUE(handWritten.SetPref<int>("Mine", 1));
  EXPECT_EQ(kDecl + "<Root>\n<Mine>1</Mine>\n</Root>\n", ReadFile(path));
}

// Two writers with locks on one file see each other's last set, even faster than the file system
// clock ticks or with the file's time ahead. A file broken behind their backs reads as defaults
// (no exception) and the next set replaces it whole. (A deleted file is the lock-held test's.)
TEST_F(PrefsWriterTest, LockedWritersSeeEachOthersSets) {
  const std::string resource = UniqueResourceName("prefs");
  LockedWriter one(path, resource), two(path, resource);
  esd::PrefsWriter &a = one.writer, &b = two.writer;
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(((i % 2) ? a : b).SetPref<int>("Counter", i));
    ASSERT_EQ(i, Read<int>((i % 2) ? b : a, "Counter")) << "a set was missed";
  }
  WriteFile(path, "garbage <<<");
  EXPECT_EQ(-1, Read<int>(b, "Counter", -1));
  ASSERT_TRUE(b.SetPref<int>("Counter", 199));
  EXPECT_EQ(kDecl + "<Root>\n<Counter>199</Counter>\n</Root>\n", ReadFile(path));

  // After the clock was stepped back the file's time lies ahead of "now".
  std::filesystem::last_write_time(path,
                                   std::filesystem::last_write_time(path) + std::chrono::hours(1));
  ASSERT_EQ(199, Read<int>(b, "Counter"));
  ASSERT_TRUE(a.SetPref<int>("Counter", 500));
  EXPECT_EQ(500, Read<int>(b, "Counter"));
  EXPECT_FALSE(LockIsHeld(resource));
}

// While another holder has the lock every operation fails without effect (outputs and file
// untouched, no exception); writers set up meanwhile catch up once it is free, whatever the file's
// time. A caller holding the lock itself runs several operations under it and they leave it held.
TEST_F(PrefsWriterTest, LockHeldElsewhere) {
  const std::string resource = UniqueResourceName("prefs");
  LockedWriter locked(path, resource, 30);
  esd::PrefsWriter& writer = locked.writer;
  esd::MapPref<std::string, bool> map("Map");
  map.SetPrefsFile(&writer);
  ASSERT_TRUE(writer.SetPref<int>("N", 1));
  const std::string before = ReadFile(path);

  auto other = std::make_unique<esd::ResourceLocker>(resource, 0);
  ASSERT_TRUE(other->Lock());
  int number = 77;
  std::map<std::string, bool> read{{"untouched", true}};
  EXPECT_FALSE(writer.GetPref<int>("N", number, 5) || map.Get(read) || writer.SetPref<int>("N", 2) ||
               map.Set({{"x", false}}) || writer.Save() || writer.DeleteAllPrefs() ||
               writer.LockPrefs());
  EXPECT_EQ(77, number);
  EXPECT_EQ(1u, read.count("untouched"));
  WriteFile(dir / "broken.dat", "not xml");
  EXPECT_NO_THROW(writer.SetPrefsPath(dir / "broken.dat"));
  EXPECT_NO_THROW(writer.SetPrefsPath(path));
  EXPECT_EQ(before, ReadFile(path));
  ASSERT_TRUE(FileSystemUtils::SetFileLastModifiedTime(path, 0));  // not newer than "never loaded"
  LockedWriter late(path, resource, 30), lateNew(dir / "new.dat", resource, 30);
  other.reset();

  EXPECT_EQ(1, Read<int>(late.writer, "N"));
  EXPECT_TRUE(lateNew.writer.SetPref<int>("M", 9));
  EXPECT_EQ(kDecl + "<Root>\n<M>9</M>\n</Root>\n", ReadFile(dir / "new.dat"));
  ASSERT_TRUE(writer.LockPrefs());
  EXPECT_TRUE(writer.SetPref<int>("N", 3));
  EXPECT_EQ(3, Read<int>(writer, "N"));
  EXPECT_TRUE(LockIsHeld(resource));
  EXPECT_TRUE(writer.UnlockPrefs());
  EXPECT_FALSE(LockIsHeld(resource));
  EXPECT_FALSE(writer.UnlockPrefs());
}

}  // namespace
