// Starting the updater and finding it among the running processes.
#include <sys/stat.h>

#include <string>
#include <vector>

#include "xplat/ApplicationBundle.h"
#include "xplat/Env.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/SystemUtils.h"
#include "xplat/VantuUpdaterUtils.h"

namespace VantuUpdaterUtils {

namespace {

constexpr char kUpdaterPackageType[] = "APPL";
constexpr char kUpdaterSignature[] = "ROZ5";
constexpr char kUpdaterProgramName[] = "Vantu Updater";

// Recognises the installed updater among the running processes. Only the installed bundle's
// Info.plist is read: its program file is then known by device and inode, and a process counts
// when it runs that very file (or, a script, has it as its first absolute argument) as the
// calling user. A bundle of another user's making, whatever its Info.plist says, is never read.
class UpdaterRecogniser {
 public:
  // False when the installed updater is not a valid updater bundle: nothing is recognised then.
  bool Load(esd::Env* env, const std::string& installedBundle) {
    esd::ApplicationBundle bundle;
    if (!esd::ApplicationBundle::Load(installedBundle, bundle) ||
        bundle.GetPackageType() != kUpdaterPackageType ||
        bundle.GetSignature() != kUpdaterSignature)
      return false;
    struct stat program;
    if (::stat(bundle.GetExecutablePath().c_str(), &program) != 0 || !S_ISREG(program.st_mode))
      return false;
    mDevice = program.st_dev;
    mInode = program.st_ino;
    mUser = env->GetEffectiveUserId();
    return true;
  }

  bool IsUpdater(const esd::Env::ProcessInfo& process) const {
    if (process.userId != mUser) return false;
    if (process.executableDevice == mDevice && process.executableInode == mInode &&
        process.executableInode != 0)
      return true;
    // A script runs as its interpreter; the script's own path is among its arguments.
    for (size_t i = 1; i < process.arguments.size(); ++i) {
      const std::string& argument = process.arguments[i];
      if (argument.empty() || argument[0] != '/') continue;
      struct stat script;
      return ::stat(argument.c_str(), &script) == 0 && script.st_dev == mDevice &&
             script.st_ino == mInode;
    }
    return false;
  }

 private:
  dev_t mDevice = 0;
  ino_t mInode = 0;
  uid_t mUser = static_cast<uid_t>(-1);
};

std::string UpdaterProgram(const std::string& bundle) {
  std::string program = bundle;
  for (const char* element : {"Contents", "MacOS", kUpdaterProgramName})
    program = FileSystemUtils::AppendPathElement(program, element);
  return program;
}

}  // namespace

bool LaunchUpdater(EnvironmentList& params) {
  std::string bundle;
  if (!GetUpdaterLocation(bundle)) return false;
  return esd::SystemUtils::LaunchPath(bundle, params);
}

bool ForkUpdater(EnvironmentList& params, bool inBackground) {
  std::string bundle;
  if (!GetUpdaterLocation(bundle)) return false;
  esd::Env* env = esd::Env::Default();
  const std::string program = UpdaterProgram(bundle);
  if (!FileSystemUtils::DoesPathExist(program)) return false;
  // The parameters go to the updater alone, which gets none of the host's descriptors.
  if (inBackground) return env->StartDetachedProcess(program, {program}, params);
  return env->RunShellCommand(esd::SystemUtils::QuoteShellArgument(program), params) == 0;
}

bool IsUpdaterRunning(bool bringToFront) {
  esd::FSRef installed;
  std::string bundle;
  if (!GetUpdaterLocation(installed) || !GetUpdaterLocation(bundle)) return false;

  esd::Env* env = esd::Env::Default();
  UpdaterRecogniser recogniser;
  if (!recogniser.Load(env, bundle)) return false;
  esd::Env::ProcessInfo self;
  esd::Env::ProcessInfo launcher;
  if (!env->GetProcessInfo(env->GetCurrentProcessId(), self)) return false;
  // Parent 0: the caller is the first process of its namespace (a container's), which nobody
  // in sight launched, so certainly not the updater.
  if (self.parentPid > 0) {
    if (!env->GetProcessInfo(self.parentPid, launcher)) return false;
    if (recogniser.IsUpdater(launcher)) return false;
  }

  std::vector<pid_t> pids;
  if (!env->ListProcessIds(pids)) return false;
  for (pid_t pid : pids) {
    if (pid == self.pid) continue;
    esd::Env::ProcessInfo process;
    // A process that ended since the list was taken is simply no longer a candidate.
    if (!env->GetProcessInfo(pid, process)) continue;
    if (!recogniser.IsUpdater(process)) continue;
    if (bringToFront) env->BringProcessToFront(pid);
    return true;
  }
  return false;
}

}  // namespace VantuUpdaterUtils
