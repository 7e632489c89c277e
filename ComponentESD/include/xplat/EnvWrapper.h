#ifndef ESD_XPLAT_ENVWRAPPER_H
#define ESD_XPLAT_ENVWRAPPER_H

#include "xplat/Env.h"

namespace esd {

// An Env that forwards every call to another Env, so that a test or a tool overrides only the
// services it wants to change (the machine root, the groups, the launcher) and leaves the rest
// real. The target must outlive the wrapper.
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

  bool GetKernelRelease(std::string& release) override {
    return mTarget->GetKernelRelease(release);
  }
  boost::gregorian::date GetLocalDay() override { return mTarget->GetLocalDay(); }

 private:
  Env* mTarget;
};

}  // namespace esd

#endif
