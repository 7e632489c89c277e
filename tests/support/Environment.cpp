// What TempDir.h and TestEnv.h declare: folders, files, lock files, private mounts, the
// test's Env.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/ResourceLocker.h"

namespace fs = std::filesystem;

namespace testing_support {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/vantu-test-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
  mPath = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  // Tests may leave read-only folders behind; make them removable first.
  for (auto it = fs::recursive_directory_iterator(mPath, ignored);
       it != fs::recursive_directory_iterator(); it.increment(ignored)) {
    if (it->is_directory(ignored) && !it->is_symlink(ignored))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
  }
  fs::permissions(mPath, fs::perms::owner_all, fs::perm_options::add, ignored);
  // A detached updater started by a test's last call may still write its report while the
  // folder goes, which makes one pass fail on a folder that is no longer empty.
  for (int attempt = 0; attempt < 50 && fs::exists(mPath, ignored); ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    fs::remove_all(mPath, ignored);
  }
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

FileStamp StampOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return {};
  return {info.st_ino, info.st_mtim.tv_sec * 1000000000LL + info.st_mtim.tv_nsec};
}

// ---- Lock files

LockFileGuard::LockFileGuard(const std::string& resourceName)
    : mPath(LockFilePath(resourceName)) {}

LockFileGuard::~LockFileGuard() {
  if (!mPath.empty()) ::unlink(mPath.c_str());
}

std::string UniqueResourceName(const std::string& tag) {
  static std::atomic<unsigned> counter{0};
  return "/tmp/esd-lock-test/" + std::to_string(::getpid()) + "-" + std::to_string(++counter) +
         "/" + tag;
}

std::string LockFilePath(const std::string& resourceName) {
  std::string path;
  return esd::ResourceLocker::GetLockFilePath(resourceName, path, false) ? path : std::string();
}

bool LockIsHeld(const std::string& resourceName, off_t byte) {
  const int fd = ::open(LockFilePath(resourceName).c_str(),
                        O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return false;
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  range.l_start = byte;
  range.l_len = 1;
  const bool held = ::fcntl(fd, F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
  ::close(fd);
  return held;
}

// ---- Private mounts

namespace {

// Fills `why` from errno and fails.
bool Fail(std::string& why, const std::string& what) {
  why = what + ": " + std::strerror(errno);
  return false;
}

bool WriteProcFile(const std::string& path, const std::string& text) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return ok;
}

}  // namespace

bool EnterPrivateMountNamespace(std::string& why) {
  if (::unshare(CLONE_NEWNS) != 0) {
    // A user namespace in which the caller keeps its ids but may mount.
    const std::string uid = std::to_string(::geteuid()), gid = std::to_string(::getegid());
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return Fail(why, "unshare");
    if (!WriteProcFile("/proc/self/uid_map", uid + " " + uid + " 1\n") ||
        !WriteProcFile("/proc/self/setgroups", "deny") ||
        !WriteProcFile("/proc/self/gid_map", gid + " " + gid + " 1\n"))
      return Fail(why, "user namespace id maps");
  }
  // Otherwise mounts made here would propagate back to the shared namespace.
  if (::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0)
    return Fail(why, "making / private");
  return true;
}

bool MountTmpfs(const std::string& folder, const std::string& options, std::string& why) {
  if (::mount("tmpfs", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0)
    return Fail(why, "mount tmpfs " + options + " on " + folder);
  return true;
}

bool MountReadOnly(const std::string& folder, std::string& why) {
  if (::mount(folder.c_str(), folder.c_str(), "none", MS_BIND | MS_REC, nullptr) != 0 ||
      ::mount("none", folder.c_str(), "none", MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
    return Fail(why, "read-only bind mount " + folder);
  return true;
}

bool UsePrivateSemaphores(std::string& why) { return MountTmpfs("/dev/shm", "mode=1777", why); }

// ---- The test's Env

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
