#include "support/MultiUser.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "support/ChildProcess.h"
#include "support/PrivateMounts.h"
#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/ScopedEnv.h"

namespace testing_support {

namespace {

// mkdir, then chown and chmod: the umask must not decide the mode.
bool MakeFolder(const std::string& path, uid_t uid, gid_t gid, mode_t mode, std::string& why) {
  if ((::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) ||
      ::chown(path.c_str(), uid, gid) != 0 || ::chmod(path.c_str(), mode) != 0) {
    why = "folder " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

const std::vector<UserIdentity>& Cast() {
  static const std::vector<UserIdentity> cast = {{0, 0, {0}},
                                                 {1000, 1000, {AdministratorsGroup()}},
                                                 {1001, 1001, {AdministratorsGroup()}},
                                                 {1002, 1002, {}},
                                                 {65534, 65534, {}}};
  return cast;
}

}  // namespace

gid_t AdministratorsGroup() {
  const group* entry = ::getgrnam("sudo");
  return entry != nullptr ? entry->gr_gid : 27;
}

const UserIdentity& RootUser() { return Cast()[0]; }
const UserIdentity& AdministratorA() { return Cast()[1]; }
const UserIdentity& AdministratorB() { return Cast()[2]; }
const UserIdentity& OrdinaryUser() { return Cast()[3]; }
const UserIdentity& Attacker() { return Cast()[4]; }

bool CanRunAsOtherUsers() { return ::geteuid() == 0; }

int RunAs(const UserIdentity& who, const std::function<int()>& body) {
  return WaitChild(StartAs(who, body));
}

pid_t StartAs(const UserIdentity& who, const std::function<int()>& body) {
  return StartChild([&]() {
    // Groups first: once the user id is dropped they can no longer be changed.
    if (::setgroups(who.groups.size(), who.groups.data()) != 0 ||
        ::setresgid(who.gid, who.gid, who.gid) != 0 ||
        ::setresuid(who.uid, who.uid, who.uid) != 0) {
      return 100;
    }
    return body();
  });
}

int RunUnprivileged(const std::function<int()>& body) {
  return CanRunAsOtherUsers() ? RunAs(Attacker(), body) : WaitChild(StartChild(body));
}

pid_t MultiUserMachine::StartHost(const UserIdentity& who, const std::function<int()>& body) const {
  return StartAs(who, [&] {
    TestEnv env;
    env.SetRoot(Root());
    env.SetHome(HomeOf(who));
    env.SetVariable("XDG_RUNTIME_DIR", RuntimeDirOf(who));
    env.RecordLaunches(true, 0);
    esd::ScopedEnv scope(&env);
    return body();
  });
}

int MultiUserMachine::RunHost(const UserIdentity& who, const std::function<int()>& body) const {
  return WaitChild(StartHost(who, body));
}

std::string MultiUserMachine::HomeOf(const UserIdentity& who) const {
  return mBase + "/home/" + std::to_string(who.uid);
}

std::string MultiUserMachine::RuntimeDirOf(const UserIdentity& who) const {
  return mBase + "/run/" + std::to_string(who.uid);
}

bool MultiUserMachine::Enter(const std::string& folder, std::string& why) {
  if (!CanRunAsOtherUsers()) {
    why = "other users need a root test run";
    return false;
  }
  if (!EnterPrivateMountNamespace(why) || !UsePrivateSemaphores(why) ||
      !MountTmpfs(folder, "mode=0755", why)) {
    return false;
  }
  mBase = folder;
  for (const std::string& path :
       {Root(), Root() + "/var", Root() + "/var/lib", Root() + "/var/lib/Vantu", Root() + "/etc",
        Root() + "/opt", mBase + "/home", mBase + "/run"}) {
    if (!MakeFolder(path, 0, 0, 0755, why)) return false;
  }
  for (const UserIdentity& who : Cast()) {
    if (!MakeFolder(HomeOf(who), who.uid, who.gid, 0700, why) ||
        !MakeFolder(RuntimeDirOf(who), who.uid, who.gid, 0700, why)) {
      return false;
    }
  }
  return true;
}

bool MultiUserMachine::InstallAllUsersFolder(gid_t group, std::string& why) const {
  return MakeFolder(AllUsersDataDir(), 0, group, 02775, why);
}

int RunOnMachine(const std::function<int(const MultiUserMachine&)>& body) {
  TempDir folder;
  return WaitChild(StartChild([&]() {
    MultiUserMachine machine;
    std::string why;
    if (!machine.Enter(folder.path(), why)) {
      std::fprintf(stderr, "no multi-user machine: %s\n", why.c_str());
      return kMachineUnavailable;
    }
    return body(machine);
  }));
}

}  // namespace testing_support
