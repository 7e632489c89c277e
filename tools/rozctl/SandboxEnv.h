#ifndef ROZCTL_SANDBOXENV_H
#define ROZCTL_SANDBOXENV_H

#include <string>
#include <vector>

#include "xplat/EnvWrapper.h"

namespace rozctl {

// The machine rozctl works on under --root DIR: DIR stands for "/" (so the shared stores lie in
// DIR/var/lib, the policy in DIR/etc, the updater in DIR/opt), the user's home is DIR/home, and
// the per-user folders are the defaults below that home whatever XDG_* says. The user's
// temporary items are DIR/run, so the workflow markers stay inside DIR too.
//
// Programs rozctl starts (the updater) see the same home: Activate() also rewrites this
// process's environment, which they inherit. The updater finds the root from where it is
// installed. The sandbox's running applications are the processes whose program lies below DIR,
// so an updater running on the real machine is not taken for the sandbox's, and the reverse.
// Named semaphores are the one thing not moved: they live in /dev/shm, named after the
// resources, which under DIR are mostly DIR's own paths (the preferences' lock, "VantuUpdater",
// and the applications' workflow locks are named without a path and shared with the machine).
class SandboxEnv : public esd::EnvWrapper {
 public:
  // `root` must be absolute, without a trailing "/", and not "/" itself.
  explicit SandboxEnv(const std::string& root);

  // Creates DIR, DIR/home, DIR/run (mode 0700) and DIR/tmp when missing and points HOME,
  // XDG_RUNTIME_DIR and TMPDIR of this process at them, unsetting the other XDG_* folder
  // variables. False, with a message in `error`, when a folder cannot be created.
  bool Activate(std::string& error);

  const std::string& root() const { return mRoot; }

  std::string GetRootDirectory() override { return mRoot; }
  bool GetHomeDirectory(std::string& path) override;
  bool GetEnvironmentVariable(const std::string& name, std::string& value) override;
  bool ListProcessIds(std::vector<pid_t>& pids) override;

 private:
  std::string mRoot;
  std::string mHome;
  std::string mRuntime;
  std::string mTemp;
};

// An absolute form of `path` (relative to the current folder) without trailing "/", without
// creating anything.
std::string AbsolutePath(const std::string& path);

}  // namespace rozctl

#endif
