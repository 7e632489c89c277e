// The updater's folders: created on demand in a relocated root and a temporary home, with
// private permissions per user and restricted ones for all users, and the updater's location.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/FakeUpdaterBundle.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/ScopedEnv.h"
#include "xplat/VantuUpdaterUtils.h"

namespace {

namespace fs = std::filesystem;

mode_t ModeOf(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

class UpdaterDirsTest : public ::testing::Test {
 protected:
  UpdaterDirsTest() {
    mEnv.SetRoot(root());
    mEnv.SetHome(home());
    mEnv.SetVariable("TMPDIR", mBase / "tmp");
    fs::create_directories(home());
    fs::create_directories(root());
  }
  std::string root() const { return mBase / "root"; }
  std::string home() const { return mBase / "home"; }

  testing_support::TempDir mBase;
  testing_support::TestEnv mEnv;
  esd::ScopedEnv mScope{&mEnv};
};

// New per-user product folders, down to the cache folder, are the user's alone (0700) whatever
// the umask or the parent's bits; the standard folders above them take their parent's bits, and
// existing folders keep theirs.
TEST_F(UpdaterDirsTest, UserFoldersAreTheUsersAlone) {
  chmod(home().c_str(), 0755);
  const mode_t oldMask = umask(0);
  std::string path;
  ASSERT_TRUE(VantuUpdaterUtils::GetVantuUpdaterCacheDataDir(path));
  umask(oldMask);
  EXPECT_EQ(path, home() + "/.local/share/Vantu/Updater5/Data");
  for (const auto& [level, mode] : {std::pair<const char*, mode_t>{"/.local/share", 0755},
                                    {"/.local/share/Vantu", 0700},
                                    {"/.local/share/Vantu/Updater5", 0700},
                                    {"/.local/share/Vantu/Updater5/Data", 0700}})
    EXPECT_EQ(ModeOf(home() + level), mode) << level;

  const std::string vantu = home() + "/.local/share/Vantu";
  fs::remove_all(vantu + "/Updater5");
  chmod(vantu.c_str(), 0751);
  ASSERT_TRUE(VantuUpdaterUtils::GetVantuUpdaterDataDir(path));
  EXPECT_EQ(ModeOf(vantu), 0751u);
  EXPECT_EQ(ModeOf(path), 0700u);
}

// Only root makes the missing all-users folders, and then as installed: the product folder
// root:root 0755, the data folder root and the update group (here "wheel") 2775.
TEST_F(UpdaterDirsTest, OnlyRootMakesTheAllUsersFoldersAsInstalled) {
  if (geteuid() != 0) GTEST_SKIP() << "giving folders away needs root";
  chmod(root().c_str(), 0700);
  mEnv.SetGroups({"users", "wheel"});
  std::string path;
  mEnv.SetEffectiveUserId(1000);
  EXPECT_FALSE(VantuUpdaterUtils::GetVantuUpdaterAllUserDataDir(path));
  EXPECT_FALSE(fs::exists(root() + "/var/lib/Vantu"));
  mEnv.SetEffectiveUserId(0);
  ASSERT_TRUE(VantuUpdaterUtils::GetVantuUpdaterAllUserDataDir(path));
  EXPECT_EQ(path, root() + "/var/lib/Vantu/Updater5");
  struct stat info {};
  gid_t wheel = 0;
  ASSERT_TRUE(stat(path.c_str(), &info) == 0 && mEnv.GetGroupId("wheel", wheel));
  EXPECT_EQ(info.st_gid, wheel);
  for (const auto& [level, mode] : {std::pair<const char*, mode_t>{"/var/lib", 0700},
                                    {"/var/lib/Vantu", 0755},
                                    {"/var/lib/Vantu/Updater5", 02775}})
    EXPECT_EQ(ModeOf(root() + level), mode) << level;
}

// Without a home folder, or with a file where a folder belongs, there is no data folder and
// nothing is created anywhere else.
TEST_F(UpdaterDirsTest, UnusableLocationsGiveNoFolder) {
  mEnv.SetHome("");
  std::string path;
  EXPECT_FALSE(VantuUpdaterUtils::GetVantuUpdaterDataDir(path));
  EXPECT_FALSE(VantuUpdaterUtils::GetVantuUpdaterCacheDataDir(path));
  EXPECT_TRUE(fs::is_empty(home()));
  mEnv.SetHome(home());
  fs::create_directories(home() + "/.local/share");
  testing_support::WriteFile(home() + "/.local/share/Vantu", "not a folder");
  EXPECT_FALSE(VantuUpdaterUtils::GetVantuUpdaterDataDir(path));
  EXPECT_FALSE(VantuUpdaterUtils::GetVantuUpdaterCacheDataDir(path));
  EXPECT_EQ(testing_support::ReadFile(home() + "/.local/share/Vantu"), "not a folder");
}

// The reference form of the location needs the installed bundle; the path form alone is the
// launch tests' business.
TEST_F(UpdaterDirsTest, UpdaterReferenceNeedsTheInstalledBundle) {
  std::string path;
  esd::FSRef ref;
  fs::create_directories(root() + "/opt");
  ASSERT_TRUE(VantuUpdaterUtils::GetUpdaterLocation(path));
  EXPECT_FALSE(VantuUpdaterUtils::GetUpdaterLocation(ref));
  testing_support::FakeUpdaterBundle bundle(path);
  ASSERT_TRUE(VantuUpdaterUtils::GetUpdaterLocation(ref));
  EXPECT_EQ(ref.path, fs::canonical(path).string());
}

}  // namespace
