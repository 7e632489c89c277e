#include "xplat/PrefsWriter.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/SemaphoreGuard.h"
#include "support/TempDir.h"
#include "support/Unprivileged.h"
#include "xplat/BasicPref.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/MapPref.h"
#include "xplat/PrefsLockScope.h"
#include "xplat/ResourceLocker.h"

using testing_support::ReadFile;
using testing_support::SemaphoreGuard;
using testing_support::TempDir;
using testing_support::UniqueResourceName;
using testing_support::WriteFile;

namespace {

const char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";

// A writer on `path` guarded by its own lock, as the owners of preference files set them up.
// The lock's semaphore is removed when the fixture dies, whatever happened.
struct LockedWriter {
  LockedWriter(const std::string& path, const std::string& resource, unsigned long timeoutMs = 2000)
      : guard(resource), lock(resource, timeoutMs), writer("", "Root") {
    writer.SetLockPolicy(&lock);
    writer.SetPrefsPath(path);
  }
  SemaphoreGuard guard;
  esd::ResourceLocker lock;
  esd::PrefsWriter writer;
};

std::string ReadString(esd::PrefsWriter& writer, const std::string& key) {
  std::string value;
  EXPECT_TRUE(writer.GetPref<std::string>(key, value, "default"));
  return value;
}

// Files in `dir` other than the preferences file itself: leftovers of an unfinished save.
int CountOtherFiles(const std::string& dir, const std::string& keep) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().filename() != keep) ++count;
  }
  return count;
}

// Kills and reaps a forked child when the test body leaves, also through a failed assertion, so
// an endless writer never outlives its test.
struct KilledOnExit {
  explicit KilledOnExit(pid_t child) : pid(child) {}
  ~KilledOnExit() {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    testing_support::WaitChild(pid);
  }
  pid_t pid;
};

}  // namespace

// A missing file reads as defaults and is not created by reading; the first set writes the whole
// file in the one text form other processes parse.
TEST(PrefsWriter, MissingFileReadsDefaultsAndFirstSetCreatesIt) {
  TempDir dir;
  const std::string path = dir / "prefs.dat";
  esd::PrefsWriter writer(path, "Root");

  int number = 5;
  EXPECT_TRUE(writer.GetPref<int>("Count", number, 42));
  EXPECT_EQ(42, number);
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(path));

  ASSERT_TRUE(writer.SetPref<int>("Count", 7));
  EXPECT_EQ(std::string(kDeclaration) + "<Root>\n<Count>7</Count>\n</Root>\n", ReadFile(path));

  ASSERT_TRUE(writer.SetPref<std::string>("Name", "a <b> & c"));
  esd::PrefsWriter reader(path, "Root");
  EXPECT_TRUE(reader.GetPref<int>("Count", number, 42));
  EXPECT_EQ(7, number);
  EXPECT_EQ("a <b> & c", ReadString(reader, "Name"));
  EXPECT_EQ(0, CountOtherFiles(dir.path(), "prefs.dat"));
}

// Each type is stored in its text form and read back; a string set to "" reads as its default,
// because empty text means "not set".
TEST(PrefsWriter, ValuesRoundTripAndEmptyStringReadsAsDefault) {
  TempDir dir;
  const std::string path = dir / "prefs.dat";
  {
    esd::PrefsWriter writer(path, "Root");
    ASSERT_TRUE(writer.SetPref<bool>("Flag", false));
    ASSERT_TRUE(writer.SetPref<int>("Signed", -12));
    ASSERT_TRUE(writer.SetPref<unsigned long>("Big", 4000000000UL));
    ASSERT_TRUE(writer.SetPref<std::string>("Text", "two words \xC3\xA9t\xC3\xA9"));
    ASSERT_TRUE(writer.SetPref<std::string>("Empty", ""));
  }
  const std::string text = ReadFile(path);
  EXPECT_NE(std::string::npos, text.find("<Flag>0</Flag>"));
  EXPECT_NE(std::string::npos, text.find("<Signed>-12</Signed>"));
  EXPECT_NE(std::string::npos, text.find("<Big>4000000000</Big>"));
  EXPECT_NE(std::string::npos, text.find("<Empty></Empty>"));

  esd::PrefsWriter reader(path, "Root");
  bool flag = true;
  int number = 0;
  unsigned long big = 0;
  EXPECT_TRUE(reader.GetPref<bool>("Flag", flag, true));
  EXPECT_FALSE(flag);
  EXPECT_TRUE(reader.GetPref<int>("Signed", number, 0));
  EXPECT_EQ(-12, number);
  EXPECT_TRUE(reader.GetPref<unsigned long>("Big", big, 0UL));
  EXPECT_EQ(4000000000UL, big);
  EXPECT_EQ("two words \xC3\xA9t\xC3\xA9", ReadString(reader, "Text"));
  EXPECT_EQ("default", ReadString(reader, "Empty"));

  // Through a handle, setting the default stores it like any other value.
  esd::BasicPref<std::string> handle("Text", "fallback");
  handle.SetPrefsFile(&reader);
  EXPECT_TRUE(handle.IsDefaultValue("fallback"));
  EXPECT_FALSE(handle.IsDefaultValue("Fallback"));
  ASSERT_TRUE(handle.Set(""));
  std::string value;
  EXPECT_TRUE(handle.Get(value));
  EXPECT_EQ("fallback", value);
}

