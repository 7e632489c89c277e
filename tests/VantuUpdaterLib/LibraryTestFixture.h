#ifndef TESTS_VANTUUPDATERLIB_LIBRARYTESTFIXTURE_H
#define TESTS_VANTUUPDATERLIB_LIBRARYTESTFIXTURE_H

// Shared ground of the end-to-end tests of the exports: each test gets a sandboxed machine and
// calls the exports exactly as a host does.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VantuUpdater/VantuUpdater.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"

namespace vantu_test {

inline const unsigned char* U(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.c_str());
}

// The text of a file, or "<missing>" when it does not exist.
inline std::string FileText(const std::string& path) {
  if (::access(path.c_str(), F_OK) != 0) return "<missing>";
  return testing_support::ReadFile(path);
}

inline bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

inline bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A component list made of (category, name, version) triples; a null field stays null.
struct Components {
  std::vector<ROZMissingComponent> components;
  std::vector<ROZMissingComponent*> pointers;
  ROZMissingComptList list{};

  Components(std::initializer_list<std::vector<const char*>> entries) {
    for (const auto& e : entries)
      components.push_back({const_cast<char*>(e[0]), const_cast<char*>(e[1]),
                            const_cast<char*>(e[2])});
    for (ROZMissingComponent& c : components) pointers.push_back(&c);
    list = {static_cast<uint32_t>(pointers.size()), pointers.data()};
  }
};

class LibraryTest : public ::testing::Test {
 protected:
  LibraryTest()
      // Identifiers carry the process id: the workflow lock of an application is machine-wide,
      // and tests of other processes may run at the same time.
      : appID("org.example.Host" + std::to_string(::getpid())),
        otherAppID("org.example.Other" + std::to_string(::getpid())),
        displayName("Example Host"),
        installPath("/opt/Example Host") {}

  // Administrators are the only users for whom update checks are enabled.
  void BecomeAdministrator() { sandbox.env().SetGroups({"admin"}); }

  int32_t Register(const std::string& id) {
    return ROZRegisterApplication(id.c_str(), U(displayName), U(installPath));
  }

  // The environment entry `name` of the updater's launch number `count` (waited for), or
  // "<unset>".
  std::string Launched(size_t count, const std::string& name) {
    const auto launches = sandbox.WaitForLaunches(count);
    EXPECT_EQ(count, launches.size());
    if (launches.size() < count) return "<no launch>";
    const auto found = launches[count - 1].environment.find(name);
    return found == launches[count - 1].environment.end() ? "<unset>" : found->second;
  }

  // The number of launches once one more than `expected` would have reported (a launch reports
  // from its own process, after the call has returned).
  size_t LaunchesAfterAWhile(size_t expected) {
    return sandbox.WaitForLaunches(expected + 1, 500).size();
  }

  testing_support::UpdaterSandbox sandbox;
  const std::string appID;
  const std::string otherAppID;
  const std::string displayName;
  const std::string installPath;
};

}  // namespace vantu_test

#endif
