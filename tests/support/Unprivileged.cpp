#include "support/Unprivileged.h"

#include "support/ChildProcess.h"
#include "support/MultiUser.h"

namespace testing_support {

int RunUnprivileged(const std::function<int()>& body) {
  if (CanRunAsOtherUsers()) return RunAs(Attacker(), body);
  return WaitChild(StartChild(body));
}

}  // namespace testing_support
