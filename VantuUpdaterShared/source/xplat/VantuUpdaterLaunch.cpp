// Starting the updater and finding it among the running processes.
#include <map>
#include <set>
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

// Remembers the variables a launch changes and puts them back when it goes out of scope, in
// the order they were first changed: the old value, or unset when there was none.
class EnvironmentRestorer {
 public:
  explicit EnvironmentRestorer(esd::Env* env) : mEnv(env) {}
  ~EnvironmentRestorer() {
    for (const Saved& saved : mSaved) {
      if (saved.wasSet)
        mEnv->SetEnvironmentVariable(saved.name, saved.value);
      else
        mEnv->UnsetEnvironmentVariable(saved.name);
    }
  }
  EnvironmentRestorer(const EnvironmentRestorer&) = delete;
  EnvironmentRestorer& operator=(const EnvironmentRestorer&) = delete;

  // Only a name's first change is remembered, so a name listed twice still ends at the value
  // it had before the launch.
  void Set(const std::string& name, const std::string& value) {
    if (mNames.insert(name).second) {
      Saved saved{name, std::string(), false};
      saved.wasSet = mEnv->GetEnvironmentVariable(name, saved.value);
      mSaved.push_back(saved);
    }
    mEnv->SetEnvironmentVariable(name, value);
  }

 private:
  struct Saved {
    std::string name;
    std::string value;
    bool wasSet;
  };
  esd::Env* mEnv;
  std::set<std::string> mNames;
  std::vector<Saved> mSaved;
};

// Recognises updater processes by the Info.plist of the bundle their program lies in. Bundles
// are read once per walk.
class UpdaterRecogniser {
 public:
  bool IsUpdater(const esd::Env::ProcessInfo& process) {
    std::string bundle;
    if (!esd::ApplicationBundle::FindBundleOfProgram(process.executablePath, bundle)) {
      // A script runs as its interpreter; the script's own path is among its arguments.
      const std::string* script = nullptr;
      for (size_t i = 1; i < process.arguments.size() && !script; ++i) {
        if (!process.arguments[i].empty() && process.arguments[i][0] == '/')
          script = &process.arguments[i];
      }
      if (!script || !esd::ApplicationBundle::FindBundleOfProgram(*script, bundle)) return false;
    }
    auto known = mBundles.find(bundle);
    if (known == mBundles.end()) known = mBundles.emplace(bundle, IsUpdaterBundle(bundle)).first;
    return known->second;
  }

 private:
  static bool IsUpdaterBundle(const std::string& path) {
    esd::ApplicationBundle bundle;
    return esd::ApplicationBundle::Load(path, bundle) &&
           bundle.GetPackageType() == kUpdaterPackageType &&
           bundle.GetSignature() == kUpdaterSignature;
  }

  std::map<std::string, bool> mBundles;
};

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
  EnvironmentRestorer restorer(env);
  for (const auto& [name, value] : params) restorer.Set(name, value);

  std::string program = bundle;
  for (const char* element : {"Contents", "MacOS", kUpdaterProgramName})
    program = FileSystemUtils::AppendPathElement(program, element);
  if (!FileSystemUtils::DoesPathExist(program)) return false;
  std::string command = esd::SystemUtils::QuoteShellArgument(program);
  if (inBackground) command += " &";
  return env->RunShellCommand(command) == 0;
}

bool IsUpdaterRunning(bool bringToFront) {
  esd::FSRef installed;
  if (!GetUpdaterLocation(installed)) return false;

  esd::Env* env = esd::Env::Default();
  UpdaterRecogniser recogniser;
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
