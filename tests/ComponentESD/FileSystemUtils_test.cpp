#include "xplat/FileSystemUtils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "support/ChildProcess.h"
#include "support/FaultyEnv.h"
#include "support/TempDir.h"

namespace {

using namespace FileSystemUtils;
using testing_support::FaultyEnv;
using testing_support::FileOp;
using testing_support::kUnprivilegedGid;
using testing_support::kUnprivilegedUid;
using testing_support::ReadFile;
using testing_support::RunUnprivileged;
using testing_support::TempDir;
using testing_support::WriteFile;

mode_t ModeOf(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

std::set<std::string> Names(const std::string& folder) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    names.insert(entry.path().filename().string());
  return names;
}

// Writes a file with exact permission bits (chmod ignores the umask).
void MakeFile(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
  WriteFile(path, bytes);
  ASSERT_EQ(0, ::chmod(path.c_str(), mode));
}

struct ScopedUmask {
  explicit ScopedUmask(mode_t mask) : old(::umask(mask)) {}
  ~ScopedUmask() { ::umask(old); }
  mode_t old;
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

// SetFilePermission only adds bits, never takes any away.
TEST(FileSystemUtils, PermissionsAreOnlyAdded) {
  TempDir dir;
  MakeFile(dir / "f", "x", 0640);
  EXPECT_TRUE(SetFilePermission(dir / "f", 0004));
  EXPECT_EQ(0644u, ModeOf(dir / "f"));
  EXPECT_TRUE(SetFilePermission(dir / "f", 0600));
  EXPECT_EQ(0644u, ModeOf(dir / "f"));
  EXPECT_FALSE(SetFilePermission(dir / "missing", 0666));
}

// A new file gets exactly its bits whatever the umask; a name already taken (a link included)
// is never written through; every failure leaves no file behind.
TEST(FileSystemUtils, CreateFileWith) {
  TempDir dir;
  ScopedUmask mask(077);
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

  const std::set<std::string> before = Names(dir.path());
  EXPECT_FALSE(CreateFileWith(dir / "refused", 0664, false, [](std::ostream& out) {
    out << "partial";
    return false;
  }));
  EXPECT_FALSE(CreateFileWith(dir / "thrown", 0664, false, [](std::ostream&) -> bool {
    throw std::bad_alloc();
  }));
  {
    FaultyEnv faults(FaultyEnv::FailNth(FileOp::kSync, 1, EIO));
    EXPECT_FALSE(CreateFileWith(dir / "unsynced", 0664, true, writeText));
  }
  EXPECT_EQ(before, Names(dir.path()));
}

TEST(FileSystemUtils, DeleteLocalFile) {
  TempDir dir;
  EXPECT_TRUE(DeleteLocalFile(dir / "missing"));
  MakeFile(dir / "plain", "x");
  EXPECT_TRUE(DeleteLocalFile(dir / "plain"));
  EXPECT_FALSE(DoesPathExist(dir / "plain"));

  // (A file refused by its own bits is the journaled file's deletion test.)
  // A tree goes whole, read-only files inside included.
  ASSERT_TRUE(CreateLocalDirectory(dir / "tree/a/b"));
  MakeFile(dir / "tree/a/b/f", "x", 0444);
  EXPECT_TRUE(DeleteLocalFile(dir / "tree"));
  EXPECT_FALSE(DoesPathExist(dir / "tree"));

  // A link is removed, never what it points to; a dangling one does not exist but is removed.
  ASSERT_TRUE(CreateLocalDirectory(dir / "target"));
  MakeFile(dir / "target/f", "x");
  ASSERT_EQ(0, ::symlink((dir / "target").c_str(), (dir / "link").c_str()));
  ASSERT_EQ(0, ::symlink((dir / "gone").c_str(), (dir / "dangling").c_str()));
  EXPECT_TRUE(DoesPathExist(dir / "link"));
  EXPECT_FALSE(DoesPathExist(dir / "dangling"));
  EXPECT_FALSE(DoesPathExist(dir / "target/f/below"));
  EXPECT_TRUE(DeleteLocalFile(dir / "link"));
  EXPECT_EQ("x", ReadFile(dir / "target/f"));
  EXPECT_TRUE(DeleteLocalFile(dir / "dangling"));
  EXPECT_EQ(-1, ::access((dir / "dangling").c_str(), F_OK));
}

// A stranger to the file needs its other-write bit, even in a world-writable folder.
TEST(FileSystemUtils, DeleteLocalFileChecksTheOtherBitForStrangers) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs files owned by another user";
  TempDir dir;
  ASSERT_EQ(0, ::chmod(dir.path().c_str(), 0777));
  const std::string shared = dir / "shared", guarded = dir / "guarded";
  MakeFile(shared, "x", 0666);
  MakeFile(guarded, "x", 0664);
  EXPECT_EQ(0, RunUnprivileged([&] {
    if (!DeleteLocalFile(shared) || DoesPathExist(shared)) return 1;
    return DeleteLocalFile(guarded) || !DoesPathExist(guarded) ? 2 : 0;
  }));
}

TEST(FileSystemUtils, CreateLocalDirectoryOverExistingEntries) {
  TempDir dir;
  EXPECT_TRUE(CreateLocalDirectory(dir.path()));
  MakeFile(dir / "file", "x");
  EXPECT_FALSE(CreateLocalDirectory(dir / "file"));
  EXPECT_FALSE(CreateLocalDirectory(dir / "file/below"));
}

// Every level created takes the bits of the folder it was made in, whatever the umask; root gives
// it the parent's owner and group too, and a user who cannot still gets the folders.
TEST(FileSystemUtils, CreatedFoldersInheritOwnerAndGroup) {
  if (::geteuid() != 0) GTEST_SKIP() << "changing owners needs root";
  TempDir dir;
  ScopedUmask umask(077);
  ASSERT_EQ(0, ::chmod(dir.path().c_str(), 0755));
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
    if (bits == 02750) {
      EXPECT_EQ(kUnprivilegedGid, st.st_gid) << sub;
    }
  }
}

