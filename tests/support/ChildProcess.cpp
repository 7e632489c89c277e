#include "support/ChildProcess.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

namespace testing_support {

pid_t StartChild(const std::function<int()>& body) {
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    int status = 1;
    try {
      status = body();
    } catch (...) {
      status = 99;
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

Pipe::Pipe() {
  if (pipe(mFds) != 0) throw std::runtime_error("pipe failed");
}

Pipe::~Pipe() {
  close(mFds[0]);
  close(mFds[1]);
}

void Pipe::Signal() {
  char byte = 1;
  if (write(mFds[1], &byte, 1) != 1) throw std::runtime_error("pipe write failed");
}

bool Pipe::Wait(int timeoutMs) {
  pollfd pfd{mFds[0], POLLIN, 0};
  if (poll(&pfd, 1, timeoutMs) != 1) return false;
  char byte = 0;
  return read(mFds[0], &byte, 1) == 1;
}

}  // namespace testing_support
