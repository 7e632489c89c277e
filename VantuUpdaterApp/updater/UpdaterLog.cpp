#include "UpdaterLog.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

UpdaterLog::UpdaterLog(const std::string& path)
    : mPath(path),
      mFd(path.empty() ? -1 : open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) {
}

UpdaterLog::~UpdaterLog() {
  if (mFd >= 0) close(mFd);
}

void UpdaterLog::Write(const std::string& text) {
  if (mFd < 0) return;
  char stamp[32] = "";
  const time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local)) strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &local);
  const std::string line =
      std::string(stamp) + " Vantu Updater[" + std::to_string(getpid()) + "]: " + text + "\n";
  ssize_t ignored = write(mFd, line.data(), line.size());
  (void)ignored;
}
