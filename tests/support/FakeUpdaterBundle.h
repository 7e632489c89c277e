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

}  // namespace testing_support

#endif
