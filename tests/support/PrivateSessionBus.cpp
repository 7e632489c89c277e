#include "support/PrivateSessionBus.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace testing_support {

namespace {

const char kAddressVariable[] = "DBUS_SESSION_BUS_ADDRESS";

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
  // The daemon's first output line is its address; a daemon that fails closes the pipe.
  for (char c = 0; ::read(fds[0], &c, 1) == 1 && c != '\n';) mAddress.push_back(c);
  ::close(fds[0]);
  if (mAddress.empty()) {
    ::kill(mDaemon, SIGTERM);
    ::waitpid(mDaemon, nullptr, 0);
    throw std::runtime_error("dbus-daemon did not start");
  }
  ::setenv(kAddressVariable, mAddress.c_str(), 1);
}

PrivateSessionBus::~PrivateSessionBus() {
  ::unsetenv(kAddressVariable);
  ::kill(mDaemon, SIGTERM);
  while (::waitpid(mDaemon, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace testing_support
