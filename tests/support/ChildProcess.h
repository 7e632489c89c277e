#ifndef TESTS_SUPPORT_CHILDPROCESS_H
#define TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace testing_support {

// Runs `body` in a forked child that leaves with _exit(body's return value; 99 on an exception),
// so it never runs the parent's atexit handlers or GoogleTest's teardown.
pid_t StartChild(const std::function<int()>& body);

// Waits for the child: its exit status, or -1 when it did not exit normally.
int WaitChild(pid_t pid);

// Whether `done` came true within timeoutMs, looking every stepMicros.
bool WaitUntil(const std::function<bool()>& done, int timeoutMs, int stepMicros = 3000);

// A one-shot signal from one process to another ("I hold the lock now").
class Pipe {
 public:
  Pipe();
  ~Pipe();
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  void Signal();
  // True when the signal arrived within timeoutMs.
  bool Wait(int timeoutMs = 10000);

 private:
  int mFds[2];
};

// nobody / nogroup, whom a root test run drops to.
constexpr uid_t kUnprivilegedUid = 65534;
constexpr gid_t kUnprivilegedGid = 65534;

// Runs `body` in a forked child without privileges and returns its exit status: under root as
// kUnprivilegedUid/Gid without supplementary groups (100 when the ids could not be taken),
// otherwise as the caller. Files the body must reach need permissions for that user.
int RunUnprivileged(const std::function<int()>& body);

struct ProgramResult {
  int exitStatus = -1;  // -1 when it did not exit normally or did not end in time
  std::string out;
  std::string err;
};

struct RunOptions {
  // Changes to this process's environment for the program.
  std::map<std::string, std::string> setVariables;
  std::vector<std::string> unsetVariables;
  // Supplementary groups: inherited, {0} (an administrator for the library) or none. Needs root.
  enum class Groups { kInherited, kAdministrator, kNone };
  Groups groups = Groups::kInherited;
  int timeoutMs = 60000;  // then it is killed
};

// Runs argv[0] (a path) with standard input from /dev/null and collects both output streams.
ProgramResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options = {});

// Whether the test run is root, the only one who may choose RunOptions::groups or run as other
// users.
bool RunsAsRoot();

// A dbus-daemon of the test's own on a socket in a temporary folder; DBUS_SESSION_BUS_ADDRESS
// points at it while the object lives, and is unset after. Throws std::runtime_error when it
// cannot start.
class PrivateSessionBus {
 public:
  PrivateSessionBus();
  ~PrivateSessionBus();
  PrivateSessionBus(const PrivateSessionBus&) = delete;
  PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

 private:
  TempDir mTemp;
  pid_t mDaemon = -1;
  std::string mAddress;
};

}  // namespace testing_support

#endif
