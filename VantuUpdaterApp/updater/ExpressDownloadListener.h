#ifndef VANTUUPDATERAPP_UPDATER_EXPRESSDOWNLOADLISTENER_H
#define VANTUUPDATERAPP_UPDATER_EXPRESSDOWNLOADLISTENER_H

struct DBusConnection;

// Hears the library's express-download requests: the signal "Notification" of interface
// org.esd.DistributedNotificationCenter at /org/esd/DistributedNotificationCenter with the
// arguments "Do Express Download" and "Vantu Updater Express Download Signal", broadcast on the
// user's session bus when a host records missing components while the updater runs.
//
// Subscribes on construction, so that a request made while the updater is busy is kept for it.
// Without a session bus (none given and none at $XDG_RUNTIME_DIR/bus) it listens to nothing.
class ExpressDownloadListener {
 public:
  ExpressDownloadListener();
  ~ExpressDownloadListener();
  ExpressDownloadListener(const ExpressDownloadListener&) = delete;
  ExpressDownloadListener& operator=(const ExpressDownloadListener&) = delete;

  bool IsListening() const { return mConnection != nullptr; }

  // Waits up to `timeoutMs` (0: only what has arrived) for at least one request and consumes
  // every request that has arrived; true when there was one. Several requests in a row are one
  // piece of work, since each run takes the whole store.
  bool Wait(int timeoutMs);

 private:
  DBusConnection* mConnection;
};

#endif
