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

// The group "sudo" of the host's group database (27 without one).
gid_t AdministratorsGroup();

// The cast; none needs an entry in the host's user database.
const UserIdentity& RootUser();        // 0/0, supplementary root
const UserIdentity& AdministratorA();  // 1000/1000, supplementary AdministratorsGroup()
const UserIdentity& AdministratorB();  // 1001/1001, likewise
const UserIdentity& OrdinaryUser();    // 1002/1002, no supplementary group
const UserIdentity& Attacker();        // 65534/65534, no supplementary group

// mkdir (or the folder there), then chown and chmod: the umask must not decide the mode.
bool MakeFolder(const std::string& path, uid_t uid, gid_t gid, mode_t mode, std::string& why);

// Forks a child that drops to `who` as setpriv does (groups, then group, then user; real,
// effective and saved alike) and runs `body`; 100 when the ids could not be taken. RunAs waits
// for its exit status, StartAs returns the pid for WaitChild.
int RunAs(const UserIdentity& who, const std::function<int()>& body);
pid_t StartAs(const UserIdentity& who, const std::function<int()>& body);

// A machine of its own for several users: a private mount namespace, an empty /dev/shm and a
// tmpfs (0755) on the caller's folder holding the relocated machine root (root/, with
// root/var/lib/Vantu root:root 0755) and a home and runtime folder (0700) for each of the cast.
class MultiUserMachine {
 public:
  // From a single-threaded root process (a freshly forked child); false with `why` filled.
  bool Enter(const std::string& folder, std::string& why);

  const std::string& base() const { return mBase; }
  std::string Root() const { return mBase + "/root"; }
  std::string AllUsersDataDir() const { return Root() + "/var/lib/Vantu/Updater5"; }
  std::string HomeOf(const UserIdentity& who) const;
  std::string RuntimeDirOf(const UserIdentity& who) const;

  // AllUsersDataDir() as installed: root and `group`, mode 2775.
  bool InstallAllUsersFolder(gid_t group, std::string& why) const;

  // `body` as `who` with the library's folders at `who`'s own on this machine; launches are
  // recorded, not run. StartHost returns the pid, RunHost the exit status.
  pid_t StartHost(const UserIdentity& who, const std::function<int()>& body) const;
  int RunHost(const UserIdentity& who, const std::function<int()>& body) const;

 private:
  std::string mBase;
};

constexpr int kMachineUnavailable = 77;

// Runs `body` as root in a child on a fresh MultiUserMachine in a temporary folder: its exit
// status, or kMachineUnavailable (the reason on stderr).
int RunOnMachine(const std::function<int(const MultiUserMachine&)>& body);

}  // namespace testing_support

#endif
