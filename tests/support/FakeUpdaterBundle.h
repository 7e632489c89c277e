#ifndef TESTS_SUPPORT_FAKEUPDATERBUNDLE_H
#define TESTS_SUPPORT_FAKEUPDATERBUNDLE_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace testing_support {

// What one started copy of the fake updater reported about itself.
struct FakeUpdaterReport {
  pid_t pid = 0;
  pid_t sessionId = 0;
  std::string standardInput;  // the target of its fd 0, "/dev/null" when detached
  std::vector<int> descriptors;  // open beyond the standard three
  std::map<std::string, std::string> environment;
};

// An application bundle whose program is a copy of the fake updater (tests/programs), which
// reports how it was started and keeps running until stopped. Creating the object makes this
// test process adopt orphaned descendants, so detached updaters end up as its children and are
// reaped; the destructor stops every copy that reported.
class FakeUpdaterBundle {
 public:
  struct Options {
    std::string packageType = "APPL";
    std::string signature = "ROZ5";
    std::string programName = "Vantu Updater";
    bool binaryInfoPlist = false;
  };

  // Builds the bundle at `bundlePath` (missing folders created).
  explicit FakeUpdaterBundle(const std::string& bundlePath);
  FakeUpdaterBundle(const std::string& bundlePath, const Options& options);
  ~FakeUpdaterBundle();
  FakeUpdaterBundle(const FakeUpdaterBundle&) = delete;
  FakeUpdaterBundle& operator=(const FakeUpdaterBundle&) = delete;

  // Where the library expects the updater below a machine root.
  static std::string InstalledPath(const std::string& root);

  const std::string& path() const { return mPath; }
  std::string programPath() const;

  // Waits until at least `count` copies have reported; returns every report, oldest first.
  std::vector<FakeUpdaterReport> WaitForReports(size_t count, int timeoutMs = 10000) const;
  // Every report so far.
  std::vector<FakeUpdaterReport> Reports() const;

  // The exit status of the child that copy `updater` started (FAKE_UPDATER_CHILD); -2 when it
  // did not arrive in time.
  int WaitForChildStatus(pid_t updater, int timeoutMs = 10000) const;

  // Tells every copy to end and waits until those that reported are gone. New copies started
  // afterwards run again until the next Stop.
  bool Stop(int timeoutMs = 10000);

 private:
  std::string mPath;
  std::string mContents;
};

// Makes this process the reaper of its orphaned descendants (idempotent).
void AdoptOrphanedDescendants();

// Waits until `pid` has ended; reaps it when it is this process's child. False on time-out.
bool WaitForProcessEnd(pid_t pid, int timeoutMs = 10000);

// The probe program: `UpdaterProbe ROOT` exits 1 when it sees the updater running, else 0.
std::string UpdaterProbeProgram();

}  // namespace testing_support

#endif
