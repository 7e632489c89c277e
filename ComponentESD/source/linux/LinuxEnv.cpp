// The real operating system behind esd::Env: /proc, fork/exec, libdbus, the user and group
// databases, the file system calls, uname and the clocks.
#include <dbus/dbus.h>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <boost/date_time/gregorian/gregorian.hpp>

#include "xplat/Env.h"
#include "xplat/ProcessUtils.h"
#include "linux/UniqueFd.h"

extern char** environ;

namespace esd {

namespace {

// How long posting a signal may take in all. A bus that has not taken the signal by then is
// treated as unreachable rather than holding up the host application.
constexpr std::chrono::milliseconds kBusReplyTimeout(2000);

// /proc files are read whole; a command line may be as long as the argument space allows.
constexpr size_t kProcFileLimit = 4 * 1024 * 1024;

int Errno(bool ok) { return ok ? 0 : errno; }

bool ReadLink(const std::string& link, std::string& target) {
  std::vector<char> buffer(256);
  for (;;) {
    ssize_t length = readlink(link.c_str(), buffer.data(), buffer.size());
    if (length < 0) return false;
    if (static_cast<size_t>(length) < buffer.size()) {
      target.assign(buffer.data(), static_cast<size_t>(length));
      return true;
    }
    if (buffer.size() >= 65536) return false;
    buffer.resize(buffer.size() * 2);
  }
}

// Runs a reentrant group-database query with a buffer grown until the entry fits and hands the
// entry, while its buffer lives, to `use`. False when there is no such entry.
template <typename Query, typename Use>
bool LookUpGroup(Query query, Use use) {
  long size = sysconf(_SC_GETGR_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
  struct group entry;
  struct group* found = nullptr;
  while (query(&entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < (1u << 22)) {
    buffer.resize(buffer.size() * 2);
  }
  return found != nullptr && use(*found);
}

// The caller's environment with `additions` applied in order, as "NAME=VALUE" texts for execve.
// A pair the system would refuse (an empty name, one holding "=", a NUL anywhere) is skipped.
std::vector<std::string> BuildEnvironment(const Env::EnvironmentList& additions) {
  std::vector<std::string> entries;
  for (char** entry = environ; entry && *entry; ++entry) entries.emplace_back(*entry);
  for (const auto& [name, value] : additions) {
    if (name.empty() || name.find('=') != std::string::npos ||
        name.find('\0') != std::string::npos || value.find('\0') != std::string::npos)
      continue;
    const std::string prefix = name + "=";
    auto same = std::find_if(entries.begin(), entries.end(), [&](const std::string& entry) {
      return entry.compare(0, prefix.size(), prefix) == 0;
    });
    if (same != entries.end())
      *same = prefix + value;
    else
      entries.push_back(prefix + value);
  }
  return entries;
}

// argv or envp for exec: pointers into `texts`, which must outlive the result.
std::vector<char*> PointerArray(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// In a freshly forked child: the signal state a new program expects, whatever the host set.
void ResetSignals() {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
}

struct flock OneByte(short type, off_t start) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = start;
  range.l_len = 1;
  return range;
}

// libdbus objects, released on every path out of PostSessionBusSignal.
struct ConnectionCloser {
  void operator()(DBusConnection* connection) const {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
  }
};
struct MessageUnref {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
struct PendingCallUnref {
  void operator()(DBusPendingCall* call) const {
    dbus_pending_call_cancel(call);
    dbus_pending_call_unref(call);
  }
};
struct ScopedDBusError {
  DBusError error;
  ScopedDBusError() { dbus_error_init(&error); }
  ~ScopedDBusError() { dbus_error_free(&error); }
};

// The session bus address: $DBUS_SESSION_BUS_ADDRESS, or the per-user socket that systemd
// and dbus-broker place at $XDG_RUNTIME_DIR/bus. We never autolaunch a bus.
bool FindSessionBusAddress(std::string& address) {
  const char* given = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (given && *given) {
    address = given;
    return true;
  }
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (!runtime || runtime[0] != '/') return false;
  std::string socketPath = std::string(runtime) + "/bus";
  struct stat info;
  if (stat(socketPath.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) return false;
  char* escaped = dbus_address_escape_value(socketPath.c_str());
  if (!escaped) return false;
  address = std::string("unix:path=") + escaped;
  dbus_free(escaped);
  return true;
}

class LinuxEnv : public Env {
 public:
  std::string GetRootDirectory() override { return "/"; }

  bool GetHomeDirectory(std::string& path) override {
    const char* home = std::getenv("HOME");
    if (home && *home) {
      if (home[0] != '/') return false;
      path = home;
      return true;
    }
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
    struct passwd entry;
    struct passwd* found = nullptr;
    while (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
           buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 2);
    }
    if (!found || !found->pw_dir || found->pw_dir[0] != '/') return false;
    path = found->pw_dir;
    return true;
  }

  bool GetEnvironmentVariable(const std::string& name, std::string& value) override {
    const char* text = std::getenv(name.c_str());
    if (!text) return false;
    value = text;
    return true;
  }

  uid_t GetEffectiveUserId() override { return geteuid(); }

  bool GetSupplementaryGroups(std::vector<gid_t>& groups) override {
    for (int attempt = 0; attempt < 4; ++attempt) {
      int count = getgroups(0, nullptr);
      if (count < 0) return false;
      groups.resize(static_cast<size_t>(count));
      if (count == 0) return true;
      int got = getgroups(count, groups.data());
      if (got >= 0) {
        groups.resize(static_cast<size_t>(got));
        return true;
      }
      if (errno != EINVAL) return false;  // the list grew in between: ask again
    }
    return false;
  }

  bool GetGroupName(gid_t group, std::string& name) override {
    return LookUpGroup(
        [group](struct group* entry, char* buffer, size_t size, struct group** result) {
          return getgrgid_r(group, entry, buffer, size, result);
        },
        [&name](const struct group& found) {
          if (!found.gr_name) return false;
          name = found.gr_name;
          return true;
        });
  }

  bool GetGroupId(const std::string& name, gid_t& group) override {
    return LookUpGroup(
        [&name](struct group* entry, char* buffer, size_t size, struct group** result) {
          return getgrnam_r(name.c_str(), entry, buffer, size, result);
        },
        [&group](const struct group& found) {
          group = found.gr_gid;
          return true;
        });
  }

  bool IsAccessible(const std::string& path, int mode) override {
    return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
  }

  pid_t GetCurrentProcessId() override { return getpid(); }

  bool GetCurrentExecutablePath(std::string& path) override {
    return ProcessUtils::GetCurProcessPath(path);
  }

  bool ListProcessIds(std::vector<pid_t>& pids) override {
    DIR* dir = opendir("/proc");
    if (!dir) return false;
    pids.clear();
    while (struct dirent* entry = readdir(dir)) {
      char* end = nullptr;
      long pid = std::strtol(entry->d_name, &end, 10);
      if (end != entry->d_name && *end == '\0' && pid > 0) pids.push_back(static_cast<pid_t>(pid));
    }
    closedir(dir);
    std::sort(pids.begin(), pids.end());
    return true;
  }

  bool GetProcessInfo(pid_t pid, ProcessInfo& info) override {
    const std::string base = "/proc/" + std::to_string(pid);
    std::string stat;
    if (ReadFile(base + "/stat", kProcFileLimit, stat) != 0) return false;
    // "pid (comm) state ppid ...": comm may hold blanks and parentheses, so parse after the
    // last ')'.
    size_t close = stat.rfind(')');
    if (close == std::string::npos) return false;
    char state = 0;
    long parent = 0;
    if (std::sscanf(stat.c_str() + close + 1, " %c %ld", &state, &parent) != 2) return false;
    info.pid = pid;
    info.parentPid = static_cast<pid_t>(parent);
    info.executablePath.clear();
    ReadLink(base + "/exe", info.executablePath);  // unreadable for other users and kernel threads
    // stat follows the link to the very file the process runs, even one renamed or replaced
    // on disk since.
    struct stat program;
    if (::stat((base + "/exe").c_str(), &program) == 0) {
      info.executableDevice = program.st_dev;
      info.executableInode = program.st_ino;
    } else {
      info.executableDevice = 0;
      info.executableInode = 0;
    }
    info.userId = static_cast<uid_t>(-1);
    std::string status;
    if (ReadFile(base + "/status", kProcFileLimit, status) == 0) {
      // "Uid:\treal\teffective\tsaved\tfs"
      const size_t line = status.find("\nUid:");
      unsigned long real = 0;
      unsigned long effective = 0;
      if (line != std::string::npos &&
          std::sscanf(status.c_str() + line + 5, "%lu %lu", &real, &effective) == 2)
        info.userId = static_cast<uid_t>(effective);
    }
    info.arguments.clear();
    std::string cmdline;
    if (ReadFile(base + "/cmdline", kProcFileLimit, cmdline) == 0) {
      size_t start = 0;
      while (start < cmdline.size()) {
        size_t end = cmdline.find('\0', start);
        if (end == std::string::npos) end = cmdline.size();
        info.arguments.push_back(cmdline.substr(start, end - start));
        start = end + 1;
      }
    }
    return true;
  }

  bool BringProcessToFront(pid_t) override { return true; }

  bool StartDetachedProcess(const std::string& program, const std::vector<std::string>& arguments,
                            const EnvironmentList& environment) override {
    // Everything the children need is prepared before fork: after it only async-signal-safe
    // calls are allowed, as the host may have other threads.
    const std::vector<std::string> argumentTexts =
        arguments.empty() ? std::vector<std::string>{program} : arguments;
    std::vector<char*> argv = PointerArray(argumentTexts);
    const std::vector<std::string> environmentTexts = BuildEnvironment(environment);
    std::vector<char*> envp = PointerArray(environmentTexts);

    // The grandchild reports a failed exec through this pipe; a successful exec closes it.
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) return false;
    UniqueFd readEnd(report[0]);
    UniqueFd writeEnd(report[1]);

    pid_t middle = fork();
    if (middle < 0) return false;
    if (middle == 0) {
      // The middle process exists only so that the program is not our child: it exits at once
      // and the program is adopted by init (or the nearest subreaper).
      setsid();
      pid_t grandchild = fork();
      if (grandchild != 0) _exit(grandchild < 0 ? 1 : 0);
      ResetSignals();
      // The report pipe must survive the redirection of the standard streams below.
      int keep = report[1];
      if (keep <= 2) keep = fcntl(keep, F_DUPFD_CLOEXEC, 3);
      if (keep < 0) _exit(127);
      int null = open("/dev/null", O_RDWR);
      if (null >= 0) {
        dup2(null, 0);
        dup2(null, 1);
        dup2(null, 2);
      }
      // Keep only the standard streams and the report pipe (close-on-exec).
      if (keep > 3) close_range(3, static_cast<unsigned>(keep) - 1, 0);
      close_range(static_cast<unsigned>(keep) + 1, ~0u, 0);
      execve(program.c_str(), argv.data(), envp.data());
      int error = errno;
      ssize_t ignored = write(keep, &error, sizeof error);
      (void)ignored;
      _exit(127);
    }
    writeEnd.Close();
    int status = 0;
    while (waitpid(middle, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) return false;
    int error = 0;
    ssize_t got;
    do {
      got = read(readEnd.get(), &error, sizeof error);
    } while (got < 0 && errno == EINTR);
    return got == 0;
  }

  int RunShellCommand(const std::string& command, const EnvironmentList& environment) override {
    // system() would hand the shell every descriptor the host left without close-on-exec, and
    // only the host's own environment.
    const std::vector<std::string> argumentTexts = {"sh", "-c", command};
    std::vector<char*> argv = PointerArray(argumentTexts);
    const std::vector<std::string> environmentTexts = BuildEnvironment(environment);
    std::vector<char*> envp = PointerArray(environmentTexts);
    const pid_t shell = fork();
    if (shell < 0) return -1;
    if (shell == 0) {
      ResetSignals();
      close_range(3, ~0u, 0);
      execve("/bin/sh", argv.data(), envp.data());
      _exit(127);
    }
    int status = 0;
    while (waitpid(shell, &status, 0) < 0) {
      if (errno != EINTR) return -1;
    }
    return status;
  }

  bool PostSessionBusSignal(const std::string& objectPath, const std::string& interfaceName,
                            const std::string& member,
                            const std::vector<std::string>& arguments) override {
    // libdbus aborts the process on malformed names or text, so everything is checked first.
    if (!dbus_validate_path(objectPath.c_str(), nullptr) ||
        !dbus_validate_interface(interfaceName.c_str(), nullptr) ||
        !dbus_validate_member(member.c_str(), nullptr))
      return false;
    for (const std::string& argument : arguments) {
      if (argument.find('\0') != std::string::npos ||
          !dbus_validate_utf8(argument.c_str(), nullptr))
        return false;
    }
    std::string address;
    if (!FindSessionBusAddress(address)) return false;
    if (!dbus_threads_init_default()) return false;

    ScopedDBusError error;
    std::unique_ptr<DBusConnection, ConnectionCloser> connection(
        dbus_connection_open_private(address.c_str(), &error.error));
    if (!connection) return false;
    dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);

    // libdbus's own blocking calls wait for the authentication without any limit, so the
    // conversation is driven here, one bounded round of I/O at a time, against one deadline.
    const auto deadline = std::chrono::steady_clock::now() + kBusReplyTimeout;
    auto runUntil = [&](const std::function<bool()>& done) {
      while (!done()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        if (!dbus_connection_read_write_dispatch(connection.get(),
                                                 static_cast<int>(left.count())))
          return false;  // disconnected
      }
      return true;
    };
    // A bus drops a client whose first message is not Hello; its answer also tells us that the
    // bus authenticated and accepted us.
    std::unique_ptr<DBusMessage, MessageUnref> hello(dbus_message_new_method_call(
        DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "Hello"));
    if (!hello) return false;
    DBusPendingCall* rawPending = nullptr;
    if (!dbus_connection_send_with_reply(connection.get(), hello.get(), &rawPending,
                                         DBUS_TIMEOUT_INFINITE) ||
        !rawPending)
      return false;
    std::unique_ptr<DBusPendingCall, PendingCallUnref> pending(rawPending);
    if (!runUntil([&] { return dbus_pending_call_get_completed(pending.get()) != 0; }))
      return false;
    std::unique_ptr<DBusMessage, MessageUnref> welcome(dbus_pending_call_steal_reply(pending.get()));
    if (!welcome || dbus_message_get_type(welcome.get()) != DBUS_MESSAGE_TYPE_METHOD_RETURN)
      return false;

    std::unique_ptr<DBusMessage, MessageUnref> broadcast(
        dbus_message_new_signal(objectPath.c_str(), interfaceName.c_str(), member.c_str()));
    if (!broadcast) return false;
    DBusMessageIter iter;
    dbus_message_iter_init_append(broadcast.get(), &iter);
    for (const std::string& argument : arguments) {
      const char* text = argument.c_str();
      if (!dbus_message_iter_append_basic(&iter, DBUS_TYPE_STRING, &text)) return false;
    }
    if (!dbus_connection_send(connection.get(), broadcast.get(), nullptr)) return false;
    return runUntil([&] { return dbus_connection_has_messages_to_send(connection.get()) == 0; });
  }

  int OpenFileAt(int folder, const std::string& name, int flags, mode_t mode) override {
    int fd;
    do {
      fd = openat(folder, name.c_str(), flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd >= 0 ? fd : -errno;
  }

  int WriteFile(int fd, const char* data, size_t size) override {
    while (size > 0) {
      const ssize_t n = write(fd, data, size);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return errno;
      data += n;
      size -= static_cast<size_t>(n);
    }
    return 0;
  }

  int SyncFile(int fd) override { return Errno(fsync(fd) == 0); }

  int RenameFile(const std::string& from, const std::string& to, RenameMode mode) override {
    if (mode == RenameMode::kReplace) return Errno(rename(from.c_str(), to.c_str()) == 0);
#ifdef SYS_renameat2
    const unsigned flags = mode == RenameMode::kExchange ? 2u /* RENAME_EXCHANGE */
                                                         : 1u /* RENAME_NOREPLACE */;
    return Errno(syscall(SYS_renameat2, AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags) == 0);
#else
    return ENOSYS;
#endif
  }

  int RemoveFile(const std::string& path) override { return Errno(unlink(path.c_str()) == 0); }

  // Plain reads: a /proc file of a process that ends meanwhile fails with ESRCH, which must be
  // an ordinary failure here (the standard streams would throw from deep inside). Read to the
  // end, as /proc files report no size.
  int ReadFile(const std::string& path, size_t limit, std::string& bytes) override {
    bytes.clear();
    UniqueFd fd(OpenFileAt(AT_FDCWD, path, O_RDONLY | O_NONBLOCK, 0));
    if (!fd.valid()) return -fd.get();
    struct stat info;
    if (fstat(fd.get(), &info) != 0) return errno;
    if (!S_ISREG(info.st_mode)) return EINVAL;
    if (static_cast<unsigned long long>(info.st_size) > limit) return EFBIG;
    char buffer[4096];
    for (;;) {
      const ssize_t got = read(fd.get(), buffer, sizeof buffer);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return errno;
      if (got == 0) return 0;
      if (bytes.size() + static_cast<size_t>(got) > limit) return EFBIG;
      bytes.append(buffer, static_cast<size_t>(got));
    }
  }

  int LockFileByte(int fd, short type, off_t offset) override {
    struct flock range = OneByte(type, offset);
    int result;
    do {
      result = fcntl(fd, F_OFD_SETLK, &range);
    } while (result != 0 && errno == EINTR);
    return Errno(result == 0);
  }

  bool IsFileByteLocked(int fd, short type, off_t offset) override {
    struct flock range = OneByte(type, offset);
    return fcntl(fd, F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
  }

  uint64_t MonotonicMicroseconds() override {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
  }

  void SleepMicroseconds(uint64_t microseconds) override {
    timespec left{static_cast<time_t>(microseconds / 1000000u),
                  static_cast<long>(microseconds % 1000000u) * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
  }

  bool GetKernelRelease(std::string& release) override {
    struct utsname name;
    if (uname(&name) != 0) return false;
    release = name.release;
    return true;
  }

  boost::gregorian::date GetLocalDay() override {
    return boost::gregorian::day_clock::local_day();
  }
};

}  // namespace

Env* Env::Platform() {
  // Never destroyed, so that code running from other objects' destructors at exit can still
  // reach the system.
  static Env* const platform = new LinuxEnv;
  return platform;
}

}  // namespace esd
