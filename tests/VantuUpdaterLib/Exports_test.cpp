// The exports end to end, called as a host calls them in a sandboxed machine. (The availability
// exchange is the reference updater's end-to-end test; InstallCheck.sh runs a C host.)

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/date_time/gregorian/gregorian.hpp>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "CEsdUpdate.h"
#include "VantuUpdater/VantuUpdater.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/VantuUpdaterPrefs.h"

namespace vantu_test {
namespace {

using testing_support::WriteFile;

const unsigned char* U(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.c_str());
}

// The text of a file, or "<missing>" when it does not exist.
std::string FileText(const std::string& path) {
  if (::access(path.c_str(), F_OK) != 0) return "<missing>";
  return testing_support::ReadFile(path);
}

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

bool Has(const std::string& text, const std::string& part) {
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

// The standard output of a shell command.
std::string RunCommand(const std::string& command) {
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  for (int c; pipe != nullptr && (c = std::fgetc(pipe)) != EOF;) output += static_cast<char>(c);
  if (pipe != nullptr) ::pclose(pipe);
  return output;
}

class ExportsTest : public ::testing::Test {
 protected:
  ExportsTest()
      // Identifiers carry the process id: the workflow lock of an application is machine-wide,
      // and tests of other processes may run at the same time.
      : appID("org.example.Host" + std::to_string(::getpid())),
        otherAppID("org.example.Other" + std::to_string(::getpid())) {}

  // Administrators are the only users for whom update checks are enabled.
  void BecomeAdministrator() { sandbox.env().SetGroups({"admin"}); }

  int32_t Register(const std::string& id) {
    return ROZRegisterApplication(id.c_str(), U(displayName), U(installPath));
  }

  // The entry `name` of the environment of launch number `count` (waited for), or "<unset>".
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
  const std::string displayName = "Example Host";
  const std::string installPath = "/opt/Example Host";
};

// Nothing but the eight functions may be visible to hosts: any other symbol would become part
// of the interface (and could clash with a host's own).
TEST(SharedLibrary, ExportsExactlyTheEightFunctionsUnderAVersionedSoname) {
  const std::string library = std::string("'") + VANTU_SHARED_LIBRARY + "'";
  EXPECT_EQ("ROZDoPluginAction T\nROZDownloadMissingComponents T\nROZGetVersion T\n"
            "ROZIsUpdateAvailable T\nROZIsUpdateCheckEnabled T\nROZRegisterApplication T\n"
            "ROZTriggerUpdateCheck T\nROZUnRegisterApplication T\nsoname: [libVantuUpdater.so.5]\n",
            RunCommand("nm -D --defined-only -P " + library + " | cut -d' ' -f1,2; readelf -d " +
                       library + " | grep -o 'soname: .*'"));
}

// Without a policy only members of an administrator group, compared by exact name, may check.
// The policy, read afresh each time, can only switch checks off.
TEST_F(ExportsTest, ChecksAreForAdministratorsUnlessThePolicySwitchesThemOff) {
  const struct {
    std::vector<std::string> groups;
    const char* disable;  // the policy's "Disable.Update"; null: no policy
    int32_t enabled;
  } cases[] = {
      {{"wheel"}, nullptr, 1},
      {{"users", "root"}, nullptr, 1},
      {{"x", "admin2", "sudo"}, nullptr, 1},
      {{}, nullptr, 0},
      {{"admin2", "sudoers", "Admin", "wheel ", "adm"}, nullptr, 0},
      {{"admin"}, "<true/>", 0},
      {{"admin"}, "<false/>", 1},
      {{"users"}, "<false/>", 0},
  };
  ::mkdir((sandbox.root() + "/etc").c_str(), 0755);
  for (const auto& c : cases) {
    sandbox.env().SetGroups(c.groups);
    std::remove(sandbox.PolicyFile().c_str());
    if (c.disable != nullptr)
      WriteFile(sandbox.PolicyFile(), std::string("<plist><dict><key>Disable.Update</key>") +
                                          c.disable + "</dict></plist>");
    EXPECT_EQ(c.enabled, ROZIsUpdateCheckEnabled())
        << ::testing::PrintToString(c.groups) << (c.disable ? c.disable : "");
  }
}

// Arguments over their (inclusive) limit, identifiers that are not one plain 7-bit file-name
// component and text that is not UTF-8 give 3 and leave the machine as it was. The download has
// no path limit, the language is never refused; without an application the trigger checks only
// the name and that there is a path.
TEST_F(ExportsTest, EachExportChecksItsArguments) {
  BecomeAdministrator();
  using Text = std::optional<std::string>;
  const Text id = appID, name = displayName, path = installPath, null;
  const std::string all = "ruatpd";  // register, unregister, available, trigger, plug-in, download
  const struct {
    const char* what;
    Text id, name, path;
    std::string refusedBy;
    const char* language = "en_US";
  } rows[] = {
      {"empty identifier", "", name, path, all},
      {"identifier of 257 bytes", std::string(257, 'a'), name, path, all},
      {"identifier of 256 bytes", std::string(256, 'a'), name, path, ""},
      {"identifier not 7-bit", "org.example.caf\xC3\xA9", name, path, all},
      {"identifier .", ".", name, path, all},
      {"identifier ..", "..", name, path, all},
      {"identifier with /", "org/example", name, path, all},
      {"identifier with a tab", "org.example\tA", name, path, all},
      {"identifier with DEL", "org.example\x7F", name, path, all},
      {"null identifier", null, name, path, "ruapd"},
      {"null name", id, null, path, "ratd"},
      {"empty name", id, "", path, "ratd"},
      {"name of 513 bytes", id, std::string(513, 'n'), path, "ratd"},
      {"name of 512 bytes", id, std::string(512, 'n'), path, ""},
      {"overlong name", id, "Host \xC0\x80", path, "ratd"},
      {"encoded surrogate in the name", id, "Host \xED\xA0\x80", path, ""},
      {"null path", id, name, null, "ratd"},
      {"empty path", id, name, "", "ratd"},
      {"truncated path", id, name, "/opt/\xE2\x82", "ratd"},
      {"path of 255 bytes", id, name, "/" + std::string(254, 'p'), ""},
      {"path of 256 bytes", id, name, "/" + std::string(255, 'p'), "rat"},
      {"no language code", id, name, path, "", "\xFF"},
      {"no application, null name", null, null, path, all},
      {"no application, empty name", null, "", path, all},
      {"no application, name of 513 bytes", null, std::string(513, 'n'), path, all},
      {"no application, null path", null, name, null, all},
      {"no application, empty path", null, name, "", all},
      {"no application, overlong path", null, name, "/opt/\xC0\x80", "ruapd"},
  };
  const Components components = {{"fonts", "Serif", "1.0.0.0"}};
  const ROZMissingComptList* list = &components.list;
  const auto type = kROZDownloadMissingCompTypeDefault;
  for (const auto& row : rows) {
    const char* a = row.id ? row.id->c_str() : nullptr;
    const unsigned char* n = row.name ? U(*row.name) : nullptr;
    const unsigned char* p = row.path ? U(*row.path) : nullptr;
    const char* l = row.language;
    bool available = false;
    const std::pair<char, std::function<int32_t()>> exports[] = {
        {'r', [&] { return ROZRegisterApplication(a, n, p); }},
        {'u', [&] { return ROZUnRegisterApplication(a); }},
        {'a', [&] { return ROZIsUpdateAvailable(a, n, p, 7, &available, true); }},
        {'t', [&] { return ROZTriggerUpdateCheck(a, n, p, l, kROZTriggerManual, true); }},
        {'p', [&] { return ROZDoPluginAction(a); }},
        {'d', [&] { return ROZDownloadMissingComponents(a, n, p, l, list, type, true); }}};
    for (const auto& [letter, call] : exports) {
      SCOPED_TRACE(std::string(1, letter) + ": " + row.what);
      const auto before = sandbox.Snapshot();
      const bool refused = Has(row.refusedBy, std::string(1, letter));
      EXPECT_EQ(refused, call() == kROZResultInvalidArgument);
      EXPECT_TRUE(!refused || before == sandbox.Snapshot()) << "left something on disk";
    }
  }
}

class HostRequestsTest : public ExportsTest {
 protected:
  void SetUp() override {
    BecomeAdministrator();
    sandbox.InstallUpdater();
    sandbox.env().SetToday(boost::gregorian::date(2026, 3, 10));
  }

  std::string RequestFolder() const { return sandbox.CacheDataDir() + "/UpdateAvailable/" + appID; }

  int32_t AskAvailable(unsigned long request, bool& available) {
    return ROZIsUpdateAvailable(app, U(displayName), U(installPath), request, &available, false);
  }

  // Null `id`: a check of every application.
  int32_t Trigger(const char* id, ROZTriggerType type, const char* language = "en_US",
                  bool registerFirst = false) {
    return ROZTriggerUpdateCheck(id, U(displayName), U(installPath), language, type, registerFirst);
  }

  int32_t Download(const Components& request, const char* language = "fr_FR") {
    return ROZDownloadMissingComponents(app, U(displayName), U(installPath), language,
                                        &request.list, ROZDownloadMissingCompType(2), false);
  }

  static VantuUpdaterPrefs* Prefs() { return VantuUpdaterPrefs::GetVantuUpdaterPrefs(); }

  static std::string Launch() {
    std::string launch;
    Prefs()->Launch.Get(launch);
    return launch;
  }

  static bool Flag(esd::BasicPref<bool>& preference) {
    bool flag = false;
    EXPECT_TRUE(preference.Get(flag));
    return flag;
  }

  const char* const app = appID.c_str();
};

// A result file that says nothing usable is consumed as "no update". An active workflow answers
// "pending" and starts nothing; without an installed updater the marker is taken back, so the
// next request may try again.
TEST_F(HostRequestsTest, AvailabilityOddCases) {
  bool available = true;
  for (const char* content :
       {"<UpdateInfo><Result>1</Result>", "<UpdateInfo><Result>yes</Result></UpdateInfo>",
        "<UpdateInfo><Result>1</Result><Result>1</Result></UpdateInfo>", "<Other/>", ""}) {
    std::filesystem::create_directories(RequestFolder());
    WriteFile(RequestFolder() + "/7.xml", content);
    EXPECT_EQ(kROZResultOK, AskAvailable(7, available)) << content;
    EXPECT_FALSE(available) << content;
    EXPECT_FALSE(Exists(RequestFolder())) << content;
  }
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));

