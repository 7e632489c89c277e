// The reference updater at the other end of the library's exchanges, end to end: rozctl makes
// the library calls on a --root sandbox in which the built updater bundle is installed, and the
// library starts or signals the real updater, which answers through the shared files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <boost/date_time/gregorian/gregorian.hpp>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/RunProgram.h"
#include "support/TempDir.h"
#include "xplat/FileSystemUtils.h"

using ::testing::HasSubstr;
using testing_support::ProgramResult;
using testing_support::RunOptions;
using testing_support::RunProgram;
using testing_support::TempDir;

namespace {

const char kBundleInOpt[] = "/opt/Vantu Utilities.localized/Vantu Updater5/Vantu Updater.app";

class ReferenceUpdaterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing_support::CanChooseGroups())
      GTEST_SKIP() << "the library starts the updater for administrators only; needs root";
    const std::string bundle = mRoot.path() + kBundleInOpt;
    ASSERT_TRUE(FileSystemUtils::CreateLocalDirectory(bundle + "/Contents/MacOS"));
    ASSERT_TRUE(
        FileSystemUtils::CopyLocalFile(std::string(VANTU_UPDATER_BUNDLE) + "/Contents/Info.plist",
                                       bundle + "/Contents/Info.plist"));
    ASSERT_TRUE(FileSystemUtils::CopyLocalFile(
        std::string(VANTU_UPDATER_BUNDLE) + "/Contents/MacOS/Vantu Updater",
        bundle + "/Contents/MacOS/Vantu Updater"));
    ASSERT_TRUE(FileSystemUtils::CreateLocalDirectory(mRoot / "var/lib/Vantu/Updater5"));
    testing_support::WriteFile(
        mRoot / "var/lib/Vantu/Updater5/VantuUpdateCatalog.xml",
        "<UpdateCatalog>\n  <Update appID=\"com.example.A\" version=\"2.0\"/>\n</UpdateCatalog>\n");
    mAdmin.groups = RunOptions::Groups::kAdministrator;
  }

  ProgramResult Rozctl(std::vector<std::string> args) {
    args.insert(args.begin(), {ROZCTL_PROGRAM, "--root", mRoot.path()});
    return RunProgram(args, mAdmin);
  }

  std::string UserData() const { return mRoot.path() + "/home/.local/share/Vantu/Updater5"; }
  std::string Log() const { return testing_support::ReadFile(UserData() + "/roz.log"); }

  // Waits until the updater's log holds `text` `times` times; false after ten seconds.
  bool WaitForLog(const std::string& text, size_t times = 1) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
      const std::string log = FileSystemUtils::DoesPathExist(UserData() + "/roz.log") ? Log() : "";
      size_t found = 0;
      for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
        ++found;
      if (found >= times) return true;
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  TempDir mRoot;
  RunOptions mAdmin;
};

}  // namespace

