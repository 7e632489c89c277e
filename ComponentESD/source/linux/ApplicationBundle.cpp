#include "xplat/ApplicationBundle.h"

#include "xplat/FileSystemUtils.h"
#include "xplat/PropertyList.h"

namespace esd {

namespace {

const char kProgramFolder[] = "/Contents/MacOS/";

}  // namespace

bool ApplicationBundle::Load(const std::string& bundlePath, ApplicationBundle& bundle) {
  if (bundlePath.empty()) return false;
  const PropertyList info =
      PropertyList::ReadFile(FileSystemUtils::AppendPathElement(bundlePath, "Contents/Info.plist"));
  std::string executable;
  // A name with a "/" would lead the program path out of Contents/MacOS.
  if (!info.GetString("CFBundleExecutable", executable) || executable.empty() ||
      executable.find('/') != std::string::npos || executable == "." || executable == "..")
    return false;
  ApplicationBundle loaded;
  loaded.mPath = bundlePath;
  loaded.mExecutableName = executable;
  info.GetString("CFBundlePackageType", loaded.mPackageType);
  info.GetString("CFBundleSignature", loaded.mSignature);
  bundle = loaded;
  return true;
}

bool ApplicationBundle::FindBundleOfProgram(const std::string& programPath,
                                            std::string& bundlePath) {
  const size_t at = programPath.rfind(kProgramFolder);
  if (at == std::string::npos || at == 0) return false;
  if (at + sizeof kProgramFolder - 1 == programPath.size()) return false;  // no program name
  bundlePath = programPath.substr(0, at);
  return true;
}

std::string ApplicationBundle::GetExecutablePath() const {
  return FileSystemUtils::AppendPathElement(
      FileSystemUtils::AppendPathElement(mPath, "Contents/MacOS"), mExecutableName);
}

}  // namespace esd
