#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace testing_support {

pid_t StartChild(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    int status = 99;
    try {
      status = body();
    } catch (...) {
    }
    _exit(status);
  }
  return pid;
}

int WaitChild(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs, int stepMicros) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(stepMicros));
  }
  return true;
}

Pipe::Pipe() {
  if (pipe(mFds) != 0) throw std::runtime_error("pipe failed");
}

Pipe::~Pipe() {
  close(mFds[0]);
  close(mFds[1]);
}

void Pipe::Signal() {
  const char byte = 1;
  if (write(mFds[1], &byte, 1) != 1) throw std::runtime_error("pipe write failed");
}

bool Pipe::Wait(int timeoutMs) {
  pollfd pfd{mFds[0], POLLIN, 0};
  char byte = 0;
  return poll(&pfd, 1, timeoutMs) == 1 && read(mFds[0], &byte, 1) == 1;
}

// The output goes to files rather than pipes, so nothing needs draining while the program runs.
ProgramResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  if (argv.empty()) throw std::invalid_argument("no program");
  TempDir outputs;
  const pid_t pid = StartChild([&] {
    const int in = open("/dev/null", O_RDONLY);
    const int out = open((outputs / "out").c_str(), O_WRONLY | O_CREAT, 0600);
    const int err = open((outputs / "err").c_str(), O_WRONLY | O_CREAT, 0600);
    if (dup2(in, STDIN_FILENO) < 0 || dup2(out, STDOUT_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0)
      return 126;
    for (const auto& variable : options.setVariables)
      setenv(variable.first.c_str(), variable.second.c_str(), 1);
    for (const std::string& name : options.unsetVariables) unsetenv(name.c_str());
    const gid_t root = 0;
    if (options.groups != RunOptions::Groups::kInherited &&
        setgroups(options.groups == RunOptions::Groups::kAdministrator ? 1 : 0, &root) != 0)
      return 125;
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    return 127;
  });
  ProgramResult result;
  int status = 0;
  if (WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, options.timeoutMs, 2000)) {
    if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  } else {
    kill(pid, SIGKILL);
    WaitChild(pid);
  }
  result.out = ReadFile(outputs / "out");
  result.err = ReadFile(outputs / "err");
  return result;
}

bool CanChooseGroups() { return geteuid() == 0; }

}  // namespace testing_support
