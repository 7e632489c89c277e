#ifndef ESD_XPLAT_PROCESSUTILS_H
#define ESD_XPLAT_PROCESSUTILS_H

#include <string>

namespace esd {
namespace ProcessUtils {

// The absolute path of the running executable (the target of /proc/self/exe). False when it
// cannot be read; `path` is then left as it was.
bool GetCurProcessPath(std::string& path);

// The folder holding the running executable (GetCurProcessPath without its last component).
bool GetCurProcessDir(std::string& dir);

}  // namespace ProcessUtils
}  // namespace esd

#endif
