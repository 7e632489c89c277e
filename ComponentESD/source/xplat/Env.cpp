#include "xplat/Env.h"

#include <atomic>

#include "xplat/EnvWrapper.h"
#include "xplat/ScopedEnv.h"

namespace esd {

namespace {

// Null means "the platform's own"; a ScopedEnv puts its Env here.
std::atomic<Env*> gCurrentEnv{nullptr};

}  // namespace

Env::~Env() = default;

Env* Env::Default() {
  Env* current = gCurrentEnv.load(std::memory_order_acquire);
  return current ? current : Platform();
}

EnvWrapper::~EnvWrapper() = default;

ScopedEnv::ScopedEnv(Env* env)
    : mPrevious(gCurrentEnv.exchange(env, std::memory_order_acq_rel)) {}

ScopedEnv::~ScopedEnv() { gCurrentEnv.store(mPrevious, std::memory_order_release); }

}  // namespace esd
