#ifndef TESTS_SUPPORT_CHILDPROCESS_H
#define TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <functional>

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

}  // namespace testing_support

#endif
