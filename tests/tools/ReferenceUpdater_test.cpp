// The reference updater at the other end of the library's exchanges, end to end: rozctl makes
// the library calls on a --root sandbox in which the built updater bundle is installed, and the
// library starts or signals the real updater, which answers through the shared files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/date_time/gregorian/gregorian.hpp>
#include <chrono>
#include <filesystem>
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
    std::filesystem::create_directories(mRoot.path() + kBundleInOpt);
    std::filesystem::copy(VANTU_UPDATER_BUNDLE, mRoot.path() + kBundleInOpt,
                          std::filesystem::copy_options::recursive);
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
    for (int wait = 0; wait < 500; ++wait) {
      const std::string log = FileSystemUtils::DoesPathExist(UserData() + "/roz.log") ? Log() : "";
      size_t found = 0;
      for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
        ++found;
      if (found >= times) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  TempDir mRoot;
  RunOptions mAdmin;
};

}  // namespace

// Each call in turn, waiting for the updater each starts to finish: the first availability
// question starts it and it answers from its catalogue, the second question reads the answer; a
// plug-in action is logged for the registered application; a check records today's date and
// consumes the launch request; the last unregistration starts a clean-up.
TEST_F(ReferenceUpdaterTest, AnswersActsChecksAndCleansUp) {
  const std::string today =
      boost::gregorian::to_iso_extended_string(boost::gregorian::day_clock::local_day());
  const std::string answered = "ROZIsUpdateAvailable: 0 kROZResultOK\nupdate available: ";
  const struct {
    std::vector<std::string> args;
    std::string out;
    std::vector<std::string> logged;  // empty: the call starts no updater
  } steps[] = {
      {{"available", "--register", "com.example.A", "App A", "/opt/a", "7"},
       "ROZIsUpdateAvailable: 8 kROZResultAnswerPending\n",
       {"availability for com.example.A: update 2.0 available"}},
      {{"available", "com.example.A", "App A", "/opt/a", "7"}, answered + "yes\n", {}},
      {{"available", "--register", "com.example.B", "App B", "/opt/b", "7"},
       "ROZIsUpdateAvailable: 8 kROZResultAnswerPending\n",
       {"availability for com.example.B: no update"}},
      {{"available", "com.example.B", "App B", "/opt/b", "7"}, answered + "no\n", {}},
      {{"unregister", "com.example.B"}, "ROZUnRegisterApplication: 0 kROZResultOK\n", {}},
      {{"plugin-action", "com.example.A"},
       "ROZDoPluginAction: 0 kROZResultOK\n",
       {"plug-in action for com.example.A: would run the action prepared for App A in /opt/a\n"}},
      {{"trigger", "--app", "com.example.A", "App A", "/opt/a"},
       "ROZTriggerUpdateCheck: 0 kROZResultOK\n",
       {"manual check started by com.example.A, Launch preference \"Manual\"\n",
        "manual check: com.example.A: update 2.0 available\n",
        "manual check: recorded LastDateCheck " + today + "\n"}},
      {{"unregister", "com.example.A"},
       "ROZUnRegisterApplication: 0 kROZResultOK\n",
       {"clean-up: 0 application(s) registered\n"}},
  };
  size_t runs = 0;
  for (const auto& step : steps) {
    const ProgramResult result = Rozctl(step.args);
    EXPECT_THAT(result.out, HasSubstr(step.out)) << step.args[0] << ": " << result.err;
    if (step.logged.empty()) continue;
    ASSERT_TRUE(WaitForLog("]: done\n", ++runs)) << Log();
    for (const std::string& line : step.logged) EXPECT_THAT(Log(), HasSubstr(line));
  }
  EXPECT_THAT(Rozctl({"prefs"}).out,
              HasSubstr("LastDateCheck = " + today + "\nLaunch = \nIsFirstRun = 0\n"));
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
