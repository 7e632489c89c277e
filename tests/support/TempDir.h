#ifndef TESTS_SUPPORT_TEMPDIR_H
#define TESTS_SUPPORT_TEMPDIR_H

#include <string>

namespace testing_support {

// A fresh folder under ${TMPDIR:-/tmp}, removed with everything in it when the object dies.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return mPath; }
  std::string operator/(const std::string& name) const { return mPath + "/" + name; }

 private:
  std::string mPath;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);

}  // namespace testing_support

#endif
