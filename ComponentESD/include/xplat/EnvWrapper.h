#ifndef ESD_XPLAT_ENVWRAPPER_H
#define ESD_XPLAT_ENVWRAPPER_H

#include "xplat/Env.h"

namespace esd {

// An Env that forwards every call to another Env, so that a test or a tool overrides only the
// services it wants to change (the machine root, the groups, the launcher, a failing disk) and
// leaves the rest real. The target must outlive the wrapper.
class EnvWrapper : public Env {
 public:
  explicit EnvWrapper(Env* target) : mTarget(target) {}
  ~EnvWrapper() override;

  Env* target() const { return mTarget; }

  std::string GetRootDirectory() override { return mTarget->GetRootDirectory(); }
  bool GetHomeDirectory(std::string& path) override { return mTarget->GetHomeDirectory(path); }
  bool GetEnvironmentVariable(const std::string& name, std::string& value) override {
    return mTarget->GetEnvironmentVariable(name, value);
  }

  uid_t GetEffectiveUserId() override { return mTarget->GetEffectiveUserId(); }
  bool GetSupplementaryGroups(std::vector<gid_t>& groups) override {
    return mTarget->GetSupplementaryGroups(groups);
  }
  bool GetGroupName(gid_t group, std::string& name) override {
    return mTarget->GetGroupName(group, name);
  }
  bool GetGroupId(const std::string& name, gid_t& group) override {
    return mTarget->GetGroupId(name, group);
  }
  bool IsAccessible(const std::string& path, int mode) override {
    return mTarget->IsAccessible(path, mode);
  }

  pid_t GetCurrentProcessId() override { return mTarget->GetCurrentProcessId(); }
  bool GetCurrentExecutablePath(std::string& path) override {
    return mTarget->GetCurrentExecutablePath(path);
  }
  bool ListProcessIds(std::vector<pid_t>& pids) override { return mTarget->ListProcessIds(pids); }
  bool GetProcessInfo(pid_t pid, ProcessInfo& info) override {
    return mTarget->GetProcessInfo(pid, info);
  }
  bool BringProcessToFront(pid_t pid) override { return mTarget->BringProcessToFront(pid); }
  bool StartDetachedProcess(const std::string& program, const std::vector<std::string>& arguments,
                            const EnvironmentList& environment) override {
    return mTarget->StartDetachedProcess(program, arguments, environment);
  }
  int RunShellCommand(const std::string& command, const EnvironmentList& environment) override {
    return mTarget->RunShellCommand(command, environment);
  }

  bool PostSessionBusSignal(const std::string& objectPath, const std::string& interfaceName,
                            const std::string& member,
                            const std::vector<std::string>& arguments) override {
    return mTarget->PostSessionBusSignal(objectPath, interfaceName, member, arguments);
  }

  int OpenFileAt(int folder, const std::string& name, int flags, mode_t mode) override {
    return mTarget->OpenFileAt(folder, name, flags, mode);
  }
  int WriteFile(int fd, const char* data, size_t size) override {
    return mTarget->WriteFile(fd, data, size);
  }
  int SyncFile(int fd) override { return mTarget->SyncFile(fd); }
  int RenameFile(const std::string& from, const std::string& to, RenameMode mode) override {
    return mTarget->RenameFile(from, to, mode);
  }
  int RemoveFile(const std::string& path) override { return mTarget->RemoveFile(path); }
  int ReadFile(const std::string& path, size_t limit, std::string& bytes) override {
    return mTarget->ReadFile(path, limit, bytes);
  }
  int LockFileByte(int fd, short type, off_t offset) override {
    return mTarget->LockFileByte(fd, type, offset);
  }
  bool IsFileByteLocked(int fd, short type, off_t offset) override {
    return mTarget->IsFileByteLocked(fd, type, offset);
  }

  uint64_t MonotonicMicroseconds() override { return mTarget->MonotonicMicroseconds(); }
  void SleepMicroseconds(uint64_t microseconds) override {
    mTarget->SleepMicroseconds(microseconds);
  }

  bool GetKernelRelease(std::string& release) override {
    return mTarget->GetKernelRelease(release);
  }
  boost::gregorian::date GetLocalDay() override { return mTarget->GetLocalDay(); }

 private:
  Env* mTarget;
};

}  // namespace esd

#endif