  std::filesystem::create_directories(sandbox.runtimeDir() + "/Updater5/locked");
  WriteFile(sandbox.MarkerFile(appID), "lock");
  EXPECT_EQ(kROZResultAnswerPending, AskAvailable(1, available));
  EXPECT_FALSE(Exists(RequestFolder()));
  std::filesystem::remove(sandbox.MarkerFile(appID));
  sandbox.RemoveUpdater();
  EXPECT_EQ(kROZResultUpdaterUnavailable, AskAvailable(1, available));
  EXPECT_FALSE(Exists(sandbox.MarkerFile(appID)));
  EXPECT_EQ(0u, LaunchesAfterAWhile(0));
}

// A scheduled check starts nothing (and succeeds) when automatic checks are off or the last is
// recent. A first run is shown to the user, later ones run in the background, in the tray only
// for the default check type. A pending manual launch stays manual. A manual check always starts
// the updater and registers when asked to. Without an application nothing is registered even
// when asked to, and the launch counts as the user's whatever its type.
TEST_F(HostRequestsTest, TriggersHonourTheUsersSettings) {
  ASSERT_TRUE(Prefs()->AutoCheck.Set(false));
  EXPECT_EQ(kROZResultOK, Trigger(app, kROZTriggerScheduled));
  ASSERT_TRUE(Prefs()->AutoCheck.Set(true));
  ASSERT_TRUE(Prefs()->AutoCheckFreq.Set(1));
  ASSERT_TRUE(Prefs()->LastDateCheck.Set(std::string("2026-03-04")));  // six days ago
  EXPECT_EQ(kROZResultOK, Trigger(app, kROZTriggerScheduled));
  EXPECT_EQ(0u, LaunchesAfterAWhile(0));
  EXPECT_EQ("", Launch());

  ASSERT_TRUE(Prefs()->LastDateCheck.Set(std::string("2026-03-03")));  // a week ago
  EXPECT_EQ(kROZResultOK, Trigger(app, kROZTriggerScheduled, "de"));
  EXPECT_EQ("1", Launched(1, "RZ_LAUNCH_MODE"));
  EXPECT_EQ("<unset>", Launched(1, "RZ_DISPLAY_LANG"));
  EXPECT_EQ("Scheduled", Launch());
  EXPECT_FALSE(Flag(Prefs()->InBackground));

  ASSERT_TRUE(Prefs()->IsFirstRun.Set(false));
  ASSERT_TRUE(Prefs()->Launch.Set(std::string("Manual")));
  EXPECT_EQ(kROZResultOK, Trigger(app, kROZTriggerScheduled));
  EXPECT_TRUE(Flag(Prefs()->InBackground));
  EXPECT_TRUE(Flag(Prefs()->InTrayIcon));
  EXPECT_EQ("Manual", Launch());
  ASSERT_TRUE(Prefs()->AutoCheckType.Set(2));
  EXPECT_EQ(kROZResultOK, Trigger(app, kROZTriggerScheduled));
  EXPECT_FALSE(Flag(Prefs()->InTrayIcon));
  EXPECT_EQ(3u, sandbox.WaitForLaunches(3).size());

  ASSERT_TRUE(Prefs()->AutoCheck.Set(false));
  EXPECT_EQ(kROZResultOK, Trigger(app, kROZTriggerManual, "EN-us"));
  EXPECT_EQ("en-US", Launched(4, "RZ_DISPLAY_LANG"));
  ASSERT_TRUE(Prefs()->Launch.Set(std::string()));
  EXPECT_EQ(kROZResultOK, Trigger(nullptr, kROZTriggerScheduled, nullptr, true));
  EXPECT_EQ("1", Launched(5, "RZ_LAUNCH_MODE"));
  EXPECT_EQ("<unset>", Launched(5, "RZ_LAUNCH_APPID"));
  EXPECT_EQ("Manual", Launch());
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
  EXPECT_EQ(kROZResultOK, Trigger(app, kROZTriggerManual, nullptr, true));
  EXPECT_TRUE(Has(FileText(sandbox.RegistryFile()), appID));
  sandbox.RemoveUpdater();
  EXPECT_EQ(kROZResultUpdaterUnavailable, Trigger(nullptr, kROZTriggerManual, nullptr));
}

