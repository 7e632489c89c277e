#ifndef TESTS_SUPPORT_PRIVATESESSIONBUS_H
#define TESTS_SUPPORT_PRIVATESESSIONBUS_H

#include <sys/types.h>

#include <string>

#include "support/TempDir.h"

namespace testing_support {

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
