#include "xplat/SystemUtils.h"

#include <sys/stat.h>

#include <cctype>
#include <algorithm>
#include <climits>

#include "xplat/ApplicationBundle.h"
#include "xplat/Env.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/FormatString.h"

namespace esd {
namespace SystemUtils {

namespace {

// Each single quote is preceded by the three characters quote, backslash, quote, which turns
// it into the four characters '\'' (close, escaped quote, reopen). The scan covers the first
// `scanLength` positions of the growing copy; a caller passing the original length may leave a
// late quote unescaped, a caller passing npos escapes them all.
std::string EscapeSingleQuotes(const std::string& path, size_t scanLength) {
  std::string quoted = path;
  for (size_t i = 0; i < std::min(scanLength, quoted.size()); ++i) {
    if (quoted[i] == '\'') {
      quoted.insert(i, "'\\'");
      i += 3;
    }
  }
  return quoted;
}

bool IsFolder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The asynchronous open of an application: a bundle starts its program, any other path is
// started itself. False when neither can be executed.
bool OpenApplication(Env* env, const std::string& path) {
  std::string program = path;
  if (IsFolder(path)) {
    ApplicationBundle bundle;
    if (!ApplicationBundle::Load(path, bundle)) return false;
    program = bundle.GetExecutablePath();
  }
  return env->StartDetachedProcess(program, {program});
}

}  // namespace

bool LaunchPath(const std::string& path, std::vector<std::pair<std::string, std::string>>& env) {
  Env* os = Env::Default();
  // A pair the system refuses (an empty name or one holding "=") is skipped; the others are
  // still handed over.
  for (const auto& [name, value] : env) os->SetEnvironmentVariable(name, value);

  if (!FileSystemUtils::DoesPathExist(path)) return os->RunShellCommand(path) == 0;
  if (OpenApplication(os, path)) return true;
  if (!FileSystemUtils::DoesPathExist(path)) return false;
  // The scan deliberately covers only as many positions as the path has characters, so a
  // late quote in a path holding several stays unescaped and the shell then refuses the
  // command. This is the established command text of this fallback; ForkUpdater quotes fully.
  const std::string command = "'" + EscapeSingleQuotes(path, path.size()) + "' &";
  return os->RunShellCommand(command) == 0;
}

std::string QuoteShellArgument(const std::string& path) {
  return "'" + EscapeSingleQuotes(path, std::string::npos) + "'";
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
