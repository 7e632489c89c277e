#ifndef TESTS_SUPPORT_PRIVATESESSIONBUS_H
#define TESTS_SUPPORT_PRIVATESESSIONBUS_H

#include <sys/types.h>

#include <string>

#include "support/TempDir.h"

namespace testing_support {

// A dbus-daemon of the test's own, listening on a socket in a temporary folder, so a test can
// watch what the library broadcasts without reaching (or disturbing) the user's real session bus.
// While the object lives, DBUS_SESSION_BUS_ADDRESS points at it; the previous value is restored
// and the daemon stopped (by its process id) when it dies. Throws std::runtime_error when the
// daemon cannot be started.
class PrivateSessionBus {
 public:
  PrivateSessionBus();
  ~PrivateSessionBus();
  PrivateSessionBus(const PrivateSessionBus&) = delete;
  PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

  const std::string& address() const { return mAddress; }

 private:
  TempDir mTemp;
  pid_t mDaemon = -1;
  std::string mAddress;
  bool mHadAddress = false;
  std::string mPreviousAddress;
};

}  // namespace testing_support

#endif