TEST(FileSystemUtils, CopyLocalFile) {
  TempDir dir;
  ScopedUmask umask(077);
  std::string big(300 * 1024, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7919 % 251);
  MakeFile(dir / "src", big, 0640);
  EXPECT_TRUE(CopyLocalFile(dir / "src", dir / "dst"));
  EXPECT_EQ(big, ReadFile(dir / "dst"));
  EXPECT_EQ(0640u, ModeOf(dir / "dst"));

  // An existing writable destination is replaced; a read-only one or a folder is kept.
  MakeFile(dir / "old", "old", 0600);
  EXPECT_TRUE(CopyLocalFile(dir / "src", dir / "old"));
  EXPECT_EQ(big, ReadFile(dir / "old"));
  MakeFile(dir / "locked", "locked", 0444);
  EXPECT_FALSE(CopyLocalFile(dir / "src", dir / "locked"));
  EXPECT_EQ("locked", ReadFile(dir / "locked"));
  ASSERT_TRUE(CreateLocalDirectory(dir / "folder"));
  const std::pair<const char*, const char*> kRefused[] = {
      {"src", "folder"}, {"src", "nofolder/dst"}, {"missing", "dst2"}, {"folder", "dst2"}};
  for (const auto& [from, to] : kRefused) EXPECT_FALSE(CopyLocalFile(dir / from, dir / to)) << to;
  EXPECT_FALSE(DoesPathExist(dir / "nofolder"));

  // A read that fails midway (this file cannot be read at offset 0) leaves nothing behind.
  MakeFile(dir / "victim", "victim");
  const std::set<std::string> before = Names(dir.path());
  EXPECT_FALSE(CopyLocalFile("/proc/self/mem", dir / "victim"));
  EXPECT_EQ("victim", ReadFile(dir / "victim"));
  EXPECT_EQ(before, Names(dir.path()));
}

class ExchangeFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MakeFile(a, "content A");
    MakeFile(b, "content B");
  }
  void Expect(const char* atA, const char* atB) {
    EXPECT_EQ(atA, ReadFile(a));
    EXPECT_EQ(atB, ReadFile(b));
  }
  void ExpectSwapped() { Expect("content B", "content A"); }
  void ExpectUnchanged() { Expect("content A", "content B"); }
  TempDir dir;
  const std::string a = dir / "a.xml";
  const std::string b = dir / "a.xml_";
  const std::set<std::string> kBoth{"a.xml", "a.xml_"};
};

// The kernel exchange, and the renames where the kernel refuses it, swap with no leftovers.
TEST_F(ExchangeFilesTest, SwapsAtomicallyAndByRenames) {
  EXPECT_TRUE(ExchangeFiles(a, b));
  ExpectSwapped();
  {
    FaultyEnv refuse(NoExchange);
    EXPECT_TRUE(ExchangeFiles(a, b));
  }
  ExpectUnchanged();
  EXPECT_EQ(kBoth, Names(dir.path()));
  ASSERT_EQ(0, ::link(a.c_str(), (dir / "hard").c_str()));  // two names of one file
  EXPECT_TRUE(ExchangeFiles(a, dir / "hard"));
  EXPECT_EQ("content A", ReadFile(dir / "hard"));
}

