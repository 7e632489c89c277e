#ifndef TESTS_SUPPORT_PRIVATESESSIONBUS_H
#define TESTS_SUPPORT_PRIVATESESSIONBUS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/TempDir.h"

struct DBusConnection;

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

// A client of a bus that collects the signals of one interface.
class BusSignalListener {
 public:
  struct Signal {
    std::string path;
    std::string member;
    std::vector<std::string> arguments;  // the string arguments, in order
  };

  // Connects to `address` and subscribes to every signal of `interfaceName`. Throws
  // std::runtime_error when the bus cannot be reached.
  BusSignalListener(const std::string& address, const std::string& interfaceName);
  ~BusSignalListener();
  BusSignalListener(const BusSignalListener&) = delete;
  BusSignalListener& operator=(const BusSignalListener&) = delete;

  // Collects signals until `count` have arrived in all or `timeoutMs` passed; returns every
  // signal collected so far.
  std::vector<Signal> WaitForSignals(size_t count, int timeoutMs);

 private:
  DBusConnection* mConnection = nullptr;
  std::string mInterface;
  std::vector<Signal> mSignals;
};

}  // namespace testing_support

#endif
