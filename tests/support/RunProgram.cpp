#include "support/RunProgram.h"

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

namespace testing_support {

namespace {

void Append(int fd, std::string& to, bool& open) {
  char buffer[4096];
  const ssize_t got = read(fd, buffer, sizeof buffer);
  if (got > 0)
    to.append(buffer, static_cast<size_t>(got));
  else if (got == 0 || errno != EINTR)
    open = false;
}

}  // namespace

ProgramResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  if (argv.empty()) throw std::invalid_argument("no program");
  int out[2], err[2];
  if (pipe(out) != 0) throw std::runtime_error("pipe failed");
  if (pipe(err) != 0) throw std::runtime_error("pipe failed");
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    close(out[0]);
    close(out[1]);
    close(err[0]);
    close(err[1]);
    const int devNull = open("/dev/null", O_RDONLY);
    if (devNull >= 0) dup2(devNull, STDIN_FILENO);
    for (const auto& variable : options.setVariables)
      setenv(variable.first.c_str(), variable.second.c_str(), 1);
    for (const std::string& name : options.unsetVariables) unsetenv(name.c_str());
    const gid_t root = 0;
    if (options.groups == RunOptions::Groups::kAdministrator && setgroups(1, &root) != 0)
      _exit(125);
    if (options.groups == RunOptions::Groups::kNone && setgroups(0, nullptr) != 0) _exit(125);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);

  ProgramResult result;
  bool outOpen = true, errOpen = true;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(options.timeoutMs);
  bool killed = false;
  while (outOpen || errOpen) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      killed = true;
      break;
    }
    pollfd fds[2] = {{out[0], static_cast<short>(outOpen ? POLLIN : 0), 0},
                     {err[0], static_cast<short>(errOpen ? POLLIN : 0), 0}};
    if (poll(fds, 2, 100) <= 0) continue;
    if (fds[0].revents) Append(out[0], result.out, outOpen);
    if (fds[1].revents) Append(err[0], result.err, errOpen);
  }
  close(out[0]);
  close(err[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!killed && WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  return result;
}

bool CanChooseGroups() { return geteuid() == 0; }

}  // namespace testing_support
