#ifndef ESD_XPLAT_APPLICATIONBUNDLE_H
#define ESD_XPLAT_APPLICATIONBUNDLE_H

#include <string>

namespace esd {

// An application bundle: a folder NAME.app holding Contents/Info.plist and its program at
// Contents/MacOS/<CFBundleExecutable>. The Info.plist (XML or binary) tells the program's name,
// the bundle's package type ("APPL" for applications) and its four-character creator signature.
class ApplicationBundle {
 public:
  // Reads the bundle at `bundlePath`. False when there is no Info.plist, it does not parse, its
  // root is not a dictionary, or it lacks a CFBundleExecutable string. The type and signature
  // are optional (empty when absent).
  static bool Load(const std::string& bundlePath, ApplicationBundle& bundle);

  // The bundle a program file belongs to: the folder before the last "/Contents/MacOS/" of
  // `programPath`. False when the path lies in no such folder. Nothing is read from disk.
  static bool FindBundleOfProgram(const std::string& programPath, std::string& bundlePath);

  const std::string& GetPath() const { return mPath; }
  const std::string& GetExecutableName() const { return mExecutableName; }
  const std::string& GetPackageType() const { return mPackageType; }
  const std::string& GetSignature() const { return mSignature; }

  // <bundle>/Contents/MacOS/<CFBundleExecutable>. Not checked for existence.
  std::string GetExecutablePath() const;

 private:
  std::string mPath;
  std::string mExecutableName;
  std::string mPackageType;
  std::string mSignature;
};

}  // namespace esd

#endif
