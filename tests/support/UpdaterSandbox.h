#ifndef TESTS_SUPPORT_UPDATERSANDBOX_H
#define TESTS_SUPPORT_UPDATERSANDBOX_H

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/TestEnv.h"
#include "xplat/ScopedEnv.h"

namespace testing_support {

// What one started copy of the fake updater reported about itself.
struct FakeUpdaterReport {
  pid_t pid = 0;
  pid_t sessionId = 0;
  std::string standardInput;  // the target of its fd 0, "/dev/null" when detached
  std::vector<int> descriptors;  // open beyond the standard three
  std::map<std::string, std::string> environment;
};

// An application bundle whose program is a copy of the fake updater (tests/programs). This
// process becomes the reaper of orphaned descendants, so detached copies are reaped; the
// destructor stops every copy that reported.
class FakeUpdaterBundle {
 public:
  struct Options {
    std::string programName = "Vantu Updater";
    bool binaryInfoPlist = false;
  };

  explicit FakeUpdaterBundle(const std::string& bundlePath);
  FakeUpdaterBundle(const std::string& bundlePath, const Options& options);
  ~FakeUpdaterBundle();
  FakeUpdaterBundle(const FakeUpdaterBundle&) = delete;
  FakeUpdaterBundle& operator=(const FakeUpdaterBundle&) = delete;

  // The updater's installed location below a machine root.
  static std::string InstalledPath(const std::string& root);

  const std::string& path() const { return mPath; }
  std::string programPath() const;

  // Every report so far, oldest first; WaitForReports first waits for at least `count`.
  std::vector<FakeUpdaterReport> Reports() const;
  std::vector<FakeUpdaterReport> WaitForReports(size_t count, int timeoutMs = 10000) const;

  // The exit status of the child copy `updater` started (FAKE_UPDATER_CHILD); -2 on time-out.
  int WaitForChildStatus(pid_t updater, int timeoutMs = 10000) const;

  // Ends every copy and waits for those that reported; later copies run until the next Stop.
  bool Stop(int timeoutMs = 10000);

 private:
  std::string mPath;
  std::string mContents;
};

// Waits until `pid` has ended, reaping it when it is a child; false on time-out.
bool WaitForProcessEnd(pid_t pid, int timeoutMs = 10000);

// `UpdaterProbe ROOT` exits 1 when it sees the updater running, else 0.
std::string UpdaterProbeProgram();

// A private machine for end-to-end tests, installed as the library's Env while it lives: a
// relocated root, a temporary home, XDG_RUNTIME_DIR and TMPDIR inside the sandbox (the other
// folder variables unset), a process table of this process's descendants only, and optionally
// the fake updater at its installed location, whose copies end right after reporting unless
// KeepUpdaterRunning(true). The folder is per process and emptied by each new sandbox, so the
// preferences singleton, which keeps the path it was first built with, stays valid; for the
// same reason the per-user data folder exists from the start.
class UpdaterSandbox {
 public:
  UpdaterSandbox();
  ~UpdaterSandbox();
  UpdaterSandbox(const UpdaterSandbox&) = delete;
  UpdaterSandbox& operator=(const UpdaterSandbox&) = delete;

  TestEnv& env() { return mEnv; }
  const std::string& root() const { return mRoot; }
  const std::string& home() const { return mHome; }
  const std::string& runtimeDir() const { return mRuntimeDir; }

  std::string AllUsersDataDir() const { return mRoot + "/var/lib/Vantu/Updater5"; }
  std::string UserDataDir() const { return mHome + "/.local/share/Vantu/Updater5"; }
  std::string RegistryFile() const { return AllUsersDataDir() + "/VantuESDGlobalApps.xml"; }
  std::string MissingCompsFile() const { return UserDataDir() + "/VantuMissingComps.xml"; }
  std::string CacheDataDir() const { return UserDataDir() + "/Data"; }
  std::string PolicyFile() const { return mRoot + "/etc/com.vantu.VantuUpdater.Admin.plist"; }
  std::string MarkerFile(const std::string& appID) const {
    return mRuntimeDir + "/Updater5/locked/lock." + appID;
  }
  std::string UpdaterBundle() const { return FakeUpdaterBundle::InstalledPath(mRoot); }

  void InstallUpdater();
  void RemoveUpdater();  // stops its copies too
  void KeepUpdaterRunning(bool keep);  // for copies started from now on
  // Starts a copy that keeps running (not through the library) and waits until the process
  // table shows it.
  bool StartRunningUpdater();

  // The updater's launches so far, oldest first; WaitForLaunches first waits for `count`.
  std::vector<FakeUpdaterReport> Launches() const;
  std::vector<FakeUpdaterReport> WaitForLaunches(size_t count, int timeoutMs = 10000) const;
  // Until no copy shows in the process table. A copy that ends at once still runs for a moment
  // after its report, and a request made meanwhile rightly finds the updater running.
  bool WaitUntilUpdatersEnd(int timeoutMs = 10000);

  // Every path below the sandbox, files with a digest of their contents.
  std::vector<std::string> Snapshot() const;

 private:
  bool IsUpdaterRunning();

  std::string mBase;
  std::string mRoot;
  std::string mHome;
  std::string mRuntimeDir;
  TestEnv mEnv;
  esd::ScopedEnv mScope;
  std::unique_ptr<FakeUpdaterBundle> mUpdater;
};

}  // namespace testing_support

#endif