// Values written by hand or by another program: a bool reads only from "1" or "0", numbers only
// from whole decimal text; a failed read is false, not a silent default.
TEST(PrefsWriter, StoredTextMustConvertWhole) {
  TempDir dir;
  const std::string path = dir / "prefs.dat";
  WriteFile(path, std::string(kDeclaration) +
                      "<Root>\n<Yes>true</Yes>\n<One>1</One>\n<Two>2</Two>\n<Num>12a</Num>\n"
                      "<Padded> 34 </Padded>\n</Root>\n");
  esd::PrefsWriter writer(path, "Root");
  bool flag = false;
  EXPECT_FALSE(writer.GetPref<bool>("Yes", flag, false));
  EXPECT_FALSE(writer.GetPref<bool>("Two", flag, false));
  flag = false;
  EXPECT_TRUE(writer.GetPref<bool>("One", flag, false));
  EXPECT_TRUE(flag);
  int number = 0;
  EXPECT_FALSE(writer.GetPref<int>("Num", number, 0));
  EXPECT_TRUE(writer.GetPref<int>("Padded", number, 0));
  EXPECT_EQ(34, number);
}

// Maps are stored as entries in ascending key order and read back whole; one entry without its
// key attribute, or a bool entry that is not "1"/"0", fails the whole read with an empty map.
TEST(PrefsWriter, MapsRoundTripAndRejectBrokenEntries) {
  TempDir dir;
  const std::string path = dir / "prefs.dat";
  esd::PrefsWriter writer(path, "Root");
  esd::MapPref<std::string, std::string> messages("Messages");
  esd::MapPref<std::string, bool> enabled("Enabled");
  messages.SetPrefsFile(&writer);
  enabled.SetPrefsFile(&writer);

  std::map<std::string, std::string> text{{"zeta", "last one"}, {"alpha", "first"}, {"mid", ""}};
  std::map<std::string, bool> flags{{"b.app", false}, {"a.app", true}};
  std::map<std::string, std::string> readText{{"stale", "x"}};
  EXPECT_TRUE(messages.Get(readText));
  EXPECT_TRUE(readText.empty());
  ASSERT_TRUE(messages.Set(text));
  ASSERT_TRUE(enabled.Set(flags));
  const std::string file = ReadFile(path);
  EXPECT_NE(std::string::npos,
            file.find("<Messages>\n<MapPrefEntry MapPrefKey=\"alpha\">first</MapPrefEntry>\n"
                      "<MapPrefEntry MapPrefKey=\"mid\"></MapPrefEntry>\n"
                      "<MapPrefEntry MapPrefKey=\"zeta\">last one</MapPrefEntry>\n</Messages>"));
  EXPECT_NE(std::string::npos,
            file.find("<MapPrefEntry MapPrefKey=\"a.app\">1</MapPrefEntry>\n"
                      "<MapPrefEntry MapPrefKey=\"b.app\">0</MapPrefEntry>"));

  esd::PrefsWriter reader(path, "Root");
  messages.SetPrefsFile(&reader);
  enabled.SetPrefsFile(&reader);
  std::map<std::string, bool> readFlags;
  EXPECT_TRUE(messages.Get(readText));
  EXPECT_EQ(text, readText);
  EXPECT_TRUE(enabled.Get(readFlags));
  EXPECT_EQ(flags, readFlags);

  // Setting a smaller map replaces the old one entirely.
  ASSERT_TRUE(messages.Set({{"only", "one"}}));
  EXPECT_TRUE(messages.Get(readText));
  EXPECT_EQ((std::map<std::string, std::string>{{"only", "one"}}), readText);

  WriteFile(path, std::string(kDeclaration) +
                      "<Root>\n<Messages>\n<MapPrefEntry MapPrefKey=\"a\">1</MapPrefEntry>\n"
                      "<MapPrefEntry>no key</MapPrefEntry>\n</Messages>\n"
                      "<Enabled>\n<MapPrefEntry MapPrefKey=\"a\">1</MapPrefEntry>\n"
                      "<MapPrefEntry MapPrefKey=\"b\">yes</MapPrefEntry>\n</Enabled>\n"
                      "<Dup>\n<Item MapPrefKey=\"k\">old</Item>\n"
                      "<Item MapPrefKey=\"k\">new</Item>\n"
                      "</Dup>\n</Root>\n");
  esd::PrefsWriter broken(path, "Root");
  messages.SetPrefsFile(&broken);
  enabled.SetPrefsFile(&broken);
  EXPECT_FALSE(messages.Get(readText));
  EXPECT_TRUE(readText.empty());
  EXPECT_FALSE(enabled.Get(readFlags));
  EXPECT_TRUE(readFlags.empty());
  esd::MapPref<std::string, std::string> dup("Dup");
  dup.SetPrefsFile(&broken);
  EXPECT_TRUE(dup.Get(readText));
  EXPECT_EQ((std::map<std::string, std::string>{{"k", "new"}}), readText);
}

