// The standard folders: where each identifier lands for a relocated root and a temporary home,
// when folders are created, and which folders are refused.
#include "xplat/FolderFinder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/ScopedEnv.h"

namespace {

namespace fs = std::filesystem;
using esd::FolderFinder;
using namespace testing_support;

class FolderFinderTest : public ::testing::Test {
 protected:
  FolderFinderTest() : mScope(&mEnv) {
    mEnv.SetRoot(root());
    mEnv.SetHome(home());
    mEnv.SetVariable("TMPDIR", tmp());
    fs::create_directories(home());
  }

  std::string root() const { return mBase / "root"; }
  std::string home() const { return mBase / "home"; }
  std::string tmp() const { return mBase / "tmp"; }
  std::string privateTmp() const { return tmp() + "/TemporaryItems-" + std::to_string(geteuid()); }

  static std::string Find(int id, bool create) {
    std::string path = "untouched";
    if (!FolderFinder::GetFolderPath(static_cast<FolderFinder::FolderID>(id), path, create))
      return "<failed>";
    return path;
  }

  TempDir mBase;
  TestEnv mEnv;
  esd::ScopedEnv mScope;
};

// Every identifier resolves as the platform maps it, 8 to the same folder as 7. Without "create"
// a missing folder is a failure and nothing is made; without a home folder only the per-user
// folders fail; "create" leaves each folder in place. The root needs no lookup. (The
// preferences and applications folders are the admin policy and admin check tests'.)
TEST_F(FolderFinderTest, EveryIdentifierLandsInItsMappedFolder) {
  const std::string failed = "<failed>";
  const struct {
    std::string path, withoutHome;
  } expected[] = {
      {tmp(), tmp()}, {privateTmp(), privateTmp()}, {home() + "/Desktop", failed},
      {home() + "/Documents", failed}, {home() + "/.cache", failed},
      {home() + "/.config", failed}, {home() + "/.local/share", failed},
      {root() + "/var/lib", root() + "/var/lib"}, {root() + "/var/lib", root() + "/var/lib"},
      {root() + "/usr/local/share/fonts", root() + "/usr/local/share/fonts"},
      {root() + "/usr", root() + "/usr"}, {root() + "/opt", root() + "/opt"}, {"/", "/"}};
  for (int id = 0; id <= 11; ++id) EXPECT_EQ(Find(id, false), failed) << id;
  EXPECT_FALSE(fs::exists(root()));
  EXPECT_FALSE(fs::exists(tmp()));
  EXPECT_TRUE(fs::is_empty(home()));
  mEnv.SetHome("");
  for (int id = 0; id <= 12; ++id) EXPECT_EQ(Find(id, true), expected[id].withoutHome) << id;
  EXPECT_TRUE(fs::is_empty(home()));
  mEnv.SetVariable("XDG_DATA_HOME", mBase / "data");  // a variable needs no home
  EXPECT_EQ(Find(6, true), mBase / "data");
  mEnv.SetVariable("XDG_DATA_HOME", "");
  mEnv.SetHome(home());
  for (int id = 0; id <= 12; ++id) {
    SCOPED_TRACE(id);
    EXPECT_EQ(Find(id, true), expected[id].path);
    EXPECT_TRUE(fs::is_directory(expected[id].path));
    EXPECT_EQ(Find(id, false), expected[id].path);
  }

  // Absolute base-directory variables replace the home-relative defaults; relative ones are
  // invalid by convention and ignored.
  const std::pair<int, const char*> kVariables[] = {
      {4, "XDG_CACHE_HOME"}, {5, "XDG_CONFIG_HOME"}, {6, "XDG_DATA_HOME"}, {1, "XDG_RUNTIME_DIR"}};
  for (const auto& [id, name] : kVariables) {
    mEnv.SetVariable(name, mBase / name);
    EXPECT_EQ(Find(id, true), mBase / name);
    mEnv.SetVariable(name, "relative/dir");
  }
  mEnv.SetVariable("TMPDIR", "relative/tmp");
  EXPECT_EQ(Find(4, true), home() + "/.cache");
  EXPECT_EQ(Find(6, true), home() + "/.local/share");
  EXPECT_EQ(Find(0, false), "/tmp");
  EXPECT_FALSE(fs::exists("relative"));
}

// Desktop and Documents come from user-dirs.dirs in the configuration folder when it names
// them: "$HOME/..." and absolute values, quoted with escapes; anything else falls back.
TEST_F(FolderFinderTest, UserDirsFileNamesDesktopAndDocuments) {
  const std::string config = mBase / "config";
  mEnv.SetVariable("XDG_CONFIG_HOME", config);
  fs::create_directories(config);
  const std::string documents = mBase / "My \"Docs\"";
  WriteFile(config + "/user-dirs.dirs",
            "# written by xdg-user-dirs-update\n"
            "XDG_DESKTOP_DIR=\"$HOME/Arbeitsfläche\"\n"
            "XDG_DOCUMENTS_DIR=\"/nowhere\"\n"
            "  XDG_DOCUMENTS_DIR=\"" + mBase.path() + "/My \\\"Docs\\\"\"\n"
            "XDG_MUSIC_DIR=\"$HOME/Music\"\n");
  EXPECT_EQ(Find(2, true), home() + "/Arbeitsfläche");
  EXPECT_EQ(Find(3, true), documents);
  EXPECT_TRUE(fs::is_directory(documents));

  // A relative value, an unterminated quote and a "$HOMEWORK" lookalike are not folders.
  WriteFile(config + "/user-dirs.dirs",
            "XDG_DESKTOP_DIR=\"Desktop\"\n"
            "XDG_DOCUMENTS_DIR=\"$HOME/unterminated\n"
            "XDG_DESKTOP_DIR=\"$HOMEWORK/x\"\n");
  EXPECT_EQ(Find(2, true), home() + "/Desktop");
  EXPECT_EQ(Find(3, true), home() + "/Documents");
  EXPECT_FALSE(fs::exists(home() + "/unterminated"));
}

// The per-user temporary folder in a shared temporary folder is private (0700) and is refused
// when someone else could have planted it: a symbolic link, or a folder of another user.
// $XDG_RUNTIME_DIR counts only as a folder of the caller's own with mode 0700 (another user's
// runtime folder, handed over with that user's environment, could be changed under us); any
// other gives way to the private temporary folder. A refused folder is left as it is.
TEST_F(FolderFinderTest, PrivateAndRuntimeFoldersCountOnlyWhenOurs) {
  ASSERT_EQ(Find(1, true), privateTmp());
  EXPECT_EQ(fs::status(privateTmp()).permissions(), fs::perms::owner_all);

  chmod(privateTmp().c_str(), 0777);
  EXPECT_EQ(Find(1, false), privateTmp());
  EXPECT_EQ(fs::status(privateTmp()).permissions(), fs::perms::owner_all) << "not narrowed again";

  const std::string runtime = mBase / "runtime";
  fs::create_directories(runtime);
  mEnv.SetVariable("XDG_RUNTIME_DIR", runtime);
  const struct {
    mode_t mode;
    uid_t user;
    std::string expected;
  } cases[] = {
      {0700, geteuid(), runtime},
      {0755, geteuid(), privateTmp()},
      {0770, geteuid(), privateTmp()},
      {0700, geteuid() + 1, "<failed>"},  // nor is the temporary folder made by root its own
  };
  for (const auto& c : cases) {
    chmod(runtime.c_str(), c.mode);
    mEnv.SetEffectiveUserId(c.user);
    EXPECT_EQ(Find(1, true), c.expected) << std::oct << c.mode << " " << c.user;
    EXPECT_EQ(fs::status(runtime).permissions(), fs::perms(c.mode));
  }

  mEnv.SetVariable("XDG_RUNTIME_DIR", "");
  mEnv.SetEffectiveUserId(geteuid());
  fs::remove(privateTmp());
  const std::string target = mBase / "planted";
  fs::create_directories(target);
  chmod(target.c_str(), 0755);
  fs::create_directory_symlink(target, privateTmp());
  EXPECT_EQ(Find(1, true), "<failed>");
  EXPECT_EQ(fs::status(target).permissions(), fs::perms(0755)) << "the link's target was changed";
}

}  // namespace
