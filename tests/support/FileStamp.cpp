#include "support/FileStamp.h"

#include <sys/stat.h>

namespace testing_support {

FileStamp StampOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return {};
  return {info.st_ino, info.st_mtim.tv_sec * 1000000000LL + info.st_mtim.tv_nsec};
}

}  // namespace testing_support