TEST_F(ExchangeFilesTest, OneSidedMovesAndCreatesTheMissingFolder) {
  ASSERT_EQ(0, ::unlink(b.c_str()));
  EXPECT_TRUE(ExchangeFiles(a, b));
  EXPECT_FALSE(DoesPathExist(a));
  EXPECT_EQ("content A", ReadFile(b));
  EXPECT_TRUE(ExchangeFiles(a, b));  // only the second present
  EXPECT_EQ("content A", ReadFile(a));

  ASSERT_EQ(0, ::chmod(dir.path().c_str(), 0751));
  const std::string far = dir / "new/deeper/a.xml";
  EXPECT_TRUE(ExchangeFiles(far, a));
  EXPECT_EQ("content A", ReadFile(far));
  EXPECT_EQ(0751u, ModeOf(dir / "new/deeper"));
  EXPECT_FALSE(ExchangeFiles(a, dir / "neither"));
}

TEST_F(ExchangeFilesTest, FallbackFailsWhenEveryTemporaryNameIsTaken) {
  FaultyEnv refuse(NoExchange);
  for (int n = 0; n < 31; ++n) MakeFile(dir / ("TempSwap." + std::to_string(n)), std::to_string(n));
  EXPECT_TRUE(ExchangeFiles(a, b));  // TempSwap.31 was still free
  ExpectSwapped();
  EXPECT_FALSE(DoesPathExist(dir / "TempSwap.31"));
  MakeFile(dir / "TempSwap.31", "31");
  EXPECT_FALSE(ExchangeFiles(a, b));
  ExpectSwapped();
  for (int n = 0; n < 32; ++n)
    EXPECT_EQ(std::to_string(n), ReadFile(dir / ("TempSwap." + std::to_string(n))));
}

// When the third move fails and so does its first undo move, the swap stops, but both contents
// still exist on disk. (A failed move that is undone is the fault-injection suite's case.)
TEST_F(ExchangeFilesTest, FailedUndoLosesNothing) {
  FaultyEnv fail([](FileOp op, int before, const std::string&) {
    return op == FileOp::kRename && (before == 2 || before == 3) ? EIO : NoExchange(op, before, "");
  });
  EXPECT_FALSE(ExchangeFiles(a, b));
  std::multiset<std::string> contents;
  for (const std::string& name : Names(dir.path())) contents.insert(ReadFile(dir / name));
  EXPECT_EQ((std::multiset<std::string>{"content A", "content B"}), contents);
  // The parked original of a is left under the temporary name for a later repair.
  EXPECT_EQ("content A", ReadFile(dir / "TempSwap.0"));
}

// Moves between file systems copy then delete; an undeletable source cancels the move.
TEST_F(ExchangeFilesTest, MovesAcrossFileSystemsCopyThenDelete) {
  {
    FaultyEnv crossDevice([](FileOp op, int before, const std::string&) {
      return op == FileOp::kRename && before == 1 ? EXDEV : NoExchange(op, before, "");
    });
    EXPECT_TRUE(ExchangeFiles(a, b));
  }
  ExpectSwapped();
  {
    FaultyEnv crossDevice([&](FileOp op, int, const std::string& path) {
      return op == FileOp::kRename ? EXDEV : op == FileOp::kRemove && path == a ? EACCES : 0;
    });
    EXPECT_FALSE(ExchangeFiles(a, dir / "moved"));
  }
  EXPECT_FALSE(DoesPathExist(dir / "moved"));
  EXPECT_EQ("content B", ReadFile(a));

  // The real thing, where a second file system is at hand.
  struct stat tmpSt, shmSt;
  if (::stat("/dev/shm", &shmSt) != 0 || ::stat(dir.path().c_str(), &tmpSt) != 0 ||
      tmpSt.st_dev == shmSt.st_dev || ::access("/dev/shm", W_OK) != 0)
    GTEST_SKIP() << "no second file system";
  char pattern[] = "/dev/shm/fsutils-test-XXXXXX";
  ASSERT_NE(nullptr, ::mkdtemp(pattern));
  std::shared_ptr<void> cleanup(nullptr, [&](void*) {
    std::error_code ignored;
    std::filesystem::remove_all(pattern, ignored);
  });
  const std::string other = std::string(pattern) + "/other.xml";
  MakeFile(other, "content C", 0640);
  EXPECT_TRUE(ExchangeFiles(a, other));
  EXPECT_EQ("content C", ReadFile(a));
  EXPECT_EQ("content B", ReadFile(other));
  EXPECT_EQ(0640u, ModeOf(a));
  EXPECT_EQ(kBoth, Names(dir.path()));
}

}  // namespace
