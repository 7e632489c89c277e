#ifndef TESTS_SUPPORT_UPDATERSANDBOX_H
#define TESTS_SUPPORT_UPDATERSANDBOX_H

#include <memory>
#include <string>
#include <vector>

#include "support/FakeUpdaterBundle.h"
#include "support/TestEnv.h"
#include "xplat/ScopedEnv.h"

namespace testing_support {

// A private machine for end-to-end tests of the exported functions, installed as the library's
// Env while it lives (a TestEnv):
//   - a relocated machine root and a temporary home; the folder variables read as unset except
//     XDG_RUNTIME_DIR and TMPDIR, which point into the sandbox so the workflow markers stay
//     inside it;
//   - substituted groups and an optional fixed "today", set on env();
//   - a process table of this process's own descendants only, so updaters started by other
//     tests running at the same time are invisible;
//   - optionally the fake updater bundle at the updater's installed location. Its copies
//     report each launch with its environment; they end right after reporting unless
//     KeepUpdaterRunning(true) was called before they started.
// The folder is per process and emptied by each new sandbox, so that the preferences singleton,
// which keeps the path it was first built with, stays valid across the tests of one executable.
// The per-user data folder exists from the start for the same reason.
class UpdaterSandbox {
 public:
  UpdaterSandbox();
  // Stops the updater copies still running.
  ~UpdaterSandbox();
  UpdaterSandbox(const UpdaterSandbox&) = delete;
  UpdaterSandbox& operator=(const UpdaterSandbox&) = delete;

  TestEnv& env() { return mEnv; }
  const std::string& root() const { return mRoot; }
  const std::string& home() const { return mHome; }
  const std::string& runtimeDir() const { return mRuntimeDir; }

  // Where the library keeps its files in this sandbox.
  std::string AllUsersDataDir() const;   // root/var/lib/Vantu/Updater5
  std::string UserDataDir() const;       // home/.local/share/Vantu/Updater5
  std::string RegistryFile() const;      // VantuESDGlobalApps.xml in AllUsersDataDir()
  std::string MissingCompsFile() const;  // VantuMissingComps.xml in UserDataDir()
  std::string CacheDataDir() const;      // UserDataDir()/Data
  std::string PolicyFile() const;        // root/etc/com.vantu.VantuUpdater.Admin.plist
  std::string MarkerFile(const std::string& appID) const;
  std::string UpdaterBundle() const;

  // Builds the fake updater bundle at the updater's installed location.
  void InstallUpdater();
  // Stops its copies and removes the bundle: the updater is no longer installed.
  void RemoveUpdater();
  // Whether copies started from now on keep running (until StopUpdaters) or end at once.
  void KeepUpdaterRunning(bool keep);
  // Ends every running copy; false when one did not end in time.
  bool StopUpdaters();
  // Starts a copy directly (not through the library) that keeps running, and waits until the
  // process table shows it. Later copies end at once again.
  bool StartRunningUpdater();

  // Every launch of the updater so far, oldest first (empty without a bundle).
  std::vector<FakeUpdaterReport> Launches() const;
  // Waits until at least `count` launches are recorded; returns them all.
  std::vector<FakeUpdaterReport> WaitForLaunches(size_t count, int timeoutMs = 10000) const;
  // Waits until no copy of the updater shows in the process table; false on time-out. A copy that
  // ends at once still runs for a moment after its report (longer under the sanitizers, whose
  // checks run at exit), and a request made meanwhile rightly finds the updater running.
  bool WaitUntilUpdatersEnd(int timeoutMs = 10000);

  // Every file and folder below the sandbox, regular files with a digest of their contents, for
  // "nothing was created or changed" checks.
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
