#ifndef ESD_XPLAT_SCOPEDENV_H
#define ESD_XPLAT_SCOPEDENV_H

#include "xplat/Env.h"

namespace esd {

// Makes `env` the process-wide current Env (what Env::Default() returns) for the lifetime of
// this object, then puts the previous one back. Scopes nest; they must end in the reverse order
// of their start. Meant for tests and for the project's own tools (a --root option), which
// decide for the whole process; the library itself never installs one. `env` must outlive the
// scope.
class ScopedEnv {
 public:
  explicit ScopedEnv(Env* env);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  Env* mPrevious;
};

}  // namespace esd

#endif