// The first question starts the updater, which answers from its catalogue into the result file
// and removes the workflow marker; the second question reads the answer.
TEST_F(ReferenceUpdaterTest, AnswersAvailabilityFromItsCatalogue) {
  struct Case {
    const char* appID;
    const char* answer;
  };
  for (const Case& app : {Case{"com.example.A", "yes"}, Case{"com.example.B", "no"}}) {
    const std::string id = app.appID;
    ProgramResult first = Rozctl({"available", "--register", id, "App", "/opt/app", "7"});
    EXPECT_EQ(1, first.exitStatus) << first.err;
    EXPECT_THAT(first.out, HasSubstr("ROZIsUpdateAvailable: 8 kROZResultAnswerPending\n"));
    ASSERT_TRUE(WaitForLog("availability for " + id + ": ")) << Log();
    const std::string marker = mRoot.path() + "/run/Updater5/locked/lock." + id;
    for (int i = 0; i < 500 && FileSystemUtils::DoesPathExist(marker); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(FileSystemUtils::DoesPathExist(marker));
    const std::string result = UserData() + "/Data/UpdateAvailable/" + id + "/7.xml";
    EXPECT_THAT(
        testing_support::ReadFile(result),
        HasSubstr(app.answer == std::string("yes") ? "<Result>1</Result>" : "<Result>0</Result>"));

    ProgramResult second = Rozctl({"available", id, "App", "/opt/app", "7"});
    EXPECT_EQ(0, second.exitStatus) << second.err;
    EXPECT_EQ(
        std::string("ROZIsUpdateAvailable: 0 kROZResultOK\nupdate available: ") + app.answer + "\n",
        second.out);
    EXPECT_FALSE(FileSystemUtils::DoesPathExist(UserData() + "/Data/UpdateAvailable/" + id));
  }
  EXPECT_THAT(Log(), HasSubstr("availability for com.example.A: update 2.0 available"));
  EXPECT_THAT(Log(), HasSubstr("availability for com.example.B: no update"));
}

// Download mode takes every pending request out of the store. (The express-download signal to a
// running updater is the demo's and the missing-components tests'.)
TEST_F(ReferenceUpdaterTest, FetchesAndRemovesMissingComponentRequests) {
  ProgramResult request = Rozctl({"download-missing", "--register", "com.example.A", "App A",
                                  "/opt/a", "fonts:Serif:1.0", "dictionaries:en_GB:2.1"});
  EXPECT_EQ("ROZDownloadMissingComponents: 0 kROZResultOK\n", request.out) << request.err;
  ASSERT_TRUE(WaitForLog("]: done\n")) << Log();
  EXPECT_THAT(Log(), HasSubstr("download: would fetch for com.example.A (App A): "
                               "fonts:Serif:1.0.0.0, dictionaries:en_GB:2.1.0.0\n"));
  EXPECT_EQ("no missing-component requests\n", Rozctl({"missing"}).out);
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(UserData() + "/VantuMissingComps.xml"));
}

// A plug-in action is logged for the registered application; a check records today's date and
// consumes the launch request; the last unregistration starts a clean-up.
TEST_F(ReferenceUpdaterTest, ActsChecksAndCleansUp) {
  EXPECT_EQ(0, Rozctl({"register", "com.example.A", "App A", "/opt/a"}).exitStatus);
  ProgramResult call = Rozctl({"plugin-action", "com.example.A"});
  EXPECT_EQ("ROZDoPluginAction: 0 kROZResultOK\n", call.out) << call.err;
  ASSERT_TRUE(
      WaitForLog("plug-in action for com.example.A: would run the action prepared for "
                 "App A in /opt/a\n"))
      << Log();
  ASSERT_TRUE(WaitForLog("]: done\n", 1));

  call = Rozctl({"trigger", "--app", "com.example.A", "App A", "/opt/a"});
  EXPECT_EQ("ROZTriggerUpdateCheck: 0 kROZResultOK\n", call.out) << call.err;
  const std::string today =
      boost::gregorian::to_iso_extended_string(boost::gregorian::day_clock::local_day());
  ASSERT_TRUE(WaitForLog("manual check: recorded LastDateCheck " + today + "\n")) << Log();
  EXPECT_THAT(Log(), HasSubstr("manual check started by com.example.A, Launch preference "
                               "\"Manual\"\n"));
  EXPECT_THAT(Log(), HasSubstr("manual check: com.example.A: update 2.0 available\n"));
  ASSERT_TRUE(WaitForLog("]: done\n", 2));
  const ProgramResult prefs = Rozctl({"prefs"});
  EXPECT_THAT(prefs.out, HasSubstr("LastDateCheck = " + today + "\n"));
  EXPECT_THAT(prefs.out, HasSubstr("Launch = \n"));
  EXPECT_THAT(prefs.out, HasSubstr("IsFirstRun = 0\n"));

  call = Rozctl({"unregister", "com.example.A"});
  EXPECT_EQ("ROZUnRegisterApplication: 0 kROZResultOK\n", call.out) << call.err;
  ASSERT_TRUE(WaitForLog("clean-up: 0 application(s) registered\n")) << Log();
  ASSERT_TRUE(WaitForLog("]: done\n", 3));
}
