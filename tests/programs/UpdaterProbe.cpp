// Asks the library whether the updater runs, as a separate process, so that a test can ask
// from a process whose parent is the updater. Usage: UpdaterProbe ROOT, where ROOT is the
// machine root the updater is installed under. Exit status: 0 not running, 1 running,
// 2 bad usage.
#include <string>

#include "xplat/EnvWrapper.h"
#include "xplat/ScopedEnv.h"
#include "xplat/VantuUpdaterUtils.h"

namespace {

class RootedEnv : public esd::EnvWrapper {
 public:
  explicit RootedEnv(std::string root) : EnvWrapper(esd::Env::Platform()), mRoot(std::move(root)) {}
  std::string GetRootDirectory() override { return mRoot; }

 private:
  std::string mRoot;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || argv[1][0] != '/') return 2;
  RootedEnv env(argv[1]);
  esd::ScopedEnv scope(&env);
  return VantuUpdaterUtils::IsUpdaterRunning(false) ? 1 : 0;
}
