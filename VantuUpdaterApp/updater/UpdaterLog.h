#ifndef VANTUUPDATERAPP_UPDATER_UPDATERLOG_H
#define VANTUUPDATERAPP_UPDATER_UPDATERLOG_H

#include <string>

// The updater's log: one line per event, "2024-05-01T12:00:00 Vantu Updater[PID]: text",
// appended to a file shared by every copy of the updater. Each line is one write to a file
// opened for appending, so lines of copies running at once never mix. A log that cannot be
// opened is silently dropped: the updater's work does not depend on it.
class UpdaterLog {
 public:
  explicit UpdaterLog(const std::string& path);
  ~UpdaterLog();
  UpdaterLog(const UpdaterLog&) = delete;
  UpdaterLog& operator=(const UpdaterLog&) = delete;

  void Write(const std::string& text);
  const std::string& path() const { return mPath; }

 private:
  std::string mPath;
  int mFd;
};

#endif
