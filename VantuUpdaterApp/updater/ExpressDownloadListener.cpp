#include "ExpressDownloadListener.h"

#include <dbus/dbus.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include "xplat/UpdaterNames.h"

namespace {

using UpdaterNames::kExpressDownloadName;
using UpdaterNames::kExpressDownloadObject;
using UpdaterNames::kNotificationInterface;
using UpdaterNames::kNotificationMember;
using UpdaterNames::kNotificationObjectPath;

// The bus the library posts to: the given address, else the socket in the runtime folder.
std::string SessionBusAddress() {
  const char* given = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (given && *given) return given;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (!runtime || runtime[0] != '/') return std::string();
  const std::string socket = std::string(runtime) + "/bus";
  struct stat info;
  if (stat(socket.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) return std::string();
  return "unix:path=" + socket;
}

bool IsExpressDownload(DBusMessage* message) {
  if (!dbus_message_is_signal(message, kNotificationInterface, kNotificationMember) ||
      !dbus_message_has_path(message, kNotificationObjectPath))
    return false;
  const char* name = nullptr;
  const char* object = nullptr;
  return dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &object,
                               DBUS_TYPE_INVALID) &&
         std::strcmp(name, kExpressDownloadName) == 0 &&
         std::strcmp(object, kExpressDownloadObject) == 0;
}

}  // namespace

ExpressDownloadListener::ExpressDownloadListener() : mConnection(nullptr) {
  const std::string address = SessionBusAddress();
  if (address.empty()) return;
  DBusError error;
  dbus_error_init(&error);
  DBusConnection* connection = dbus_connection_open_private(address.c_str(), &error);
  if (connection == nullptr) {
    dbus_error_free(&error);
    return;
  }
  dbus_connection_set_exit_on_disconnect(connection, FALSE);
  const std::string rule = std::string("type='signal',interface='") + kNotificationInterface +
                           "',member='" + kNotificationMember + "',path='" +
                           kNotificationObjectPath + "'";
  if (dbus_bus_register(connection, &error)) dbus_bus_add_match(connection, rule.c_str(), &error);
  if (dbus_error_is_set(&error)) {
    dbus_error_free(&error);
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
    return;
  }
  mConnection = connection;
}

ExpressDownloadListener::~ExpressDownloadListener() {
  if (mConnection == nullptr) return;
  dbus_connection_close(mConnection);
  dbus_connection_unref(mConnection);
}

bool ExpressDownloadListener::Wait(int timeoutMs) {
  if (mConnection == nullptr) return false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  bool heard = false;
  for (;;) {
    while (DBusMessage* message = dbus_connection_pop_message(mConnection)) {
      heard = heard || IsExpressDownload(message);
      dbus_message_unref(message);
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    // Once something was heard, only what is already queued is collected.
    const int wait = heard ? 0 : static_cast<int>(std::max<long>(0, left.count()));
    if (!dbus_connection_read_write(mConnection, wait)) return heard;  // the bus went away
    if (dbus_connection_get_dispatch_status(mConnection) != DBUS_DISPATCH_DATA_REMAINS &&
        (heard || left.count() <= 0))
      return heard;
  }
}
