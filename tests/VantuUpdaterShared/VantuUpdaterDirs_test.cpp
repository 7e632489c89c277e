// The updater's folders: created on demand in a relocated root and a temporary home, with
// inherited permissions per user and restricted ones for all users, and the updater's location.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/FakeUpdaterBundle.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/ChangeDiffType.h"
#include "xplat/ScopedEnv.h"
#include "xplat/VantuUpdaterUtils.h"

namespace {

namespace fs = std::filesystem;
using testing_support::TempDir;
using testing_support::TestEnv;

mode_t ModeOf(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

class UpdaterDirsTest : public ::testing::Test {
 protected:
  UpdaterDirsTest() : mScope(&mEnv) {
    mEnv.SetRoot(root());
    mEnv.SetHome(home());
    mEnv.SetVariable("TMPDIR", mBase / "tmp");
    fs::create_directories(home());
    fs::create_directories(root());
  }
  std::string root() const { return mBase / "root"; }
  std::string home() const { return mBase / "home"; }

  TempDir mBase;
  TestEnv mEnv;
  esd::ScopedEnv mScope;
};

// New per-user product folders take their parent's permission bits, whatever the umask.
TEST_F(UpdaterDirsTest, UserDataFoldersInheritTheirParentsPermissions) {
  for (mode_t parentMode : {0700, 0750, 0777}) {
    SCOPED_TRACE(parentMode);
    const std::string data = mBase / ("data" + std::to_string(parentMode));
    fs::create_directory(data);
    chmod(data.c_str(), parentMode);
    mEnv.SetVariable("XDG_DATA_HOME", data);
    std::string path;
    ASSERT_TRUE(VantuUpdaterUtils::GetVantuUpdaterDataDir(path));
    EXPECT_EQ(path, data + "/Vantu/Updater5");
    EXPECT_EQ(ModeOf(data + "/Vantu"), parentMode);
    EXPECT_EQ(ModeOf(data + "/Vantu/Updater5"), parentMode);
  }
}

// A missing standard folder is created on the way (inheriting from the home folder), and the
// cache folder lies in the data folder.
TEST_F(UpdaterDirsTest, CacheFolderIsCreatedWithTheWholeChain) {
  chmod(home().c_str(), 0710);
  std::string cache;
  ASSERT_TRUE(VantuUpdaterUtils::GetVantuUpdaterCacheDataDir(cache));
  EXPECT_EQ(cache, home() + "/.local/share/Vantu/Updater5/Data");
  EXPECT_TRUE(fs::is_directory(cache));
  for (const char* level : {"/.local", "/.local/share", "/.local/share/Vantu",
                            "/.local/share/Vantu/Updater5", "/.local/share/Vantu/Updater5/Data"}) {
    SCOPED_TRACE(level);
    EXPECT_EQ(ModeOf(home() + level), 0710u);
  }
}

// Folders that exist keep the permissions someone gave them; only missing levels are made.
TEST_F(UpdaterDirsTest, ExistingProductFoldersKeepTheirPermissions) {
  const std::string vantu = home() + "/.local/share/Vantu";
  fs::create_directories(vantu);
  chmod(vantu.c_str(), 0711);
  std::string path;
  ASSERT_TRUE(VantuUpdaterUtils::GetVantuUpdaterDataDir(path));
  EXPECT_EQ(ModeOf(vantu), 0711u);
  EXPECT_EQ(ModeOf(path), 0711u);
  chmod(path.c_str(), 0700);
  ASSERT_TRUE(VantuUpdaterUtils::GetVantuUpdaterDataDir(path));
  EXPECT_EQ(ModeOf(path), 0700u);
}

// The all-users folders get the restricted permission, not their parent's.
TEST_F(UpdaterDirsTest, AllUsersFoldersAreRestricted) {
  chmod(root().c_str(), 0700);
  std::string path;
  ASSERT_TRUE(VantuUpdaterUtils::GetVantuUpdaterAllUserDataDir(path));
  EXPECT_EQ(path, root() + "/var/lib/Vantu/Updater5");
  EXPECT_EQ(ModeOf(root() + "/var/lib"), 0700u);
  EXPECT_EQ(ModeOf(root() + "/var/lib/Vantu"), 0775u);
  EXPECT_EQ(ModeOf(path), 0775u);
}

// Without a home folder, or with a file where a folder belongs, there is no data folder, and
// nothing is created anywhere else.
TEST_F(UpdaterDirsTest, UnusableLocationsGiveNoFolder) {
  mEnv.SetHome("");
  std::string path = "untouched";
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

// The location is known as soon as the Utilities folder exists; the reference form also needs
// the installed bundle. Without the Utilities folder there is no location and none is made.
TEST_F(UpdaterDirsTest, UpdaterLocationAndItsReference) {
  std::string path;
  esd::FSRef ref;
  EXPECT_FALSE(VantuUpdaterUtils::GetUpdaterLocation(path));
  EXPECT_FALSE(VantuUpdaterUtils::GetUpdaterLocation(ref));
  EXPECT_FALSE(fs::exists(root() + "/opt"));

  fs::create_directories(root() + "/opt");
  ASSERT_TRUE(VantuUpdaterUtils::GetUpdaterLocation(path));
  EXPECT_EQ(path, testing_support::FakeUpdaterBundle::InstalledPath(root()));
  EXPECT_FALSE(VantuUpdaterUtils::GetUpdaterLocation(ref));

  testing_support::FakeUpdaterBundle bundle(path);
  ASSERT_TRUE(VantuUpdaterUtils::GetUpdaterLocation(ref));
  EXPECT_EQ(ref.path, fs::canonical(path).string());
}

// The running program's folder; and launch modes travel as their number, not their name.
TEST(UpdaterUtilsTest, ProgramFolderAndStartupModes) {
  std::string folder;
  ASSERT_TRUE(VantuUpdaterUtils::GetVantuUpdaterDirectory(folder));
  EXPECT_EQ(folder, fs::read_symlink("/proc/self/exe").parent_path().string());

  std::string text;
  ASSERT_TRUE(esd::ChangeType(VantuUpdaterUtils::kScheduled, text));
  EXPECT_EQ(text, "1");
  EXPECT_EQ(VantuUpdaterUtils::GetStartupModeName(VantuUpdaterUtils::kManual), "Manual");
  EXPECT_EQ(VantuUpdaterUtils::GetStartupModeName(VantuUpdaterUtils::kScheduled), "Scheduled");
}

}  // namespace
