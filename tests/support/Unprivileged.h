#ifndef TESTS_SUPPORT_UNPRIVILEGED_H
#define TESTS_SUPPORT_UNPRIVILEGED_H

#include <sys/types.h>

#include <functional>

namespace testing_support {

// The identity a root test run drops to for a non-root view: nobody / nogroup.
constexpr uid_t kUnprivilegedUid = 65534;
constexpr gid_t kUnprivilegedGid = 65534;

// Runs `body` in a forked child as a user without privileges and returns the child's exit status
// (body's return value). Under root the child drops to kUnprivilegedUid/Gid with no
// supplementary groups; otherwise it keeps the caller's identity, which already is unprivileged.
// Files the body must reach need permissions for that user (TempDir is 0700 until opened up).
// Returns 100 when dropping the privileges failed.
int RunUnprivileged(const std::function<int()>& body);

}  // namespace testing_support

#endif
