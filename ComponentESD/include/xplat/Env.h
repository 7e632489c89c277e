#ifndef ESD_XPLAT_ENV_H
#define ESD_XPLAT_ENV_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <boost/date_time/gregorian/gregorian_types.hpp>

namespace esd {

// Every operating-system service that the folder, file, lock, launch, process, notification,
// group and date code needs, one virtual function each. The portable code asks `Env::Default()`
// and never the system itself, so a test (or one of the project's own tools) can move the machine
// root, give the caller other groups, record launches or make a disk fail by installing an
// `EnvWrapper` with a `ScopedEnv`.
// The file section holds the primitives every save, read and lock is built from; the walks and
// checks around them (link-safe folder walks, modes, owners) stay in FileSystemUtils.
//
// Implementations must be safe to call from several threads at once; none of the calls throws.
class Env {
 public:
  // One entry of the process table.
  struct ProcessInfo {
    pid_t pid = 0;
    pid_t parentPid = 0;
    std::string executablePath;          // the program file; empty when it cannot be read
    std::vector<std::string> arguments;  // argv as the process holds it now, argv[0] included
    uid_t userId = static_cast<uid_t>(-1);  // the effective user; -1 when it cannot be read
    // The file the process runs (whatever its path says now): device and inode, both 0 when
    // they cannot be read (another user's process, a kernel thread).
    dev_t executableDevice = 0;
    ino_t executableInode = 0;
  };

  // Variables given to a started program on top of the caller's own environment, in order; a
  // later pair for a name wins. The caller's environment itself is never changed.
  using EnvironmentList = std::vector<std::pair<std::string, std::string>>;

  Env() = default;
  virtual ~Env();
  Env(const Env&) = delete;
  Env& operator=(const Env&) = delete;

  // The Env the library uses right now: the one of the innermost live ScopedEnv, otherwise
  // Platform(). Never null.
  static Env* Default();

  // The real operating system (Linux). Lives until the process ends; the usual target of an
  // EnvWrapper.
  static Env* Platform();

  // --- Folders -------------------------------------------------------------------------------

  // The folder under which every machine-wide location lies ("var/lib", "etc", "opt", ...).
  // "/" for the real system.
  virtual std::string GetRootDirectory() = 0;

  // The user's home folder: $HOME, or the password-database entry of the effective user when
  // $HOME is unset or empty. False when the answer is not an absolute path (a relative $HOME
  // would put the user's folders wherever the process happens to run).
  virtual bool GetHomeDirectory(std::string& path) = 0;

  // The process environment. The folder lookup reads the standard XDG_* and TMPDIR variables
  // through this. False when the variable is unset (an empty value is a value). There is no
  // setter: the library never changes a host's environment, which other threads of the host
  // may be reading.
  virtual bool GetEnvironmentVariable(const std::string& name, std::string& value) = 0;

  // --- Users and groups ----------------------------------------------------------------------

  virtual uid_t GetEffectiveUserId() = 0;

  // The caller's supplementary groups alone (getgroups), in the system's order. The effective
  // and real group ids are not added. False when the list cannot be read.
  virtual bool GetSupplementaryGroups(std::vector<gid_t>& groups) = 0;

  // The name of a group from the group database; false when the id has no entry.
  virtual bool GetGroupName(gid_t group, std::string& name) = 0;

  // The id of a group named in the group database; false when no group has that name.
  virtual bool GetGroupId(const std::string& name, gid_t& group) = 0;

  // Whether the effective user may access `path` in every way named by `mode` (a combination
  // of R_OK, W_OK and X_OK). False also when the path does not exist.
  virtual bool IsAccessible(const std::string& path, int mode) = 0;

  // --- Processes -----------------------------------------------------------------------------

  virtual pid_t GetCurrentProcessId() = 0;

  // The absolute path of the running program file (where it was started from, also when it
  // has been replaced on disk since).
  virtual bool GetCurrentExecutablePath(std::string& path) = 0;

  // The ids of every process now running, in ascending order. The list is a snapshot: any of
  // them may be gone by the time it is looked at.
  virtual bool ListProcessIds(std::vector<pid_t>& pids) = 0;

