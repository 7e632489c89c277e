#include "xplat/PrefsWriter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/MapPref.h"
#include "xplat/PrefsLockScope.h"
#include "xplat/ResourceLocker.h"

using testing_support::ReadFile;
using testing_support::LockIsHeld;
using testing_support::LockFileGuard;
using testing_support::TempDir;
using testing_support::UniqueResourceName;
using testing_support::WriteFile;
using TextMap = std::map<std::string, std::string>;

namespace {

const std::string kDecl = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";

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

std::string ReadString(esd::PrefsWriter& writer, const std::string& key) {
  std::string value;
  EXPECT_TRUE(writer.GetPref<std::string>(key, value, "default"));
  return value;
}

// The value read for `key` (`missing` when the key is absent), or nothing when the read fails.
template <class T>
std::optional<T> Read(esd::PrefsWriter& writer, const std::string& key, T missing = T()) {
  T value{};
  return writer.GetPref<T>(key, value, missing) ? std::optional<T>(value) : std::nullopt;
}

// A preference file in a fresh folder.
class PrefsWriterTest : public ::testing::Test {
 protected:
  TempDir dir;
  const std::string path = dir / "prefs.dat";
};

}  // namespace

// A missing file reads as defaults and is not created by reading; a set writes the whole file in
// the one text form other processes parse. Values read back only from text that converts whole,
// and an empty string reads as the default ("not set").
TEST_F(PrefsWriterTest, FileFormatAndValueConversions) {
  esd::PrefsWriter writer(path, "Root");
  EXPECT_EQ(42, Read<int>(writer, "Count", 42));
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(path));

  ASSERT_TRUE(writer.SetPref<bool>("Flag", false));
  ASSERT_TRUE(writer.SetPref<unsigned long>("Big", 4000000000UL));
  ASSERT_TRUE(writer.SetPref<std::string>("Text", "a <b> & c\n\t\xC3\xA9 "));
  ASSERT_TRUE(writer.SetPref<std::string>("Empty", ""));
  EXPECT_EQ(kDecl + "<Root>\n<Flag>0</Flag>\n<Big>4000000000</Big>\n"
                    "<Text>a &lt;b&gt; &amp; c\n\t\xC3\xA9 </Text>\n<Empty></Empty>\n</Root>\n",
            ReadFile(path));
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(dir.path()), {}));

  esd::PrefsWriter reader(path, "Root");
  EXPECT_EQ(false, Read<bool>(reader, "Flag", true));
  EXPECT_EQ(4000000000UL, Read<unsigned long>(reader, "Big"));
  EXPECT_EQ("a <b> & c\n\t\xC3\xA9 ", ReadString(reader, "Text"));
  EXPECT_EQ("default", ReadString(reader, "Empty"));

  // Text written by hand: a bool only from "1"/"0", numbers from whole decimal text; a failed
  // read is false, not a silent default.
  WriteFile(path,
            kDecl + "<Root>\n<Yes>true</Yes>\n<Num>12a</Num>\n<Padded> 34 </Padded>\n</Root>\n");
  esd::PrefsWriter handWritten(path, "Root");
  EXPECT_EQ(std::nullopt, Read<bool>(handWritten, "Yes"));
  EXPECT_EQ(std::nullopt, Read<int>(handWritten, "Num"));
  EXPECT_EQ(34, Read<int>(handWritten, "Padded"));
}

