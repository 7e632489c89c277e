#include "support/PrivateSessionBus.h"

#include <dbus/dbus.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace testing_support {

namespace {

const char kAddressVariable[] = "DBUS_SESSION_BUS_ADDRESS";

// Reads the daemon's first output line (its address) within a few seconds.
std::string ReadLine(int fd, int timeoutMs) {
  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd pfd{fd, POLLIN, 0};
    if (::poll(&pfd, 1, 50) != 1) continue;
    char c = 0;
    const ssize_t got = ::read(fd, &c, 1);
    if (got <= 0) break;
    if (c == '\n') return line;
    line.push_back(c);
  }
  return std::string();
}

}  // namespace

PrivateSessionBus::PrivateSessionBus() {
  const std::string config = mTemp / "session.conf";
  const std::string socket = mTemp / "bus";
  WriteFile(config, "<busconfig><type>session</type><listen>unix:path=" + socket +
                        "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                        "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                        "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n");

  int fds[2];
  if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
  mDaemon = ::fork();
  if (mDaemon < 0) throw std::runtime_error("fork failed");
  if (mDaemon == 0) {
    ::close(fds[0]);
    // The daemon's complaints about resource limits it may not raise are no test's business.
    const int devNull = ::open("/dev/null", O_WRONLY);
    if (devNull >= 0) ::dup2(devNull, STDERR_FILENO);
    const std::string printAddress = "--print-address=" + std::to_string(fds[1]);
    const std::string configFile = "--config-file=" + config;
    ::execlp("dbus-daemon", "dbus-daemon", configFile.c_str(), "--nofork", "--nopidfile",
             printAddress.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(fds[1]);
  mAddress = ReadLine(fds[0], 10000);
  ::close(fds[0]);
  if (mAddress.empty()) {
    ::kill(mDaemon, SIGTERM);
    ::waitpid(mDaemon, nullptr, 0);
    throw std::runtime_error("dbus-daemon did not start");
  }

  if (const char* previous = std::getenv(kAddressVariable)) {
    mHadAddress = true;
    mPreviousAddress = previous;
  }
  ::setenv(kAddressVariable, mAddress.c_str(), 1);
}

PrivateSessionBus::~PrivateSessionBus() {
  if (mHadAddress)
    ::setenv(kAddressVariable, mPreviousAddress.c_str(), 1);
  else
    ::unsetenv(kAddressVariable);
  ::kill(mDaemon, SIGTERM);
  while (::waitpid(mDaemon, nullptr, 0) < 0 && errno == EINTR) {
  }
}

BusSignalListener::BusSignalListener(const std::string& address, const std::string& interfaceName)
    : mInterface(interfaceName) {
  DBusError error;
  dbus_error_init(&error);
  mConnection = dbus_connection_open_private(address.c_str(), &error);
  if (mConnection == nullptr) {
    dbus_error_free(&error);
    throw std::runtime_error("cannot connect to " + address);
  }
  dbus_connection_set_exit_on_disconnect(mConnection, FALSE);
  if (!dbus_bus_register(mConnection, &error)) {
    dbus_error_free(&error);
    dbus_connection_close(mConnection);
    dbus_connection_unref(mConnection);
    mConnection = nullptr;
    throw std::runtime_error("cannot register with " + address);
  }
  const std::string rule = "type='signal',interface='" + interfaceName + "'";
  dbus_bus_add_match(mConnection, rule.c_str(), &error);
  if (dbus_error_is_set(&error)) {
    dbus_error_free(&error);
    throw std::runtime_error("cannot subscribe to " + interfaceName);
  }
}

BusSignalListener::~BusSignalListener() {
  if (mConnection != nullptr) {
    dbus_connection_close(mConnection);
    dbus_connection_unref(mConnection);
  }
}

std::vector<BusSignalListener::Signal> BusSignalListener::WaitForSignals(size_t count,
                                                                         int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (mSignals.size() < count && std::chrono::steady_clock::now() < deadline) {
    dbus_connection_read_write(mConnection, 20);
    while (DBusMessage* message = dbus_connection_pop_message(mConnection)) {
      if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_SIGNAL &&
          mInterface ==
              (dbus_message_get_interface(message) ? dbus_message_get_interface(message) : "")) {
        Signal signal;
        signal.path = dbus_message_get_path(message) ? dbus_message_get_path(message) : "";
        signal.member = dbus_message_get_member(message) ? dbus_message_get_member(message) : "";
        DBusMessageIter args;
        if (dbus_message_iter_init(message, &args)) {
          do {
            if (dbus_message_iter_get_arg_type(&args) == DBUS_TYPE_STRING) {
              const char* text = nullptr;
              dbus_message_iter_get_basic(&args, &text);
              signal.arguments.push_back(text ? text : "");
            }
          } while (dbus_message_iter_next(&args));
        }
        mSignals.push_back(signal);
      }
      dbus_message_unref(message);
    }
  }
  return mSignals;
}

}  // namespace testing_support