  // One process's entry; false when the process does not exist (any more) or cannot be read.
  virtual bool GetProcessInfo(pid_t pid, ProcessInfo& info) = 0;

  // Raises a process's windows. Linux has no general way to do that, so the real system
  // succeeds without effect; the call exists so that callers state the intent and tests can
  // see which process was chosen.
  virtual bool BringProcessToFront(pid_t pid) = 0;

  // Starts `program` with `arguments` (argv[0] included) as a new detached process: its own
  // session, standard streams on /dev/null, the caller's environment with `environment` added,
  // no other descriptor of the caller, not waited for and never left as the caller's child.
  // True when the program was executed; false when it could not be (missing, not executable,
  // not a binary or script with an interpreter line). No search of PATH and no shell.
  virtual bool StartDetachedProcess(const std::string& program,
                                    const std::vector<std::string>& arguments,
                                    const EnvironmentList& environment) = 0;

  // Runs `command` with /bin/sh, with the caller's environment plus `environment` and no
  // descriptor of the caller but the standard three, and waits for the shell; returns its wait
  // status as system() does (0 when the shell ran and exited with 0, -1 when no shell could be
  // started).
  virtual int RunShellCommand(const std::string& command, const EnvironmentList& environment) = 0;

  // --- Session bus ---------------------------------------------------------------------------

  // Broadcasts a signal with string arguments on the user's session bus. True when it was
  // handed to a bus; false when no session bus could be reached in a short time. Never blocks
  // for long and never starts a bus.
  virtual bool PostSessionBusSignal(const std::string& objectPath,
                                    const std::string& interfaceName, const std::string& member,
                                    const std::vector<std::string>& arguments) = 0;

  // --- Files ---------------------------------------------------------------------------------
  // Each returns 0 or the errno of the failure, and retries what a signal interrupted.

  // How RenameFile treats an object already at `to`.
  enum class RenameMode {
    kReplace,    // replaced, as rename(2) does
    kNoReplace,  // the rename fails with EEXIST (EINVAL or ENOSYS where the kernel cannot say)
    kExchange,   // both must exist and trade names atomically (EINVAL or ENOSYS where unsupported)
  };

  // Opens or creates the entry `name` of the open folder `folder` as openat(2) does, always
  // close-on-exec. The descriptor, or minus the errno.
  virtual int OpenFileAt(int folder, const std::string& name, int flags, mode_t mode) = 0;

  // Writes all of `data`.
  virtual int WriteFile(int fd, const char* data, size_t size) = 0;

  // Flushes a file's or a folder's data and entries to stable storage (fsync).
  virtual int SyncFile(int fd) = 0;

  // Gives `from` the name `to`; never follows a link at either name.
  virtual int RenameFile(const std::string& from, const std::string& to, RenameMode mode) = 0;

  // Removes the name of a file or link (unlink); never a folder.
  virtual int RemoveFile(const std::string& path) = 0;

  // The whole content of the regular file `path`, read up to its end (EFBIG beyond `limit`
  // bytes; EINVAL for anything but a regular file, and a named pipe never blocks the open).
  virtual int ReadFile(const std::string& path, size_t limit, std::string& bytes) = 0;

  // An open-file-description lock (F_OFD_*) on the one byte `offset` of `fd`, never waiting:
  // F_WRLCK, F_RDLCK or F_UNLCK. EAGAIN or EACCES while another description holds a conflicting
  // lock.
  virtual int LockFileByte(int fd, short type, off_t offset) = 0;

  // Whether another open file description holds a lock on byte `offset` that a lock of `type`
  // would conflict with; false also when that cannot be told.
  virtual bool IsFileByteLocked(int fd, short type, off_t offset) = 0;

  // --- Time ----------------------------------------------------------------------------------

  // A clock in microseconds that never jumps with the wall clock, for time-outs.
  virtual uint64_t MonotonicMicroseconds() = 0;

  virtual void SleepMicroseconds(uint64_t microseconds) = 0;

  // --- System --------------------------------------------------------------------------------

  // The kernel's release text (uname -r), for example "6.1.0-18-amd64".
  virtual bool GetKernelRelease(std::string& release) = 0;

  // Today in the local time zone.
  virtual boost::gregorian::date GetLocalDay() = 0;
};

}  // namespace esd

#endif
