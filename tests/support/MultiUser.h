#ifndef TESTS_SUPPORT_MULTIUSER_H
#define TESTS_SUPPORT_MULTIUSER_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace testing_support {

// A real identity a root test run can take: user, primary group, supplementary groups.
struct UserIdentity {
  uid_t uid;
  gid_t gid;
  std::vector<gid_t> groups;
};

// The administrators' group of a Debian machine, "sudo", looked up by name (27 when the group
// database has no such entry). Nothing is added to the host's group database.
gid_t AdministratorsGroup();

// The cast of multi-user tests. Ids need no entry in the host's user database.
const UserIdentity& RootUser();        // 0, group 0, supplementary root
const UserIdentity& AdministratorA();  // 1000, group 1000, supplementary AdministratorsGroup()
const UserIdentity& AdministratorB();  // 1001, likewise
const UserIdentity& OrdinaryUser();    // 1002, group 1002, no supplementary group
const UserIdentity& Attacker();        // 65534 nobody / nogroup, no supplementary group

// Whether RunAs can take other identities (the test run is root).
bool CanRunAsOtherUsers();

// Runs `body` in a forked child that has dropped to `who` the way setpriv does (supplementary
// groups, then group, then user, real/effective/saved alike) and returns its exit status (the
// body's return value, -1 when it died of a signal). 100 when the ids could not be taken.
int RunAs(const UserIdentity& who, const std::function<int()>& body);

// The same without waiting: the child's process id, for WaitChild (support/ChildProcess.h).
pid_t StartAs(const UserIdentity& who, const std::function<int()>& body);

// A machine of its own for several users, set up in the calling process by Enter: a private
// mount namespace, an empty /dev/shm and a tmpfs sandbox (0755) mounted on an existing folder
// given by the caller. The sandbox holds the relocated machine root (root/, with root/var/lib/
// Vantu root:root 0755) and, for each identity above, a home and a runtime folder owned by that
// user, mode 0700. Everything vanishes with the namespace's last process.
class MultiUserMachine {
 public:
  // Must be called by a single-threaded process running as root (a freshly forked child).
  // False with `why` filled when the mounts or folders cannot be made.
  bool Enter(const std::string& folder, std::string& why);

  const std::string& base() const { return mBase; }
  std::string Root() const { return mBase + "/root"; }
  std::string AllUsersDataDir() const { return Root() + "/var/lib/Vantu/Updater5"; }
  std::string HomeOf(const UserIdentity& who) const;
  std::string RuntimeDirOf(const UserIdentity& who) const;

  // Creates AllUsersDataDir() as installed: root and the given group, mode 2775.
  bool InstallAllUsersFolder(gid_t group, std::string& why) const;

  // Starts `body` as `who` (StartAs) with the library's folders at `who`'s own on this machine:
  // the machine root, the user's home and runtime folder; launches are recorded, not run.
  pid_t StartHost(const UserIdentity& who, const std::function<int()>& body) const;
  // The same, waited for: the body's exit status.
  int RunHost(const UserIdentity& who, const std::function<int()>& body) const;

 private:
  std::string mBase;
};

// Exit status of RunOnMachine when no machine could be set up (not root, no namespaces).
constexpr int kMachineUnavailable = 77;

// Forks a child that enters a fresh MultiUserMachine on a temporary folder and runs `body` there
// (still as root; switch with RunAs). Returns the body's exit status, kMachineUnavailable when
// the machine could not be made (the reason goes to stderr).
int RunOnMachine(const std::function<int(const MultiUserMachine&)>& body);

}  // namespace testing_support

#endif
