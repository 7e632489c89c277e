#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/FileStamp.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace testing_support {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/vantu-test-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
  mPath = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  // Tests may leave read-only folders behind; make them removable first.
  for (auto it = fs::recursive_directory_iterator(mPath, ignored);
       it != fs::recursive_directory_iterator(); it.increment(ignored)) {
    if (it->is_directory(ignored) && !it->is_symlink(ignored))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
  }
  fs::permissions(mPath, fs::perms::owner_all, fs::perm_options::add, ignored);
  // A detached updater started by a test's last call may still write its report while the
  // folder goes, which makes one pass fail on a folder that is no longer empty.
  for (int attempt = 0; attempt < 50 && fs::exists(mPath, ignored); ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    fs::remove_all(mPath, ignored);
  }
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

FileStamp StampOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return {};
  return {info.st_ino, info.st_mtim.tv_sec * 1000000000LL + info.st_mtim.tv_nsec};
}

}  // namespace testing_support