// A missing-components request is recorded and starts the updater in download mode with the
// host's language; an empty list records nothing but still wakes it. The first failing entry
// ends a request and nothing starts. Without an installed updater the request is still recorded.
TEST_F(HostRequestsTest, MissingComponentRequests) {
  EXPECT_EQ(kROZResultOK, Download({{"fonts", "Serif", "1.0"}, {"fonts", "Mono", "2.1"}}, "fr_fr"));
  const std::string store = FileText(sandbox.MissingCompsFile());
  EXPECT_EQ("3", Launched(1, "RZ_LAUNCH_MODE"));
  EXPECT_EQ("fr_FR", Launched(1, "RZ_DISPLAY_LANG"));

  // Each request below must find the updater gone, or it would signal instead of starting it.
  ASSERT_TRUE(sandbox.WaitUntilUpdatersEnd());
  EXPECT_EQ(kROZResultOK, Download({}, "en"));
  EXPECT_EQ(store, FileText(sandbox.MissingCompsFile()));
  EXPECT_EQ("<unset>", Launched(2, "RZ_DISPLAY_LANG")) << "a short code is no language";

  ASSERT_TRUE(sandbox.WaitUntilUpdatersEnd());
  EXPECT_EQ(kROZResultMissingCompsStoreFailed,
            Download({{"fonts", "Sans", "1.0"}, {nullptr, "Bold", "1.0"}, {"fonts", "Thin", "1"}}));
  Components hole = {{"fonts", "Hole", "1.0"}};
  hole.pointers[0] = nullptr;
  EXPECT_EQ(kROZResultMissingCompsStoreFailed, Download(hole));
  for (const auto& [name, recorded] : {std::pair<std::string, bool>{"Sans", true}, {"Bold", false},
                                       {"Thin", false}})
    EXPECT_EQ(recorded, Has(FileText(sandbox.MissingCompsFile()), "name=\"" + name + "\""));
  EXPECT_EQ(2u, LaunchesAfterAWhile(2));

  sandbox.RemoveUpdater();
  EXPECT_EQ(kROZResultUpdaterUnavailable, Download({{"fonts", "Thin", "1.0"}}));
  EXPECT_TRUE(Has(FileText(sandbox.MissingCompsFile()), "name=\"Thin\""));
}

