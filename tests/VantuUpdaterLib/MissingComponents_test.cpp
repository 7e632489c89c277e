// Missing-component requests: recorded in the user's store, then handed to the updater, which is
// signalled when it runs and started in download mode otherwise.

#include <filesystem>
#include <string>
#include <vector>

#include "VantuUpdaterLib/LibraryTestFixture.h"

namespace vantu_test {
namespace {

class MissingComponentsTest : public LibraryTest {
 protected:
  void SetUp() override {
    BecomeAdministrator();
    InstallUpdater();
  }

  // Components made of (category, name, version) triples; a null field stays null.
  struct Request {
    std::vector<ROZMissingComponent> components;
    std::vector<ROZMissingComponent*> pointers;
    ROZMissingComptList list{};

    Request(std::initializer_list<ROZMissingComponent> entries) : components(entries) {
      for (ROZMissingComponent& c : components) pointers.push_back(&c);
      list.count = static_cast<uint32_t>(pointers.size());
      list.components = pointers.data();
    }
  };

  static ROZMissingComponent Component(const char* category, const char* name,
                                       const char* version) {
    return ROZMissingComponent{const_cast<char*>(category), const_cast<char*>(name),
                               const_cast<char*>(version)};
  }

  int32_t Download(const Request& request, const char* language = "fr_FR",
                   bool registerFirst = false) {
    return ROZDownloadMissingComponents(appID.c_str(), U(displayName), U(installPath), language,
                                        &request.list, static_cast<ROZDownloadMissingCompType>(2),
                                        registerFirst);
  }

  std::string Store() const { return FileText(sandbox.MissingCompsFile()); }
};

// The first request is recorded and starts the updater in download mode; the same request again
// finds everything recorded already. (A running updater is signalled instead: the reference
// updater's end-to-end test sees that.)
TEST_F(MissingComponentsTest, RequestIsRecordedOnceAndTheUpdaterStarted) {
  const Request request = {Component("fonts", "Serif", "1.0"), Component("fonts", "Mono", "2.1")};
  EXPECT_EQ(0, Download(request, "fr_fr"));
  const std::string store = Store();
  EXPECT_NE(std::string::npos, store.find("AppID=\"" + appID + "\""));
  EXPECT_NE(std::string::npos, store.find("OperationType=\"2\""));
  EXPECT_NE(
      std::string::npos,
      store.find("<AMissingComponent category=\"fonts\" name=\"Serif\" version=\"1.0.0.0\">"));
  EXPECT_NE(std::string::npos,
            store.find("<AMissingComponent category=\"fonts\" name=\"Mono\" version=\"2.1.0.0\">"));
  auto launches = sandbox.WaitForLaunches(1);
  ASSERT_EQ(1u, launches.size());
  EXPECT_EQ("3", launches[0].environment.at("RZ_LAUNCH_MODE"));
  EXPECT_EQ("fr_FR", launches[0].environment.at("RZ_DISPLAY_LANG"));

  // Each request below must find the updater gone, or it would signal instead of starting it.
  ASSERT_TRUE(sandbox.WaitUntilUpdatersEnd());
  EXPECT_EQ(9, Download(request, "en"));
  EXPECT_EQ(store, Store());
  launches = sandbox.WaitForLaunches(2);
  ASSERT_EQ(2u, launches.size());
  EXPECT_EQ(0u, launches[1].environment.count("RZ_DISPLAY_LANG")) << "a short code is no language";
  ASSERT_TRUE(sandbox.WaitUntilUpdatersEnd());
  // One new component among known ones is a new request.
  const Request more = {Component("fonts", "Serif", "1.0"), Component("fonts", "Sans", "1.0")};
  EXPECT_EQ(0, Download(more));
  EXPECT_NE(std::string::npos, Store().find("name=\"Sans\""));
  EXPECT_EQ(3u, sandbox.WaitForLaunches(3).size());
  // Without registerFirst the registered-applications store is not touched.
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
}

// The first failing entry ends the request: entries before it stay recorded, those after it are
// not, and the updater is not started.
TEST_F(MissingComponentsTest, FailingEntryStopsTheRequest) {
  const Request request = {Component("fonts", "Serif", "1.0"), Component(nullptr, "Mono", "1.0"),
                           Component("fonts", "Sans", "1.0")};
  EXPECT_EQ(1, Download(request));
  EXPECT_NE(std::string::npos, Store().find("name=\"Serif\""));
  EXPECT_EQ(std::string::npos, Store().find("name=\"Mono\""));
  EXPECT_EQ(std::string::npos, Store().find("name=\"Sans\""));
  EXPECT_TRUE(sandbox.Launches().empty());

  // The same goes for a list whose entry is missing altogether.
  ROZMissingComponent* holes[] = {nullptr};
  const ROZMissingComptList withHole = {1, holes};
  EXPECT_EQ(1, ROZDownloadMissingComponents(appID.c_str(), U(displayName), U(installPath), nullptr,
                                            &withHole, kROZDownloadMissingCompTypeDefault, false));
}

// Without an installed updater the request is still recorded for later, and the answer says
// that nobody will act on it now.
TEST_F(MissingComponentsTest, MissingUpdaterKeepsTheRequest) {
  sandbox.RemoveUpdater();
  const Request request = {Component("fonts", "Serif", "1.0")};
  EXPECT_EQ(2, Download(request));
  EXPECT_NE(std::string::npos, Store().find("name=\"Serif\""));
  EXPECT_EQ(2, Download(request));
}

// An empty list records nothing (the empty store is not kept) but still wakes the updater.
TEST_F(MissingComponentsTest, EmptyListOnlyStartsTheUpdater) {
  const Request none = {};
  EXPECT_EQ(0, ROZDownloadMissingComponents(appID.c_str(), U(displayName), U(installPath), nullptr,
                                            &none.list, kROZDownloadMissingCompTypeDefault, true));
  EXPECT_FALSE(Exists(sandbox.MissingCompsFile()));
  EXPECT_NE(std::string::npos, FileText(sandbox.RegistryFile()).find(appID));
  EXPECT_EQ(1u, sandbox.WaitForLaunches(1).size());
}

}  // namespace
}  // namespace vantu_test
