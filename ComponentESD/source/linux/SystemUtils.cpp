#include "xplat/SystemUtils.h"

#include <sys/stat.h>

#include <cctype>
#include <climits>

#include "xplat/ApplicationBundle.h"
#include "xplat/Env.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/FormatString.h"

namespace esd {
namespace SystemUtils {

namespace {

// Each single quote becomes the four characters '\'' (close, escaped quote, reopen), so the
// whole path can stand between single quotes as one word of a shell command.
std::string EscapeSingleQuotes(const std::string& path) {
  std::string quoted;
  for (char c : path) {
    if (c == '\'') quoted += "'\\'";
    quoted += c;
  }
  return quoted;
}

bool IsFolder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The asynchronous open of an application: a bundle starts its program, any other path is
// started itself. False when neither can be executed.
bool OpenApplication(Env* env, const std::string& path, const Env::EnvironmentList& variables) {
  std::string program = path;
  if (IsFolder(path)) {
    ApplicationBundle bundle;
    if (!ApplicationBundle::Load(path, bundle)) return false;
    program = bundle.GetExecutablePath();
  }
  return env->StartDetachedProcess(program, {program}, variables);
}

}  // namespace

bool LaunchPath(const std::string& path, std::vector<std::pair<std::string, std::string>>& env) {
  Env* os = Env::Default();
  // The variables go to the started program alone; the host's own environment stays as it was.
  // A pair the system refuses (an empty name or one holding "=") is skipped.
  const std::string quoted = QuoteShellArgument(path);
  // The path is quoted also here, so that "/opt/Vantu Utilities..." cannot run "/opt/Vantu".
  if (!FileSystemUtils::DoesPathExist(path)) return os->RunShellCommand(quoted, env) == 0;
  if (OpenApplication(os, path, env)) return true;
  if (!FileSystemUtils::DoesPathExist(path)) return false;
  return os->RunShellCommand(quoted + " &", env) == 0;
}

std::string QuoteShellArgument(const std::string& path) {
  return "'" + EscapeSingleQuotes(path) + "'";
}

std::string GetOSPlatform() { return "Linux"; }

std::string GetOSPlatformVersion() {
  std::string release;
  if (!Env::Default()->GetKernelRelease(release)) return std::string();
  // "6.1.0-18-amd64" gives 6, 1, 0; "5.15-rc2" gives 5, 15 and a missing third (0). Only the
  // dotted numbers at the start count.
  long numbers[3] = {0, 0, 0};
  size_t at = 0;
  for (int index = 0; index < 3; ++index) {
    if (at >= release.size() || !std::isdigit(static_cast<unsigned char>(release[at]))) {
      if (index == 0) return std::string();
      break;
    }
    long number = 0;
    while (at < release.size() && std::isdigit(static_cast<unsigned char>(release[at]))) {
      if (number > (LONG_MAX - 9) / 10) return std::string();
      number = number * 10 + (release[at++] - '0');
    }
    numbers[index] = number;
    if (at >= release.size() || release[at] != '.') break;
    ++at;
  }
  std::string version;
  if (!FormatString(version, "%0.%1.%2", numbers[0], numbers[1], numbers[2])) return std::string();
  return version;
}

long ConvertBase(long value, long base) {
  if (base < 2 || value < base) return value;
  const long low = ConvertBase(value / base, base);
  long shifted = 0;
  long result = 0;
  if (__builtin_mul_overflow(low, 10L, &shifted) ||
      __builtin_add_overflow(shifted, value % base, &result))
    return LONG_MAX;
  return result;
}

}  // namespace SystemUtils
}  // namespace esd
