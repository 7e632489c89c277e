#ifndef TESTS_SUPPORT_UNPRIVILEGED_H
#define TESTS_SUPPORT_UNPRIVILEGED_H

#include <sys/types.h>

#include <functional>

namespace testing_support {

// nobody / nogroup, whom a root test run drops to.
constexpr uid_t kUnprivilegedUid = 65534;
constexpr gid_t kUnprivilegedGid = 65534;

// Runs `body` in a forked child without privileges and returns its exit status: under root as
// kUnprivilegedUid/Gid without supplementary groups (100 when the ids could not be taken),
// otherwise as the caller. Files the body must reach need permissions for that user.
int RunUnprivileged(const std::function<int()>& body);

}  // namespace testing_support

#endif
