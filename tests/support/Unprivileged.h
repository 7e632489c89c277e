#ifndef TESTS_SUPPORT_UNPRIVILEGED_H
#define TESTS_SUPPORT_UNPRIVILEGED_H

#include <functional>

namespace testing_support {

// Runs `body` in a forked child without privileges and returns its exit status: under root as
// nobody/nogroup without supplementary groups (100 when the ids could not be taken), otherwise
// as the caller. Files the body must reach need permissions for that user.
int RunUnprivileged(const std::function<int()>& body);

}  // namespace testing_support

#endif