// Keys and values the file cannot hold are refused before anything changes, so one bad value can
// never make the whole file unreadable for every process.
TEST(PrefsWriter, RefusesWhatTheFileCannotHold) {
  TempDir dir;
  const std::string path = dir / "prefs.dat";
  esd::PrefsWriter writer(path, "Root");
  ASSERT_TRUE(writer.SetPref<std::string>("Path", "/home/u/Docs"));
  const std::string before = ReadFile(path);

  EXPECT_FALSE(writer.SetPref<std::string>("Path", "/home/u/D\xE9j\xE0"));  // Latin-1 bytes
  EXPECT_FALSE(writer.SetPref<std::string>("Path", std::string("a\0b", 3)));
  EXPECT_FALSE(writer.SetPref<std::string>("Path", "bell\x07"));
  EXPECT_FALSE(writer.SetPref<int>("two words", 1));
  EXPECT_FALSE(writer.SetPref<int>("", 1));
  EXPECT_FALSE(writer.SetPref<int>("1st", 1));
  esd::MapPref<std::string, std::string> map("Map");
  map.SetPrefsFile(&writer);
  EXPECT_FALSE(map.Set({{"say \"hi\"", "x"}}));
  EXPECT_FALSE(map.Set({{"a<b", "x"}}));
  EXPECT_FALSE(map.Set({{"ok", "\xFF"}}));
  EXPECT_EQ(before, ReadFile(path));
  EXPECT_EQ("/home/u/Docs", ReadString(writer, "Path"));

  // What is accepted reads back exactly, line breaks and tabs included.
  ASSERT_TRUE(writer.SetPref<std::string>("Note", "line one\n\tline two "));
  ASSERT_TRUE(map.Set({{"with space", "x&y"}}));
  esd::PrefsWriter reader(path, "Root");
  EXPECT_EQ("line one\n\tline two ", ReadString(reader, "Note"));
  std::map<std::string, std::string> read;
  map.SetPrefsFile(&reader);
  EXPECT_TRUE(map.Get(read));
  EXPECT_EQ((std::map<std::string, std::string>{{"with space", "x&y"}}), read);
}