// Unregistering removes the entry and its cached result; an unknown application changes nothing.
// The last application to leave starts the updater in clean-up mode, unless it already runs. The
// plug-in action starts nothing until a check is due, and a running updater refuses it before
// the identifier is even looked at.
TEST_F(HostRequestsTest, UnregisteringPluginActionAndTheLastApplicationLeaving) {
  ASSERT_EQ(kROZResultOK, Register(appID));
  ASSERT_EQ(kROZResultOK, Register(otherAppID));
  ASSERT_TRUE(Prefs()->AutoCheckFreq.Set(1));
  ASSERT_TRUE(Prefs()->LastDateCheck.Set(std::string("2026-03-09")));
  EXPECT_EQ(kROZResultOK, ROZDoPluginAction(app));
  const auto cached = [&](const std::string& id) {
    return sandbox.CacheDataDir() + "/" + id + ".rzp.xml";
  };
  std::filesystem::create_directories(sandbox.CacheDataDir());
  for (const std::string& id : {appID, otherAppID}) WriteFile(cached(id), "<UpdateInfo/>");

  const auto before = sandbox.Snapshot();
  EXPECT_EQ(kROZResultNotRegistered, ROZUnRegisterApplication("org.example.Unknown"));
  EXPECT_EQ(kROZResultNotRegistered, ROZUnRegisterApplication(appID.substr(1).c_str()));
  EXPECT_EQ(before, sandbox.Snapshot());

  EXPECT_EQ(kROZResultOK, ROZUnRegisterApplication(app));
  EXPECT_FALSE(Has(FileText(sandbox.RegistryFile()), appID));
  EXPECT_FALSE(Exists(cached(appID)));
  EXPECT_TRUE(Exists(cached(otherAppID)));
  EXPECT_EQ(kROZResultNotRegistered, ROZUnRegisterApplication(app));
  EXPECT_EQ(0u, LaunchesAfterAWhile(0));

  ASSERT_EQ(kROZResultOK, ROZUnRegisterApplication(otherAppID.c_str()));
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
  EXPECT_EQ("5", Launched(1, "RZ_LAUNCH_MODE"));
  // With no store left at all, unregistering is a store failure.
  EXPECT_EQ(kROZResultRegistryUnusable, ROZUnRegisterApplication(app));

  ASSERT_TRUE(sandbox.WaitUntilUpdatersEnd());
  ASSERT_TRUE(sandbox.StartRunningUpdater());
  const size_t started = sandbox.Launches().size();
  ASSERT_EQ(kROZResultOK, Register(appID));
  EXPECT_EQ(kROZResultUpdaterRunning, ROZDoPluginAction(app));
  EXPECT_EQ(kROZResultUpdaterRunning, ROZDoPluginAction(""));
  ASSERT_EQ(kROZResultOK, ROZUnRegisterApplication(app));
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));
  EXPECT_EQ(started, LaunchesAfterAWhile(started)) << "a second updater";
}

