#include "support/TestEnv.h"

#include <unistd.h>

#include <algorithm>

namespace testing_support {

// Far above the ids of any real group, so a made-up group never names a real one.
static constexpr gid_t kFirstFakeGroup = 3000000;

TestEnv::TestEnv() : esd::EnvWrapper(esd::Env::Platform()) {
  for (const char* name :
       {"XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR", "TMPDIR"})
    mViewedNames.insert(name);
}

std::string TestEnv::GetRootDirectory() { return mRoot ? *mRoot : EnvWrapper::GetRootDirectory(); }

bool TestEnv::GetHomeDirectory(std::string& path) {
  if (!mHome) return EnvWrapper::GetHomeDirectory(path);
  if (mHome->empty()) return false;
  path = *mHome;
  return true;
}

bool TestEnv::GetEnvironmentVariable(const std::string& name, std::string& value) {
  if (mViewedNames.count(name) == 0) return EnvWrapper::GetEnvironmentVariable(name, value);
  auto found = mVariables.find(name);
  if (found == mVariables.end()) return false;
  value = found->second;
  return true;
}

uid_t TestEnv::GetEffectiveUserId() { return mUser ? *mUser : EnvWrapper::GetEffectiveUserId(); }

bool TestEnv::GetSupplementaryGroups(std::vector<gid_t>& groups) {
  if (!mGroups) return EnvWrapper::GetSupplementaryGroups(groups);
  groups.clear();
  for (size_t i = 0; i < mGroups->size(); ++i)
    groups.push_back(kFirstFakeGroup + static_cast<gid_t>(i));
  return true;
}

bool TestEnv::GetGroupName(gid_t group, std::string& name) {
  if (!mGroups) return EnvWrapper::GetGroupName(group, name);
  const size_t index = group - kFirstFakeGroup;
  if (group < kFirstFakeGroup || index >= mGroups->size()) return false;
  name = (*mGroups)[index];
  return true;
}

bool TestEnv::GetGroupId(const std::string& name, gid_t& group) {
  if (!mGroups) return EnvWrapper::GetGroupId(name, group);
  const auto found = std::find(mGroups->begin(), mGroups->end(), name);
  group = kFirstFakeGroup + static_cast<gid_t>(found - mGroups->begin());
  return found != mGroups->end();
}

bool TestEnv::IsAccessible(const std::string& path, int mode) {
  return mDenied.count(path) == 0 && EnvWrapper::IsAccessible(path, mode);
}

bool TestEnv::ListProcessIds(std::vector<pid_t>& pids) {
  if (!EnvWrapper::ListProcessIds(pids)) return false;
  if (!mOwnProcessesOnly) return true;
  // This process's ancestors and descendants, through the parent links (0 ends a chain).
  const auto parent = [this](pid_t pid) {
    ProcessInfo info;
    return EnvWrapper::GetProcessInfo(pid, info) ? info.parentPid : 0;
  };
  const pid_t self = getpid();
  std::set<pid_t> ancestors;
  for (pid_t pid = self; pid > 0 && ancestors.size() < 256; pid = parent(pid)) ancestors.insert(pid);
  std::vector<pid_t> own;
  for (pid_t pid : pids) {
    pid_t at = pid;
    while (at > 1 && at != self) at = parent(at);
    if (at == self || ancestors.count(pid)) own.push_back(pid);
  }
  pids = own;
  return true;
}

bool TestEnv::BringProcessToFront(pid_t pid) {
  mBroughtToFront.push_back(pid);
  return EnvWrapper::BringProcessToFront(pid);
}

bool TestEnv::StartDetachedProcess(const std::string& program,
                                   const std::vector<std::string>& arguments,
                                   const EnvironmentList& environment) {
  if (!mRecording) return EnvWrapper::StartDetachedProcess(program, arguments, environment);
  mLaunches.push_back({program, arguments, environment});
  return mStartResult;
}

int TestEnv::RunShellCommand(const std::string& command, const EnvironmentList& environment) {
  mShellCommands.push_back(command);
  return mRecording ? mShellResult : EnvWrapper::RunShellCommand(command, environment);
}

bool TestEnv::GetKernelRelease(std::string& release) {
  if (!mKernelRelease) return EnvWrapper::GetKernelRelease(release);
  if (!*mKernelRelease) return false;
  release = **mKernelRelease;
  return true;
}

boost::gregorian::date TestEnv::GetLocalDay() {
  return mToday ? *mToday : EnvWrapper::GetLocalDay();
}

}  // namespace testing_support