// Loading: an empty path and a file that does not parse raise the two fixed errors; a file whose
// top element is another program's gets our settings element instead, and the next save leaves
// a file that parses.
TEST(PrefsWriter, LoadErrorsAndForeignTopElement) {
  TempDir dir;
  const std::string path = dir / "prefs.dat";
  esd::PrefsWriter writer("", "Root");
  try {
    writer.SetPrefsPath("");
    ADD_FAILURE() << "an empty path must throw";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ("Prefs file unable to lock file for reading!", error.what());
  }

  WriteFile(path, "<Root><Open>1</Root>");
  try {
    writer.SetPrefsPath(path);
    ADD_FAILURE() << "a file that does not parse must throw";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ("Unable to parse settings file", error.what());
  }
  EXPECT_THROW(esd::PrefsWriter(path, "Root"), std::invalid_argument);
  // Without settings the writer still answers: reads give defaults, sets fail, nothing is written.
  EXPECT_EQ("default", ReadString(writer, "Open"));
  EXPECT_FALSE(writer.SetPref<int>("Open", 2));
  EXPECT_FALSE(writer.Save());
  EXPECT_EQ("<Root><Open>1</Root>", ReadFile(path));

  WriteFile(path, std::string(kDeclaration) + "<Other>\n<Open>1</Open>\n</Other>\n");
  writer.SetPrefsPath(path);
  EXPECT_EQ("default", ReadString(writer, "Open"));
  ASSERT_TRUE(writer.SetPref<std::string>("Mine", "x"));
  EXPECT_EQ(std::string(kDeclaration) + "<Root>\n<Mine>x</Mine>\n</Root>\n", ReadFile(path));
}

// A file written by another program may hold a map key with an entity, which the writer would put
// back raw. A set must then fail and keep the file, not write one that no process can load (every
// setting would read as its default from then on).
TEST(PrefsWriter, SetRefusedWhenTheLoadedFileCannotBeWrittenBack) {
  TempDir dir;
  const std::string path = dir / "prefs.dat";
  const std::string written = std::string(kDeclaration) +
                              "<Root>\n<Map>\n<MapPrefEntry MapPrefKey=\"Tom &amp; Jerry\">1"
                              "</MapPrefEntry>\n</Map>\n<Check>1</Check>\n</Root>\n";
  WriteFile(path, written);
  esd::PrefsWriter writer(path, "Root");
  EXPECT_FALSE(writer.SetPref<int>("Check", 0));
  EXPECT_FALSE(writer.Save());
  EXPECT_EQ(written, ReadFile(path));

  esd::PrefsWriter reader(path, "Root");
  bool check = false;
  EXPECT_TRUE(reader.GetPref<bool>("Check", check, false));
  EXPECT_TRUE(check);
}

// Two writers with locks on one file: each operation sees the other's last set, even when sets
// follow each other faster than the file system clock ticks.
TEST(PrefsWriter, LockedWritersSeeEachOthersSets) {
  TempDir dir;
  const std::string path = dir / "prefs.dat";
  const std::string resource = UniqueResourceName("prefs");
  LockedWriter a(path, resource);
  esd::ResourceLocker otherLock(resource, 2000);
  esd::PrefsWriter b("", "Root");
  b.SetLockPolicy(&otherLock);
  b.SetPrefsPath(path);

  for (int i = 0; i < 200; ++i) {
    esd::PrefsWriter& from = (i % 2) ? a.writer : b;
    esd::PrefsWriter& to = (i % 2) ? b : a.writer;
    ASSERT_TRUE(from.SetPref<int>("Counter", i));
    int seen = -1;
    ASSERT_TRUE(to.GetPref<int>("Counter", seen, -1));
    ASSERT_EQ(i, seen) << "a set was missed at round " << i;
  }

  // After the clock was stepped back the file's time lies ahead of "now": a new save must still
  // count as newer than what the other writer loaded.
  std::filesystem::last_write_time(path,
                                   std::filesystem::last_write_time(path) + std::chrono::hours(1));
  int seen = -1;
  ASSERT_TRUE(b.GetPref<int>("Counter", seen, -1));
  ASSERT_TRUE(a.writer.SetPref<int>("Counter", 500));
  ASSERT_TRUE(b.GetPref<int>("Counter", seen, -1));
  EXPECT_EQ(500, seen);
  EXPECT_FALSE(testing_support::SemaphoreExists(resource));

  // An unlocked writer reads its file once and never again.
  esd::PrefsWriter unlocked(path, "Root");
  ASSERT_TRUE(a.writer.SetPref<int>("Counter", 1000));
  EXPECT_TRUE(unlocked.GetPref<int>("Counter", seen, -1));
  EXPECT_EQ(500, seen);
}