// The workflows reach one another through the object, so a facade that answers differently
// changes them all.
class RecordingFacade : public CEsdUpdate {
 public:
  int32_t ROZRegisterApplication(const char*, const unsigned char*, const unsigned char*) override {
    ++registered;
    return kROZResultRegistryNotUpdated;
  }
  bool ROZIsUpdateCheckEnabled() override { return enabled; }

  size_t registered = 0;
  bool enabled = true;
};

TEST_F(HostRequestsTest, WorkflowsRegistrationStepAndStoreAnswers) {
  sandbox.env().SetGroups({"users"});  // the real answer would be "disabled"
  RecordingFacade facade;
  EXPECT_EQ(kROZResultNotRegistered, facade.AddOrUpdateRegistration(app, nullptr, U(installPath)));
  EXPECT_EQ(1u, facade.registered);

  // The download asks and registers through the overrides and reports the failure first.
  ROZMissingComptList empty = {0, nullptr};
  EXPECT_EQ(kROZResultNotRegistered,
            facade.ROZDownloadMissingComponents(app, U(displayName), U(installPath), nullptr,
                                                &empty, kROZDownloadMissingCompTypeDefault, true));
  EXPECT_EQ(2u, facade.registered);
  EXPECT_FALSE(Exists(sandbox.MissingCompsFile()));

  facade.enabled = false;
  EXPECT_EQ(kROZResultUpdateCheckDisabled, facade.ROZDoPluginAction(app));
  EXPECT_EQ(kROZResultUpdateCheckDisabled, facade.ROZTriggerUpdateCheck(
                                               nullptr, U(displayName), U(installPath), nullptr,
                                               kROZTriggerManual, false));
  EXPECT_FALSE(Exists(sandbox.RegistryFile()));

  // The facade's registration step: no display name means the identifier; an up-to-date entry
  // (also when a carriage return reads back as a line feed) is success without a write; it checks
  // only for null; any failure is "not registered".
  CEsdUpdate plain;
  const std::string moved = "/opt/Line\rBreak";
  const struct {
    const char* id;
    const char* name;
    const char* path;
    int32_t result;
    std::string stored;  // a part of the store afterwards
  } steps[] = {
      {app, nullptr, "/opt/a", kROZResultOK, "<DisplayName>" + appID + "</DisplayName>"},
      {app, "Example Host", "/opt/a", kROZResultOK, "<DisplayName>Example Host<"},
      {app, "Example Host", moved.c_str(), kROZResultOK, "/opt/Line"},
      {app, nullptr, moved.c_str(), kROZResultOK, "<DisplayName>Example Host<"},
      {app, "Example Host", moved.c_str(), kROZResultOK, "/opt/Line"},
      {nullptr, "Example Host", "/opt/a", kROZResultInvalidArgument, "/opt/Line"},
      {app, "Example Host", nullptr, kROZResultInvalidArgument, "/opt/Line"},
      {app, "Example Host", "", kROZResultNotRegistered, "/opt/Line"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(std::string(step.name ? step.name : "null") + ", " + (step.path ? step.path : ""));
    const testing_support::FileStamp stamp = testing_support::StampOf(sandbox.RegistryFile());
    EXPECT_EQ(step.result, plain.AddOrUpdateRegistration(
                               step.id, step.name ? U(step.name) : nullptr,
                               step.path ? U(step.path) : nullptr));
    EXPECT_TRUE(Has(FileText(sandbox.RegistryFile()), step.stored));
    EXPECT_TRUE(&step < &steps[3] || stamp == testing_support::StampOf(sandbox.RegistryFile()))
        << "an up-to-date entry was written";
  }

  // The store's answers reach the host as result codes. An entry XML cannot carry (an encoded
  // surrogate) fails alone. A store without its folder (a file in the way, no home) is a result
  // code, never an exception unwinding into C code.
  BecomeAdministrator();
  ASSERT_EQ(kROZResultOK, Register(appID));
  ASSERT_EQ(kROZResultOK, ROZRegisterApplication(otherAppID.c_str(), U("Other"), U("/opt/O")));
  const std::string text = FileText(sandbox.RegistryFile());
  EXPECT_EQ(kROZResultRegistryNotUpdated, Register(appID));
  EXPECT_EQ(kROZResultRegistryUnusable,
            ROZRegisterApplication(app, U("Host \xED\xA0\x80"), U(installPath)));
  EXPECT_EQ(text, FileText(sandbox.RegistryFile()));

  std::filesystem::remove_all(sandbox.root() + "/var");
  WriteFile(sandbox.root() + "/var", "a file where the machine folders should be");
  EXPECT_EQ(kROZResultRegistryUnusable, Register(appID));
  EXPECT_EQ(kROZResultRegistryUnusable, ROZUnRegisterApplication(app));
  EXPECT_EQ(kROZResultNotRegistered,
            CEsdUpdate().AddOrUpdateRegistration(app, U(displayName), U(installPath)));
  sandbox.env().SetHome("");
  EXPECT_EQ(kROZResultMissingCompsStoreFailed, Download({}));
}

}  // namespace
}  // namespace vantu_test
