#include "support/Unprivileged.h"

#include <grp.h>
#include <unistd.h>

#include "support/ChildProcess.h"

namespace testing_support {

int RunUnprivileged(const std::function<int()>& body) {
  return WaitChild(StartChild([&body]() {
    if (::geteuid() == 0) {
      // Group ids first: once the user id is dropped they can no longer be changed.
      if (::setgroups(0, nullptr) != 0 || ::setgid(kUnprivilegedGid) != 0 ||
          ::setuid(kUnprivilegedUid) != 0) {
        return 100;
      }
    }
    return body();
  }));
}

}  // namespace testing_support
