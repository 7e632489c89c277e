#ifndef TESTS_SUPPORT_FAULTYENV_H
#define TESTS_SUPPORT_FAULTYENV_H

#include <fcntl.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "xplat/EnvWrapper.h"
#include "xplat/ScopedEnv.h"

namespace testing_support {

// The file operations a save is made of, as the fault rule sees them.
enum class FileOp { kCreate, kExchange, kRename, kWrite, kSync, kRemove };

// Makes file operations fail as a full, failing or foreign file system would, in front of the
// Env current when made, and is itself current while it lives. The rule sees each operation, how
// many of its kind came before, and its path (a rename's first name, a creation's name in its
// folder, empty for writes and syncs); a non-zero answer is the errno it fails with, unperformed.
// Creations are the write-only ones of data files; lock files open read-write and pass.
class FaultyEnv : public esd::EnvWrapper {
 public:
  using Rule = std::function<int(FileOp op, int before, const std::string& path)>;

  explicit FaultyEnv(Rule rule)
      : esd::EnvWrapper(esd::Env::Default()), mRule(std::move(rule)), mScope(this) {}

  // Fails every operation of kind `op` with `err`.
  static Rule Always(FileOp op, int err) {
    return [=](FileOp o, int, const std::string&) { return o == op ? err : 0; };
  }

  int OpenFileAt(int folder, const std::string& name, int flags, mode_t mode) override {
    const bool creates = (flags & O_CREAT) != 0 && (flags & O_ACCMODE) == O_WRONLY;
    const int err = creates ? Fault(FileOp::kCreate, name) : 0;
    return err != 0 ? -err : EnvWrapper::OpenFileAt(folder, name, flags, mode);
  }
  int WriteFile(int fd, const char* data, size_t size) override {
    const int err = Fault(FileOp::kWrite, "");
    return err != 0 ? err : EnvWrapper::WriteFile(fd, data, size);
  }
  int SyncFile(int fd) override {
    const int err = Fault(FileOp::kSync, "");
    return err != 0 ? err : EnvWrapper::SyncFile(fd);
  }
  int RenameFile(const std::string& from, const std::string& to, RenameMode mode) override {
    const int err = Fault(mode == RenameMode::kExchange ? FileOp::kExchange : FileOp::kRename, from);
    return err != 0 ? err : EnvWrapper::RenameFile(from, to, mode);
  }
  int RemoveFile(const std::string& path) override {
    const int err = Fault(FileOp::kRemove, path);
    return err != 0 ? err : EnvWrapper::RemoveFile(path);
  }

 private:
  int Fault(FileOp op, const std::string& path) {
    std::lock_guard<std::mutex> lock(mMutex);
    return mRule(op, mCounts[op]++, path);
  }

  Rule mRule;
  std::mutex mMutex;
  std::map<FileOp, int> mCounts;
  esd::ScopedEnv mScope;
};

}  // namespace testing_support

#endif
