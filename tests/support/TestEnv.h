#ifndef TESTS_SUPPORT_TESTENV_H
#define TESTS_SUPPORT_TESTENV_H

#include <sys/types.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <boost/date_time/gregorian/gregorian_types.hpp>

#include "xplat/EnvWrapper.h"

namespace testing_support {

// A real Env with the knobs a test turns, installed with esd::ScopedEnv; everything else is the
// real system. The folder variables (XDG_*_HOME, XDG_RUNTIME_DIR, TMPDIR and any name given to
// SetVariable) are unset unless set here, whatever the test runner's environment holds. Groups
// set by name get made-up ids. Launches and shell commands are recorded (and, once
// RecordLaunches was called, answered without running anything).
class TestEnv : public esd::EnvWrapper {
 public:
  struct Launch {
    std::string program;
    std::vector<std::string> arguments;
    EnvironmentList environment;
  };

  TestEnv();

  void SetRoot(const std::string& root) { mRoot = root; }
  // Empty: no home folder can be found.
  void SetHome(const std::string& home) { mHome = home; }
  void SetVariable(const std::string& name, const std::string& value) {
    mViewedNames.insert(name);
    mVariables[name] = value;
  }
  void SetGroups(const std::vector<std::string>& names) { mGroups = names; }
  void SetEffectiveUserId(uid_t user) { mUser = user; }
  // nullopt: the kernel release cannot be read.
  void SetKernelRelease(const std::optional<std::string>& release) {
    mKernelRelease.emplace(release);
  }
  void SetToday(const boost::gregorian::date& day) { mToday = day; }
  void DenyAccess(const std::string& path) { mDenied.insert(path); }
  void ShowOnlyOwnProcesses() { mOwnProcessesOnly = true; }

  void RecordLaunches(bool startResult, int shellResult) {
    mRecording = true;
    mStartResult = startResult;
    mShellResult = shellResult;
  }

  const std::vector<Launch>& Launches() const { return mLaunches; }  // those not run
  // Every shell command, also those run for real.
  const std::vector<std::string>& ShellCommands() const { return mShellCommands; }
  const std::vector<pid_t>& BroughtToFront() const { return mBroughtToFront; }

  // --- Env ---
  std::string GetRootDirectory() override;
  bool GetHomeDirectory(std::string& path) override;
  bool GetEnvironmentVariable(const std::string& name, std::string& value) override;
  uid_t GetEffectiveUserId() override;
  bool GetSupplementaryGroups(std::vector<gid_t>& groups) override;
  bool GetGroupName(gid_t group, std::string& name) override;
  bool GetGroupId(const std::string& name, gid_t& group) override;
  bool IsAccessible(const std::string& path, int mode) override;
  bool ListProcessIds(std::vector<pid_t>& pids) override;
  bool BringProcessToFront(pid_t pid) override;
  bool StartDetachedProcess(const std::string& program, const std::vector<std::string>& arguments,
                            const EnvironmentList& environment) override;
  int RunShellCommand(const std::string& command, const EnvironmentList& environment) override;
  bool GetKernelRelease(std::string& release) override;
  boost::gregorian::date GetLocalDay() override;

 private:
  std::optional<std::string> mRoot;
  std::optional<std::string> mHome;
  std::set<std::string> mViewedNames;
  std::map<std::string, std::string> mVariables;
  std::optional<std::vector<std::string>> mGroups;
  std::optional<uid_t> mUser;
  std::optional<std::optional<std::string>> mKernelRelease;  // unset: the real one
  std::optional<boost::gregorian::date> mToday;
  std::set<std::string> mDenied;
  bool mOwnProcessesOnly = false;
  bool mRecording = false;
  bool mStartResult = false;
  int mShellResult = 0;
  std::vector<Launch> mLaunches;
  std::vector<std::string> mShellCommands;
  std::vector<pid_t> mBroughtToFront;
};

}  // namespace testing_support

#endif