// Files changed behind a locked writer's back: a deleted file empties the document, a file that
// no longer parses reads as defaults (no exception from an ordinary get) and is replaced whole by
// the next set, and a file written by another program is picked up.
TEST(PrefsWriter, FileChangedBehindTheWritersBack) {
  TempDir dir;
  const std::string path = dir / "prefs.dat";
  LockedWriter locked(path, UniqueResourceName("prefs"));
  esd::PrefsWriter& writer = locked.writer;
  ASSERT_TRUE(writer.SetPref<std::string>("A", "one"));
  ASSERT_TRUE(writer.SetPref<std::string>("B", "two"));

  ASSERT_EQ(0, unlink(path.c_str()));
  EXPECT_EQ("default", ReadString(writer, "A"));
  ASSERT_TRUE(writer.SetPref<std::string>("B", "again"));
  EXPECT_EQ(std::string(kDeclaration) + "<Root>\n<B>again</B>\n</Root>\n", ReadFile(path));

  WriteFile(path, "garbage <<<");
  EXPECT_EQ("default", ReadString(writer, "B"));
  ASSERT_TRUE(writer.SetPref<std::string>("A", "fresh"));
  EXPECT_EQ(std::string(kDeclaration) + "<Root>\n<A>fresh</A>\n</Root>\n", ReadFile(path));

  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  WriteFile(path, std::string(kDeclaration) + "<Root><A>from elsewhere</A></Root>");
  EXPECT_EQ("from elsewhere", ReadString(writer, "A"));

  // DeleteAllPrefs removes the file and starts empty.
  ASSERT_TRUE(writer.DeleteAllPrefs());
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(path));
  EXPECT_EQ("default", ReadString(writer, "A"));
}

// While another holder has the lock, every operation fails without effect: outputs untouched,
// file unchanged, no exception even for a file that would not parse. A caller holding the lock
// itself runs several operations under it, and they leave it held.
TEST(PrefsWriter, LockHeldElsewhere) {
  TempDir dir;
  const std::string path = dir / "prefs.dat";
  const std::string resource = UniqueResourceName("prefs");
  LockedWriter locked(path, resource, 30);
  esd::PrefsWriter& writer = locked.writer;
  esd::MapPref<std::string, bool> map("Map");
  map.SetPrefsFile(&writer);
  ASSERT_TRUE(writer.SetPref<int>("N", 1));
  ASSERT_TRUE(map.Set({{"k", true}}));
  const std::string before = ReadFile(path);

  testing_support::Pipe held, done;
  const pid_t child = testing_support::StartChild([&] {
    esd::ResourceLocker other(resource, 0);
    if (!other.Lock()) return 1;
    held.Signal();
    return done.Wait() ? 0 : 2;
  });
  ASSERT_TRUE(held.Wait());

  int number = 77;
  EXPECT_FALSE(writer.GetPref<int>("N", number, 5));
  EXPECT_EQ(77, number);
  EXPECT_FALSE(writer.SetPref<int>("N", 2));
  std::map<std::string, bool> read{{"untouched", true}};
  EXPECT_FALSE(map.Get(read));
  EXPECT_EQ((std::map<std::string, bool>{{"untouched", true}}), read);
  EXPECT_FALSE(map.Set({{"x", false}}));
  esd::XMLDocumentNode* node = nullptr;
  EXPECT_FALSE(writer.GetPref("N", node));
  EXPECT_FALSE(writer.Save());
  EXPECT_FALSE(writer.DeleteAllPrefs());
  EXPECT_FALSE(writer.LockPrefs());
  EXPECT_FALSE(writer.SetPref("N", new esd::XMLDocumentNode("N")));
  WriteFile(dir / "broken.dat", "not xml");
  EXPECT_NO_THROW(writer.SetPrefsPath(""));
  EXPECT_NO_THROW(writer.SetPrefsPath(dir / "broken.dat"));
  EXPECT_NO_THROW(writer.SetPrefsPath(path));
  EXPECT_EQ(before, ReadFile(path));

  // Writers set up while the lock is busy load nothing yet, and catch up at their first
  // operation once it is free.
  esd::ResourceLocker lateLock(resource, 30);
  esd::PrefsWriter late("", "Root");
  late.SetLockPolicy(&lateLock);
  late.SetPrefsPath(path);
  esd::PrefsWriter lateNew("", "Root");
  lateNew.SetLockPolicy(&lateLock);
  lateNew.SetPrefsPath(dir / "new.dat");

  done.Signal();
  ASSERT_EQ(0, testing_support::WaitChild(child));

  EXPECT_TRUE(writer.GetPref<int>("N", number, 5));
  EXPECT_EQ(1, number);
  EXPECT_TRUE(late.GetPref<int>("N", number, 5));
  EXPECT_EQ(1, number);
  EXPECT_TRUE(lateNew.SetPref<int>("M", 9));
  EXPECT_EQ(std::string(kDeclaration) + "<Root>\n<M>9</M>\n</Root>\n",
            ReadFile(dir / "new.dat"));
  ASSERT_TRUE(writer.LockPrefs());
  EXPECT_TRUE(writer.SetPref<int>("N", 3));
  EXPECT_TRUE(writer.GetPref<int>("N", number, 5));
  EXPECT_TRUE(testing_support::SemaphoreExists(resource));
  {
    esd::PrefsLockScope scope(writer);
    EXPECT_TRUE(scope.IsHeld());
    EXPECT_FALSE(scope.TookLock());
  }
  EXPECT_TRUE(locked.lock.HasLock());
  EXPECT_TRUE(writer.UnlockPrefs());
  EXPECT_FALSE(testing_support::SemaphoreExists(resource));
  EXPECT_FALSE(writer.UnlockPrefs());
}

