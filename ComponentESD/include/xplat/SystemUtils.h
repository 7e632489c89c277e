#ifndef ESD_XPLAT_SYSTEMUTILS_H
#define ESD_XPLAT_SYSTEMUTILS_H

#include <string>
#include <utility>
#include <vector>

namespace esd {
namespace SystemUtils {

// Starts `path` asynchronously with the host's environment plus every (name, value) of `env`,
// in order (a later pair wins); the host's own environment is never changed. An application
// bundle starts by its program, an executable file as it is, each as a detached process that
// gets no descriptor of the host but the standard three. When that is not possible but the
// path exists, the shell runs the single-quoted path in the background. A path that does not
// exist at all is handed to the shell single-quoted, in the foreground, and its status decides.
// True when the program was started (or the shell reported success).
bool LaunchPath(const std::string& path, std::vector<std::pair<std::string, std::string>>& env);

// "Linux".
std::string GetOSPlatform();

// The first three numbers of the kernel release, missing ones 0, as "major.minor.patch"; an
// empty string when the release cannot be read.
std::string GetOSPlatformVersion();

// `path` wrapped in single quotes for /bin/sh, each single quote inside written as '\''.
std::string QuoteShellArgument(const std::string& path);

// Reads the digits of `value` written in `base` as decimal digits: 0x1039 in base 16 gives
// 1039. A digit above 9 spills into the next decimal place (0xB gives 11). A value below the
// base (negative ones included) and any value for a base below 2 come back unchanged; a result
// beyond the range of long is clamped to LONG_MAX.
long ConvertBase(long value, long base);

}  // namespace SystemUtils
}  // namespace esd

#endif