// Maps are stored as entries in ascending key order and replaced whole; one entry without its key,
// or a bool entry that is not "1"/"0", fails the whole read with an empty map; a repeated key
// reads as its last entry.
TEST_F(PrefsWriterTest, MapsRoundTripAndRejectBrokenEntries) {
  esd::PrefsWriter writer(path, "Root");
  esd::MapPref<std::string, std::string> messages("Messages");
  esd::MapPref<std::string, bool> enabled("Enabled");
  messages.SetPrefsFile(&writer);
  enabled.SetPrefsFile(&writer);
  TextMap read{{"stale", "x"}};
  EXPECT_TRUE(messages.Get(read));
  EXPECT_TRUE(read.empty());

  const TextMap text{{"zeta", "last one"}, {"alpha", "first"}, {"mid", ""}};
  const std::map<std::string, bool> flags{{"b.app", false}, {"a.app", true}};
  ASSERT_TRUE(messages.Set({{"old", "gone"}}));
  ASSERT_TRUE(messages.Set(text));
  ASSERT_TRUE(enabled.Set(flags));
  EXPECT_EQ(kDecl + "<Root>\n<Messages>\n<MapPrefEntry MapPrefKey=\"alpha\">first</MapPrefEntry>\n"
                    "<MapPrefEntry MapPrefKey=\"mid\"></MapPrefEntry>\n"
                    "<MapPrefEntry MapPrefKey=\"zeta\">last one</MapPrefEntry>\n</Messages>\n"
                    "<Enabled>\n<MapPrefEntry MapPrefKey=\"a.app\">1</MapPrefEntry>\n"
                    "<MapPrefEntry MapPrefKey=\"b.app\">0</MapPrefEntry>\n</Enabled>\n</Root>\n",
            ReadFile(path));
  esd::PrefsWriter reader(path, "Root");
  messages.SetPrefsFile(&reader);
  enabled.SetPrefsFile(&reader);
  std::map<std::string, bool> readFlags;
  EXPECT_TRUE(messages.Get(read));
  EXPECT_EQ(text, read);
  EXPECT_TRUE(enabled.Get(readFlags));
  EXPECT_EQ(flags, readFlags);

  WriteFile(path, kDecl + "<Root>\n<Messages>\n<MapPrefEntry MapPrefKey=\"a\">1</MapPrefEntry>\n"
                          "<MapPrefEntry>no key</MapPrefEntry>\n</Messages>\n"
                          "<Enabled>\n<MapPrefEntry MapPrefKey=\"a\">1</MapPrefEntry>\n"
                          "<MapPrefEntry MapPrefKey=\"b\">yes</MapPrefEntry>\n</Enabled>\n"
                          "<Dup>\n<Item MapPrefKey=\"k\">old</Item>\n"
                          "<Item MapPrefKey=\"k\">new</Item>\n</Dup>\n</Root>\n");
  esd::PrefsWriter broken(path, "Root");
  messages.SetPrefsFile(&broken);
  enabled.SetPrefsFile(&broken);
  EXPECT_FALSE(messages.Get(read));
  EXPECT_TRUE(read.empty());
  EXPECT_FALSE(enabled.Get(readFlags));
  EXPECT_TRUE(readFlags.empty());
  esd::MapPref<std::string, std::string> dup("Dup");
  dup.SetPrefsFile(&broken);
  EXPECT_TRUE(dup.Get(read));
  EXPECT_EQ((TextMap{{"k", "new"}}), read);
}

// Keys and values the file cannot hold are refused before anything changes, so one bad value can
// never make the whole file unreadable for every process.
TEST_F(PrefsWriterTest, RefusesWhatTheFileCannotHold) {
  esd::PrefsWriter writer(path, "Root");
  ASSERT_TRUE(writer.SetPref<std::string>("Path", "/home/u/Docs"));
  const std::string before = ReadFile(path);
  esd::MapPref<std::string, std::string> map("Map");
  map.SetPrefsFile(&writer);
  const std::pair<std::string, std::string> kRefused[] = {
      {"Path", "/home/u/D\xE9j\xE0"},  // Latin-1 bytes
      {"Path", std::string("a\0b", 3)}, {"Path", "bell\x07"}, {"two words", "1"}, {"", "1"},
      {"1st", "1"}};
  for (const auto& [key, value] : kRefused) EXPECT_FALSE(writer.SetPref<std::string>(key, value));
  const std::pair<std::string, std::string> kRefusedEntries[] = {
      {"say \"hi\"", "x"}, {"a<b", "x"}, {"ok", "\xFF"}};
  for (const auto& entry : kRefusedEntries) EXPECT_FALSE(map.Set({entry})) << entry.first;
  EXPECT_EQ(before, ReadFile(path));
  EXPECT_EQ("/home/u/Docs", ReadString(writer, "Path"));

  ASSERT_TRUE(map.Set({{"with space", "x&y"}}));  // what is accepted reads back exactly
  esd::PrefsWriter reader(path, "Root");
  map.SetPrefsFile(&reader);
  TextMap read;
  EXPECT_TRUE(map.Get(read));
  EXPECT_EQ((TextMap{{"with space", "x&y"}}), read);
}

// An empty path raises its fixed error (a file that does not parse is the fuzzer's); a file whose
// top element is another program's gets our settings element.
TEST_F(PrefsWriterTest, LoadErrorsAndForeignTopElement) {
  esd::PrefsWriter writer("", "Root");
  try {
    writer.SetPrefsPath("");
    ADD_FAILURE() << "an empty path must throw";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ("Prefs file unable to lock file for reading!", error.what());
  }
  WriteFile(path, kDecl + "<Other>\n<Open>1</Open>\n</Other>\n");
  writer.SetPrefsPath(path);
  EXPECT_EQ("default", ReadString(writer, "Open"));
  ASSERT_TRUE(writer.SetPref<std::string>("Mine", "x"));
  EXPECT_EQ(kDecl + "<Root>\n<Mine>x</Mine>\n</Root>\n", ReadFile(path));
}