// A save that cannot write leaves the file exactly as it was and no stray files; the change stays
// in memory only. Runs as an unprivileged user, so it holds under root as well.
TEST(PrefsWriter, UnwritableFolderOrFileLeavesTheFileWhole) {
  TempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  const std::string folder = dir / "locked";
  const std::string path = folder + "/prefs.dat";
  ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
  WriteFile(path, std::string(kDeclaration) + "<Root>\n<N>1</N>\n</Root>\n");
  ASSERT_EQ(0, chmod(path.c_str(), 0644));
  const std::string before = ReadFile(path);

  // The folder and file belong to root (or to the test's user): the child may read, not write.
  const int status = testing_support::RunUnprivileged([&] {
    esd::PrefsWriter writer(path, "Root");
    if (writer.SetPref<int>("N", 2)) return 1;
    int n = 0;
    if (!writer.GetPref<int>("N", n, 0) || n != 2) return 2;
    if (writer.DeleteAllPrefs()) return 3;
    return 0;
  });
  EXPECT_EQ(0, status);
  EXPECT_EQ(before, ReadFile(path));
  EXPECT_EQ(0, CountOtherFiles(folder, "prefs.dat"));

  // A read-only file in a writable folder is not replaced either, and is never deleted.
  ASSERT_EQ(0, chmod(folder.c_str(), 0777));
  ASSERT_EQ(0, chmod(path.c_str(), 0444));
  EXPECT_EQ(0, testing_support::RunUnprivileged([&] {
    esd::PrefsWriter writer(path, "Root");
    return writer.SetPref<int>("N", 3) ? 1 : 0;
  }));
  EXPECT_EQ(before, ReadFile(path));
  esd::PrefsWriter owner(path, "Root");
  EXPECT_FALSE(owner.DeleteAllPrefs());
  EXPECT_TRUE(FileSystemUtils::DoesPathExist(path));

  // A path under a regular file cannot be written by anyone, root included.
  esd::PrefsWriter impossible(path + "/sub.dat", "Root");
  EXPECT_FALSE(impossible.SetPref<int>("N", 4));
}

// The file is replaced atomically: a process killed at any moment of a save, and a reader that
// looks at the file while another process saves, only ever see a whole file.
TEST(PrefsWriter, SavesAreAtomicForReadersAndCrashes) {
  TempDir dir;
  const std::string path = dir / "prefs.dat";
  const std::string big(200000, 'x');
  {
    esd::PrefsWriter writer(path, "Root");
    ASSERT_TRUE(writer.SetPref<std::string>("Data", big + "0"));
  }
  for (int round = 0; round < 10; ++round) {
    const pid_t child = testing_support::StartChild([&] {
      esd::PrefsWriter writer(path, "Root");
      for (int i = 1;; ++i) writer.SetPref<std::string>("Data", big + std::to_string(i % 10));
      return 0;
    });
    KilledOnExit killer(child);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(40);
    while (std::chrono::steady_clock::now() < end) {
      esd::PrefsWriter reader("", "Root");
      ASSERT_NO_THROW(reader.SetPrefsPath(path));
      const std::string value = ReadString(reader, "Data");
      ASSERT_EQ(big.size() + 1, value.size());
      ASSERT_EQ(0, value.compare(0, big.size(), big));
    }
    kill(child, SIGKILL);
    testing_support::WaitChild(child);
    killer.pid = -1;
    esd::PrefsWriter after("", "Root");
    ASSERT_NO_THROW(after.SetPrefsPath(path));
    EXPECT_EQ(big.size() + 1, ReadString(after, "Data").size());
  }
}
