#include "xplat/ProcessUtils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "xplat/FileSystemUtils.h"

namespace esd {
namespace ProcessUtils {

bool GetCurProcessPath(std::string& path) {
  std::vector<char> buffer(256);
  for (;;) {
    const ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (n < 0) return false;
    if (static_cast<size_t>(n) < buffer.size()) {
      std::string result(buffer.data(), static_cast<size_t>(n));
      // The kernel marks a program replaced on disk while it runs; its folder is still the one
      // it was started from.
      static const std::string kDeleted = " (deleted)";
      struct stat st;
      if (result.size() > kDeleted.size() &&
          result.compare(result.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0 &&
          ::stat(result.c_str(), &st) != 0) {
        result.erase(result.size() - kDeleted.size());
      }
      path = result;
      return true;
    }
    buffer.resize(buffer.size() * 2);
  }
}

bool GetCurProcessDir(std::string& dir) {
  std::string path;
  if (!GetCurProcessPath(path)) return false;
  const std::string parent = FileSystemUtils::GetParentPath(path);
  if (parent.empty()) return false;
  dir = parent;
  return true;
}

}  // namespace ProcessUtils
}  // namespace esd