// Two writers with locks on one file: each operation sees the other's last set, even when sets
// follow each other faster than the file system clock ticks or the file's time lies ahead.
TEST_F(PrefsWriterTest, LockedWritersSeeEachOthersSets) {
  const std::string resource = UniqueResourceName("prefs");
  LockedWriter a(path, resource), other(path, resource);
  esd::PrefsWriter& b = other.writer;
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(((i % 2) ? a.writer : b).SetPref<int>("Counter", i));
    ASSERT_EQ(i, Read<int>((i % 2) ? b : a.writer, "Counter")) << "a set was missed";
  }

  // After the clock was stepped back the file's time lies ahead of "now".
  std::filesystem::last_write_time(path,
                                   std::filesystem::last_write_time(path) + std::chrono::hours(1));
  ASSERT_EQ(199, Read<int>(b, "Counter"));
  ASSERT_TRUE(a.writer.SetPref<int>("Counter", 500));
  EXPECT_EQ(500, Read<int>(b, "Counter"));
  EXPECT_FALSE(LockIsHeld(resource));
}

// Behind a locked writer's back, a file that no longer parses reads as defaults (no exception)
// and is replaced whole by the next set. (A deleted file is the lock-held test's case.)
TEST_F(PrefsWriterTest, FileChangedBehindTheWritersBack) {
  LockedWriter locked(path, UniqueResourceName("prefs"));
  esd::PrefsWriter& writer = locked.writer;
  ASSERT_TRUE(writer.SetPref<std::string>("B", "one"));
  WriteFile(path, "garbage <<<");
  EXPECT_EQ("default", ReadString(writer, "B"));
  ASSERT_TRUE(writer.SetPref<std::string>("A", "fresh"));
  EXPECT_EQ(kDecl + "<Root>\n<A>fresh</A>\n</Root>\n", ReadFile(path));

  ASSERT_TRUE(writer.DeleteAllPrefs());
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(path));
  EXPECT_EQ("default", ReadString(writer, "A"));
}

// While another process holds the lock every operation fails without effect (outputs and file
// untouched, no exception); writers set up meanwhile catch up once it is free. A caller holding
// the lock itself runs several operations under it and they leave it held.
TEST_F(PrefsWriterTest, LockHeldElsewhere) {
  const std::string resource = UniqueResourceName("prefs");
  LockedWriter locked(path, resource, 30);
  esd::PrefsWriter& writer = locked.writer;
  esd::MapPref<std::string, bool> map("Map");
  map.SetPrefsFile(&writer);
  ASSERT_TRUE(writer.SetPref<int>("N", 1));
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
  std::map<std::string, bool> read{{"untouched", true}};
  EXPECT_FALSE(map.Get(read));
  EXPECT_EQ(1u, read.count("untouched"));
  EXPECT_FALSE(writer.SetPref<int>("N", 2) || map.Set({{"x", false}}) || writer.Save() ||
               writer.DeleteAllPrefs() || writer.LockPrefs());
  WriteFile(dir / "broken.dat", "not xml");
  EXPECT_NO_THROW(writer.SetPrefsPath(dir / "broken.dat"));
  EXPECT_NO_THROW(writer.SetPrefsPath(path));
  EXPECT_EQ(before, ReadFile(path));
  LockedWriter late(path, resource, 30), lateNew(dir / "new.dat", resource, 30);
  done.Signal();
  ASSERT_EQ(0, testing_support::WaitChild(child));

  EXPECT_EQ(1, Read<int>(late.writer, "N"));
  EXPECT_TRUE(lateNew.writer.SetPref<int>("M", 9));
  EXPECT_EQ(kDecl + "<Root>\n<M>9</M>\n</Root>\n", ReadFile(dir / "new.dat"));
  ASSERT_TRUE(writer.LockPrefs());
  EXPECT_TRUE(writer.SetPref<int>("N", 3));
  EXPECT_EQ(3, Read<int>(writer, "N"));
  {
    esd::PrefsLockScope scope(writer);
    EXPECT_TRUE(scope.IsHeld());
    EXPECT_FALSE(scope.TookLock());
  }
  EXPECT_TRUE(LockIsHeld(resource));
  EXPECT_TRUE(writer.UnlockPrefs());
  EXPECT_FALSE(LockIsHeld(resource));
  EXPECT_FALSE(writer.UnlockPrefs());
}
