// Reliability harnesses: they model what the hosts' successful calls left in the three shared
// files and load them back through the library to compare (exit 0 on success, 77 when skipped):
//
//   ReliabilityHarness torture [--processes N] [--seconds S] [--seed X] [--users U]
//   ReliabilityHarness crash [--kills N] [--seed X]
//
// Torture: hosts call the exports at once on one sandboxed machine (--users 2 or 3: as that many
// administrators sharing the machine-wide store), each on its own identifiers and keys, so a
// stale save, a lock failing to exclude or a skipped reload shows against its model.
//
// Crash: a host is SIGKILLed at random moments of its saves; then no lock may be held and the
// files, loaded through the library (recovering a journal), must hold every returned change.
// Calls are planned from their number and the files' content, and the host shares the last call
// started and returned, so the harness knows the two acceptable states and the next host carries
// on from the one it finds. A load recovering a journal is killed too.

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <list>
#include <map>
#include <new>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "VantuUpdater/VantuUpdater.h"
#include "support/ChildProcess.h"
#include "support/MultiUser.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemVersion.h"
#include "xplat/MapPref.h"
#include "xplat/PrefsLockScope.h"
#include "xplat/PrefsWriter.h"
#include "xplat/VantuUpdaterAMissingComponent.h"
#include "xplat/VantuUpdaterMissingCompsApp.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"
#include "xplat/VantuUpdaterPrefs.h"
#include "xplat/VantuUpdaterRegisteredApp.h"
#include "xplat/VantuUpdaterRegistrationManager.h"
#include "xplat/XMLDocumentNode.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// ---- What both harnesses share: the files' content as plain values, serving both as the model
// the successful calls update and as what the library loads back; the calls; the checks at rest.
struct MissingComponent {
  std::string category, name;
  std::string version;  // four parts, as the store writes it ("1.2.0.0")
};

// Where the three files of one sandboxed machine lie.
struct StoreFiles {
  std::string registry, missingComps, prefs;
};

// One entry per item, keyed "<kind>\t<owner>[\t...]", values tab-separated: by application
// "reg" (name, path) and "mc" (name, path, type), "comp" by application, category, name and
// version (no value); by key "pref" and "msg" (an entry of the "NotificationMessage" map).
struct StoreState : std::map<std::string, std::string> {
  static std::string Key(const std::string& kind, const std::string& owner) {
    return kind + "\t" + owner;
  }
  // The items of one kind, whose keys all sort between "<kind>\t" and "<kind>\n".
  const_iterator Begin(const std::string& kind) const { return lower_bound(kind + "\t"); }
  const_iterator End(const std::string& kind) const { return lower_bound(kind + "\n"); }
  size_t Count(const std::string& kind) const { return std::distance(Begin(kind), End(kind)); }
  // The items whose owner `keep` accepts.
  StoreState Filter(const std::function<bool(const std::string&)>& keep) const {
    StoreState kept;
    for (const auto& item : *this) {
      const size_t start = item.first.find('\t') + 1;
      if (keep(item.first.substr(start, item.first.find('\t', start) - start))) kept.insert(item);
    }
    return kept;
  }
  // The items expected (this) and not found in `actual`, and the reverse; empty when equal.
  std::string Diff(const StoreState& actual) const {
    std::ostringstream text;
    const auto missing = [&text](const StoreState& from, const StoreState& in, const char* what) {
      for (const auto& [key, value] : from) {
        const auto found = in.find(key);
        if (found == in.end() || found->second != value)
          text << "  " << what << ": " << key << "\t" << value << "\n";
      }
    };
    missing(*this, actual, "expected, not found");
    missing(actual, *this, "found, not expected");
    return text.str();
  }
};

// What interrupted saves leave: journals, unparsable (ignored) or complete (recovered by the next
// load), preference temporaries (swept by the next save) and "TempSwap." objects of an exchange.
struct Leftovers {
  size_t partialJournals = 0, completeJournals = 0, prefsTemporaries = 0, swapObjects = 0;
};

// `count` value-initialised objects in memory that the processes forked afterwards share.
template <class T>
T* SharedArray(size_t count) {
  void* memory =
      ::mmap(nullptr, sizeof(T) * count, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  T* items = static_cast<T*>(memory);
  for (size_t i = 0; i < count; ++i) new (items + i) T();
  return items;
}

double Milliseconds(Clock::time_point since) {
  return std::chrono::duration<double, std::milli>(Clock::now() - since).count();
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

const unsigned char* U(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.c_str());
}

std::string ComponentKey(const std::string& appID, const MissingComponent& c) {
  return StoreState::Key("comp", appID) + "\t" + c.category + "\t" + c.name + "\t" + c.version;
}

// Loads the files through the library's own classes in the Env installed now, so that an
// interrupted save's journal is recovered as a host would; reads the preferences `prefKeys`.
// Fails on an item the files hold twice.
bool LoadFiles(const StoreFiles& files, const std::set<std::string>& prefKeys, StoreState& out,
               std::string& error) {
  out = StoreState();
  error.clear();
  try {
    // The entries point into the stores' trees: the stores must outlive them.
    VantuUpdaterRegistrationManager registry;
    VantuUpdaterMissingCompsManager requests;
    std::list<VantuUpdaterRegisteredApp> registered;
    std::list<VantuUpdaterMissingCompsApp> apps;
    bool ok = registry.GetRegisteredApps(registered) && requests.GetMissingCompsApps(apps);
    for (const VantuUpdaterRegisteredApp& app : registered) {
      std::string appID, name, path;
      ok = ok && app.GetappID(appID) && app.GetDisplayName(name) && app.GetInstallPath(path) &&
           out.emplace(StoreState::Key("reg", appID), name + "\t" + path).second;
    }
    for (VantuUpdaterMissingCompsApp& app : apps) {
      std::string appID, name, path;
      int type = 0;
      std::list<VantuUpdaterAMissingComponent> components;
      ok = ok && app.GetAppID(appID) && app.GetDisplayName(name) && app.GetInstallPath(path) &&
           app.GetOperationType(type) && app.GetMissingComponents(components) &&
           out.emplace(StoreState::Key("mc", appID),
                       name + "\t" + path + "\t" + std::to_string(type)).second;
      for (const VantuUpdaterAMissingComponent& component : components) {
        MissingComponent c;
        FileSystemVersion version("0");
        ok = ok && component.Getcategory(c.category) && component.Getname(c.name) &&
             component.Getversion(version);
        c.version = version.ToString();
        ok = ok && out.emplace(ComponentKey(appID, c), "").second;
      }
    }
    // No preference lock installed: the file is read once, all a reader at rest needs.
    esd::PrefsWriter reader(files.prefs, "VantuUpdater");
    for (const std::string& key : prefKeys) {
      std::string value;
      ok = ok && reader.GetPref<std::string>(key, value, std::string());
      if (!value.empty()) out[StoreState::Key("pref", key)] = value;
    }
    esd::MapPref<std::string, std::string> messages("NotificationMessage");
    messages.SetPrefsFile(&reader);
    std::map<std::string, std::string> entries;
    ok = ok && messages.Get(entries);
    for (const auto& [key, value] : entries) out[StoreState::Key("msg", key)] = value;
    if (!ok) error = "the files did not load whole, or held an item twice";
  } catch (const std::exception& e) {
    error = std::string("loading threw: ") + e.what();
  }
  return error.empty();
}

bool Parses(const std::string& path) {
  const std::string bytes = testing_support::ReadFile(path);
  return esd::ExpatDOMBuilder<esd::XMLDocumentNode>::IsWellFormed(bytes.data(), bytes.size());
}

// What lies beside the files; appends to `problems` a file that does not parse and, once the
// stores were loaded (`atRest`), a complete journal or a "TempSwap." object left.
Leftovers Inspect(const StoreFiles& files, bool atRest, std::string& problems) {
  Leftovers found;
  std::set<fs::path> folders;
  for (const std::string& path : {files.registry, files.missingComps, files.prefs}) {
    if (::access(path.c_str(), F_OK) == 0 && !Parses(path)) problems += path + " does not parse\n";
    // Only the stores save through a journal.
    if (::access((path + "_").c_str(), F_OK) == 0)
      ++(Parses(path + "_") ? found.completeJournals : found.partialJournals);
    folders.insert(fs::path(path).parent_path());
  }
  const std::string temporary = fs::path(files.prefs).filename().string() + ".new";
  for (const fs::path& folder : folders) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(folder, ignored)) {
      const std::string name = entry.path().filename().string();
      found.swapObjects += StartsWith(name, "TempSwap.");
      found.prefsTemporaries += StartsWith(name, temporary);
    }
  }
  if (atRest && found.completeJournals + found.swapObjects > 0)
    problems += "a complete journal or a \"TempSwap.\" object is left beside the stores\n";
  return found;
}

enum Operation { kRegister, kUnregister, kDownload, kSetPref, kSetMessage, kTrigger, kOperations };
const char* const kOperationNames[kOperations] = {"register", "unregister",       "download",
                                                  "pref set", "pref map (r-m-w)", "trigger"};

// One call a host makes, as data. Preferences are set through the settings object every export
// uses; a message is a read-modify-write of the shared map under the preference lock.
struct Call {
  explicit Call(Operation op, std::string appID = {}, std::string name = {}, std::string path = {})
      : op(op), appID(std::move(appID)), name(std::move(name)), path(std::move(path)) {}

  Operation op;
  // A trigger without an application is a manual one; a preference's key and value are appID
  // and name.
  std::string appID, name, path;
  int type = 0;
  bool registerFirst = false;
  std::vector<MissingComponent> components;

  long Make() const {
    switch (op) {
      case kRegister:
        return ROZRegisterApplication(appID.c_str(), U(name), U(path));
      case kUnregister:
        return ROZUnRegisterApplication(appID.c_str());
      case kDownload: {
        std::vector<MissingComponent> copies = components;
        std::vector<ROZMissingComponent> entries;
        for (MissingComponent& c : copies)
          entries.push_back(ROZMissingComponent{&c.category[0], &c.name[0], &c.version[0]});
        std::vector<ROZMissingComponent*> pointers;
        for (ROZMissingComponent& entry : entries) pointers.push_back(&entry);
        ROZMissingComptList list{static_cast<uint32_t>(pointers.size()), pointers.data()};
        return ROZDownloadMissingComponents(appID.c_str(), U(name), U(path), "de_DE", &list,
                                            static_cast<ROZDownloadMissingCompType>(type),
                                            registerFirst);
      }
      case kSetPref:
        return VantuUpdaterPrefs::GetVantuUpdaterPrefs()->SetPref<std::string>(appID, name) ? 1 : 0;
      case kSetMessage: {
        VantuUpdaterPrefs* prefs = VantuUpdaterPrefs::GetVantuUpdaterPrefs();
        esd::PrefsLockScope lock(*prefs);
        std::map<std::string, std::string> messages;
        if (!lock.IsHeld() || !prefs->NotificationMessage.Get(messages)) return -1;
        messages[appID] = name;
        return prefs->NotificationMessage.Set(messages) ? 1 : 0;
      }
      default: {
        const bool manual = appID.empty();
        return ROZTriggerUpdateCheck(manual ? nullptr : appID.c_str(), U(name), U(path), "en_US",
                                     manual ? kROZTriggerManual : kROZTriggerScheduled, false);
      }
    }
  }
  // Updates `model` as the call does when it succeeds; returns the result it must give.
  long Apply(StoreState& model) const {
    const std::string registration = StoreState::Key("reg", appID);
    switch (op) {
      case kRegister:
        model[registration] = name + "\t" + path;
        return kROZResultOK;
      case kUnregister:
        model.erase(registration);
        return kROZResultOK;
      case kDownload: {
        if (registerFirst) model[registration] = name + "\t" + path;
        // The entry takes the request's name, path and type; "already requested" when every
        // component was recorded before.
        bool anyNew = components.empty();
        for (const MissingComponent& component : components) {
          anyNew = model.emplace(ComponentKey(appID, component), "").second || anyNew;
          model[StoreState::Key("mc", appID)] = name + "\t" + path + "\t" + std::to_string(type);
        }
        return anyNew ? kROZResultOK : kROZResultAlreadyRequested;
      }
      case kSetPref:
      case kSetMessage:
        model[StoreState::Key(op == kSetPref ? "pref" : "msg", appID)] = name;
        return 1;
      default:
        return kROZResultOK;
    }
  }
  // The owner of the items the call changes.
  std::string Item() const { return op == kTrigger ? "Launch" : appID; }
};

// Makes the sandbox's user an administrator with the updater installed; returns where its files
// lie.
StoreFiles PrepareSandbox(testing_support::UpdaterSandbox& sandbox) {
  sandbox.env().SetGroups({"admin"});
  sandbox.InstallUpdater();
  // Launches are counted, not run: thousands of updater processes would measure fork, not us.
  sandbox.env().RecordLaunches(true, 0);
  return {sandbox.RegistryFile(), sandbox.MissingCompsFile(),
          sandbox.UserDataDir() + "/VantuUpdaterPrefs.dat"};
}

// ---- The torture

constexpr int kAppsPerProcess = 6;
constexpr int kMessagesPerProcess = 4;

// What the workers did, added up in memory they share with the harness.
struct Totals {
  std::atomic<unsigned long> calls, failures, lost, compared;
  std::atomic<unsigned long> manual[3], scheduled[3];  // by user
  std::atomic<int> done;
};

// One worker process: random calls until the deadline, each checked against the model.
class Worker {
 public:
  Worker(size_t index, size_t user, unsigned long long seed, Totals& totals)
      : mIndex(index),
        mUser(user),
        mPrefix("torture.p" + std::to_string(index) + "."),
        mRandom(seed * 1000003ULL + index),
        mTotals(totals) {}

  void Run(Clock::time_point deadline) {
    while (Clock::now() < deadline) {
      const unsigned pick = Draw(100);
      Make(pick < 30   ? Register()
           : pick < 45 ? Unregister()
           : pick < 70 ? Download()
           : pick < 82 ? Preference()
           : pick < 92 ? Message()
                       : Trigger());
    }
  }

  // Once all are done, whether the files hold its model, less what failed calls touched. Each call
  // that starts the updater launched it once; an unregistration may have (if it emptied the store).
  void Compare(const StoreFiles& files, size_t launches) {
    const unsigned long least = mSucceeded[kDownload] + mSucceeded[kTrigger];
    const unsigned long most = least + mSucceeded[kUnregister];
    if (launches < least || launches > most) {
      ++mTotals.failures;
      std::cout << "worker " << mIndex << " started the updater " << launches << " times, expected "
                << least << " to " << most << std::endl;
    }
    const auto owned = [this](const std::string& key) {
      return key.compare(0, mPrefix.size(), mPrefix) == 0 && mTainted.count(key) == 0;
    };
    StoreState actual;
    std::string error;
    if (!LoadFiles(files, {mPrefix + "value"}, actual, error)) {
      std::cout << "worker " << mIndex << ": loading the files failed: " << error << std::endl;
      return;
    }
    const StoreState expected = mModel.Filter(owned);
    const std::string diff = expected.Diff(actual.Filter(owned));
    mTotals.lost += static_cast<size_t>(std::count(diff.begin(), diff.end(), '\n'));
    if (!diff.empty())
      std::cout << "worker " << mIndex << ": the files do not hold what its calls did:\n"
                << diff << std::flush;
    ++mTotals.compared;
  }

 private:
  unsigned Draw(size_t bound) { return static_cast<unsigned>(mRandom() % bound); }
  std::string AppID() { return mPrefix + "a" + std::to_string(Draw(kAppsPerProcess)); }
  std::string Serial() { return std::to_string(++mSequence); }

  // Makes one call and compares its result with the one the model expects.
  void Make(const Call& call) {
    StoreState next = mModel;
    const long expected = call.Apply(next);
    const Clock::time_point start = Clock::now();
    const long result = call.Make();
    ++mTotals.calls;
    if (result == expected) {
      ++mSucceeded[call.op];
      mModel = std::move(next);
      if (call.op == kTrigger) ++(call.appID.empty() ? mTotals.manual : mTotals.scheduled)[mUser];
      return;
    }
    ++mTotals.failures;
    mTainted.insert(call.Item());
    std::cout << "worker " << mIndex << ": " << kOperationNames[call.op] << " " << call.Item()
              << " gave " << result << ", expected " << expected << " after "
              << Milliseconds(start) << " ms" << std::endl;
  }

  Call Register() {
    const std::string appID = AppID();
    const std::string name = "Torture " + appID + " #" + Serial();
    return Call(kRegister, appID, name,
                "/opt/torture/" + appID + "/r" + std::to_string(mSequence % 4));
  }

  Call Unregister() {
    const size_t registered = mModel.Count("reg");
    if (registered == 0) return Register();
    const std::string key = std::next(mModel.Begin("reg"), Draw(registered))->first;
    return Call(kUnregister, key.substr(4));
  }

  // A missing-components request, sometimes registering first, sometimes under the registered
  // name and path (no re-registration) and sometimes under new ones (a replaced registration).
  Call Download() {
    Call call(kDownload, AppID());
    call.name = "Torture " + call.appID + " dl#" + Serial();
    call.path = "/opt/torture/" + call.appID + "/d" + std::to_string(mSequence % 4);
    const auto registered = mModel.find(StoreState::Key("reg", call.appID));
    if (registered != mModel.end() && Draw(2) == 0) {
      const std::string& value = registered->second;
      call.name = value.substr(0, value.find('\t'));
      call.path = value.substr(call.name.size() + 1);
    }
    call.registerFirst = Draw(4) == 0;
    call.type = static_cast<int>(Draw(3));
    for (unsigned i = Draw(3); i < 3; ++i) {
      call.components.push_back(MissingComponent{"cat" + std::to_string(Draw(2)),
                                                 "comp" + std::to_string(Draw(4)),
                                                 "1." + std::to_string(Draw(3)) + ".0.0"});
    }
    return call;
  }

  Call Preference() { return Call(kSetPref, mPrefix + "value", Serial()); }

  // Without working exclusion or reloads, the other processes' entries of the map would vanish.
  Call Message() {
    const std::string key = mPrefix + "m" + std::to_string(Draw(kMessagesPerProcess));
    return Call(kSetMessage, key, "message " + Serial());
  }

  // The preference writes the exports make themselves: a manual trigger records "Manual", a
  // scheduled one "Scheduled" unless a manual launch is pending.
  Call Trigger() {
    const std::string appID = Draw(2) == 0 ? std::string() : AppID();
    return Call(kTrigger, appID, "Torture",
                appID.empty() ? "/opt/torture" : "/opt/torture/" + appID);
  }

  const size_t mIndex, mUser;
  const std::string mPrefix;
  std::mt19937_64 mRandom;
  Totals& mTotals;
  unsigned long mSucceeded[kOperations] = {};
  StoreState mModel;
  std::set<std::string> mTainted;
  unsigned long mSequence = 0;
};

// The users of a run and their files; a run as one user is the harness's own in the sandbox.
struct User {
  testing_support::UserIdentity identity;
  std::string home, runtime;
  StoreFiles files;
};

// Gives each user a home and runtime folder, makes the sandbox reachable for them, and makes the
// machine-wide folder as an installation does.
bool MakeUsers(testing_support::UpdaterSandbox& sandbox, int count, std::vector<User>& users) {
  using namespace testing_support;
  const UserIdentity third{1003, 1003, {AdministratorsGroup()}};
  const UserIdentity* identities[] = {&AdministratorA(), &AdministratorB(), &third};
  const std::string base = std::filesystem::path(sandbox.root()).parent_path();
  const std::string folder = sandbox.AllUsersDataDir();
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  std::string why;
  bool ok = !error;
  for (const std::string& path : {base, sandbox.root(), folder + "/.."})
    ok = ok && MakeFolder(path, 0, 0, 0755, why);
  ok = ok && MakeFolder(folder, 0, AdministratorsGroup(), 02775, why);
  for (int u = 0; ok && u < count; ++u) {
    const std::string uid = std::to_string(identities[u]->uid);
    User user{*identities[u], base + "/home-" + uid, base + "/runtime-" + uid, {}};
    const std::string data = user.home + "/.local/share/Vantu/Updater5";
    user.files = {sandbox.RegistryFile(), data + "/VantuMissingComps.xml",
                  data + "/VantuUpdaterPrefs.dat"};
    for (const std::string& path : {user.home, user.runtime})
      ok = ok && MakeFolder(path, user.identity.uid, user.identity.gid, 0700, why);
    users.push_back(user);
  }
  return ok;
}

// Points the sandbox's Env at one user's own folders.
void UseFoldersOf(testing_support::UpdaterSandbox& sandbox, const User& user) {
  sandbox.env().SetHome(user.home);
  sandbox.env().SetVariable("XDG_RUNTIME_DIR", user.runtime);
}

// Runs the torture; false when it failed.
bool Torture(int processes, double seconds, int userCount, unsigned long long seed) {
  std::string why;
  const bool isolated = testing_support::EnterPrivateMountNamespace(why) &&
                        testing_support::UsePrivateSemaphores(why);
  if (!isolated) std::cout << "note: /dev/shm shared with the rest of the system (" << why << ")\n";

  testing_support::UpdaterSandbox sandbox;
  const StoreFiles files = PrepareSandbox(sandbox);
  std::vector<User> users;
  if (userCount == 1)
    users.push_back({testing_support::RootUser(), sandbox.home(), sandbox.runtimeDir(), files});
  else if (!MakeUsers(sandbox, userCount, users)) {
    std::cout << "could not make the users' folders\n";
    return false;
  }

  Totals& totals = *SharedArray<Totals>(1);
  testing_support::Pipe go;
  std::vector<pid_t> workers;
  for (size_t i = 0; i < static_cast<size_t>(processes); ++i) {
    const User& user = users[i % users.size()];
    const auto work = [&, i] {
      if (!go.Wait(60000)) return 3;
      Worker worker(i, i % users.size(), seed, totals);
      worker.Run(Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                    std::chrono::duration<double>(seconds)));
      ++totals.done;
      if (testing_support::WaitUntil([&] { return totals.done == processes; }, 60000, 10000))
        worker.Compare(user.files, sandbox.env().Launches().size());
      return 0;
    };
    UseFoldersOf(sandbox, user);
    workers.push_back(userCount == 1 ? testing_support::StartChild(work)
                                     : testing_support::StartAs(user.identity, work));
  }
  for (size_t i = 0; i < workers.size(); ++i) go.Signal();
  int crashed = 0;
  for (pid_t pid : workers) crashed += testing_support::WaitChild(pid) != 0;
  // A worker that hung or could not load the files did not compare them either.
  crashed = std::max(crashed, processes - static_cast<int>(totals.compared));

  // Every file loads and parses, nothing is left over, and each user's "Launch" is what its
  // triggers left.
  std::string error, atRest;
  size_t leftovers = 0;
  for (size_t u = 0; u < users.size(); ++u) {
    const User& user = users[u];
    UseFoldersOf(sandbox, user);
    StoreState actual;
    if (!LoadFiles(user.files, {"Launch"}, actual, error))
      atRest += "loading the files failed: " + error + "\n";
    const Leftovers left = Inspect(user.files, true, atRest);
    leftovers += left.partialJournals + left.prefsTemporaries;
    const std::string wanted = totals.manual[u] > 0      ? "Manual"
                               : totals.scheduled[u] > 0 ? "Scheduled"
                                                         : "";
    const std::string launch = actual[StoreState::Key("pref", "Launch")];
    if (launch != wanted)
      atRest += "\"Launch\" is \"" + launch + "\", expected \"" + wanted + "\"\n";
  }
  std::cout << atRest;

  std::printf("%d processes as %d user(s), %.1f s (%s locks): %lu calls, %lu failed, %lu items lost"
              " or wrong, %d workers crashed, %zu leftovers\n",
              processes, userCount, seconds, isolated ? "private" : "shared", totals.calls.load(),
              totals.failures.load(), totals.lost.load(), crashed, leftovers);
  return crashed == 0 && totals.failures == 0 && totals.lost == 0 && atRest.empty() &&
         leftovers == 0 && totals.calls > 0;
}

// ---- The crash harness

// The missing-components store only grows (the updater empties it); it is reset between kills
// once it holds this many components, so that saves keep a steady size.
constexpr size_t kMaxComponents = 60;

enum Target { kRegistry, kMissing, kPrefs, kTargets };

// One planned call, the result it must give and the state it leaves.
struct Step {
  Target target;
  Call call{kRegister};
  long expected = 0;
  StoreState after;
};

// Call number n, planned from the state before it; calls take turns among the three files. The
// registrations alternate phases of growth and of draining to nothing, so that every kind of save
// (create, grow, shrink, delete) gets killed.
Step Plan(long n, const StoreState& before) {
  Step s{static_cast<Target>(n % kTargets), Call(kRegister), 0, {}};
  Call& c = s.call;
  const long i = n / kTargets;
  if (s.target == kRegistry) {
    c = Call(kRegister, "crash.app" + std::to_string(i % 5), "Crash app #" + std::to_string(i),
             "/opt/crash/" + std::to_string(i % 3));
    const bool draining = (i / 30) % 3 == 2;
    if (draining && before.Count("reg") > 0) c.appID = before.Begin("reg")->first.substr(4);
    if (before.count(StoreState::Key("reg", c.appID)) && (draining || i % 4 == 3))
      c.op = kUnregister;
  } else if (s.target == kMissing) {
    c = Call(kDownload, "crash.mc" + std::to_string(i % 3),
             "Crash mc " + std::to_string((i / 7) % 2), "/opt/crash/mc");
    c.type = static_cast<int>((i / 5) % 3);
    // Now and then the component of three rounds before, mostly listed already: 9, though a
    // changed name still saves.
    const long k = i % 5 == 4 ? i - 3 : i;
    c.components = {{"cat" + std::to_string(k % 2), "c" + std::to_string(k),
                     "1." + std::to_string(k % 4) + ".0.0"}};
  } else {
    c = Call(i % 2 == 0 ? kSetPref : kSetMessage,
             i % 2 == 0 ? "crash.k" + std::to_string(i % 4) : "crash.m" + std::to_string(i % 3),
             "v" + std::to_string(i));
  }
  s.after = before;
  s.expected = c.Apply(s.after);
  return s;
}

std::string Describe(long n, const Step& step) {
  return "call " + std::to_string(n) + " (" + kOperationNames[step.call.op] + " " +
         step.call.Item() + ")";
}

// What a host shares with the harness in memory mapped before the fork (a kill tears no word):
// the last call started and returned, a wrong result and its call, recent call times per file.
struct Progress {
  std::atomic<long> started, returned, wrong, result;
  std::atomic<double> meanMs[kTargets];
};

// Kills `pid` at a uniform moment of the next `maxMs`.
void KillWithin(pid_t pid, std::mt19937_64& random, double maxMs) {
  const double delay = std::uniform_real_distribution<double>(0, 1)(random) * maxMs;
  std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(delay));
  ::kill(pid, SIGKILL);
  testing_support::WaitChild(pid);
}

class CrashRun {
 public:
  CrashRun(const StoreFiles& files, unsigned long long seed) : mFiles(files), mRandom(seed) {
    testing_support::WriteFile(mDecoy, "not a temporary, though named like one");
    for (auto& mean : mProgress[0].meanMs) mean = 20;
    mProgress[1].meanMs[0] = 5;
  }

  // Kills `kills` hosts and returns whether nothing was lost.
  bool Run(long kills) {
    bool completed = true;
    while (completed && mKills < kills) completed = OneKill();
    std::string ignored;
    const Leftovers left = Inspect(mFiles, true, ignored);
    std::printf("%ld kills, %ld of them during a recovery; %ld faults, %zu preference temporaries"
                " left\n", mKills, mRecoveryKills, mFaults, left.prefsTemporaries);
    // Besides the decoy, the last kill may have left one temporary no later save has swept yet.
    return completed && mFaults == 0 && fs::exists(mDecoy) && left.prefsTemporaries <= 2;
  }

 private:
  // One host started, killed, cleaned up after and checked.
  bool OneKill() {
    Progress& p = mProgress[0];
    p.started = p.returned = mNextCall - 1;
    p.wrong = -1;
    const pid_t host = testing_support::StartChild([&]() -> int {
      StoreState state = mModel;
      for (long n = mNextCall;; ++n) {
        const Step step = Plan(n, state);
        p.started = n;
        const Clock::time_point start = Clock::now();
        p.result = step.call.Make();
        if (p.result != step.expected) {
          p.wrong = n;
          ::_exit(3);
        }
        state = step.after;
        p.meanMs[step.target] = 0.8 * p.meanMs[step.target] + 0.2 * Milliseconds(start);
        p.returned = n;
      }
    });
    // The kill falls at a uniform moment of the first to third call, over a little more than
    // such calls took lately, whatever they cost (on a disk the syncs dominate, on tmpfs the CPU).
    const long victim = mNextCall + static_cast<long>(mRandom() % 3);
    const bool started =
        testing_support::WaitUntil([&] { return p.started >= victim || p.wrong >= 0; }, 10000, 50);
    KillWithin(host, mRandom, started ? std::min(250.0, 1.2 * p.meanMs[victim % kTargets]) : 0);
    ++mKills;

    ExpectLocksFree();
    // Before recovery files parse (only replaced whole); a journal may be partial. A complete one
    // is put in place by the next load, itself killed at random (which leaves the older text as a
    // complete journal, so the acceptable states stay the same two).
    std::string problems;
    if (Inspect(mFiles, false, problems).completeJournals > 0) KillDuringRecovery();
    Fault(problems);
    if (p.wrong >= 0) {
      const Step step = Plan(p.wrong, StateBefore(p.wrong));
      return Fault(Describe(p.wrong, step) + " gave " + std::to_string(p.result) + ", expected " +
                   std::to_string(step.expected) + "\n");
    }
    // Ten seconds without a call starting: a lock that outlived a host, or a hang.
    if (!started) return Fault("the host stalled before call " + std::to_string(victim) + "\n");
    return Check(p.started, p.returned);
  }

  // The model after every call up to `call` (exclusive) of the current host returned.
  StoreState StateBefore(long call) const {
    StoreState state = mModel;
    for (long n = mNextCall; n < call; ++n) state = Plan(n, state).after;
    return state;
  }

  // A killed host's locks are gone with it: nothing is broken, nothing repaired.
  void ExpectLocksFree() {
    for (const std::string& resource : {mFiles.registry, mFiles.missingComps, std::string("VantuUpdater")}) {
      if (testing_support::LockIsHeld(resource))
        Fault("the lock of " + resource + " outlived its killed holder\n");
    }
  }

  // A host that loads the files, killed at a random moment of the load.
  void KillDuringRecovery() {
    Progress& p = mProgress[1];
    p.started = p.returned = 0;
    const pid_t host = testing_support::StartChild([&] {
      p.started = 1;
      const Clock::time_point start = Clock::now();
      StoreState state;
      std::string error;
      LoadFiles(mFiles, {}, state, error);
      p.meanMs[0] = 0.8 * p.meanMs[0] + 0.2 * Milliseconds(start);
      p.returned = 1;
      return 0;
    });
    const bool started = testing_support::WaitUntil([&] { return p.started == 1; }, 10000, 50);
    KillWithin(host, mRandom, started ? 1.2 * p.meanMs[0] : 0);
    ++mRecoveryKills;
    ExpectLocksFree();
  }

  // Loads the files through the library and finds which acceptable state they are in.
  bool Check(long lastStarted, long lastReturned) {
    const std::string kill = "after kill " + std::to_string(mKills);
    const StoreState returned = StateBefore(lastReturned + 1);
    StoreState actual;
    std::string error;
    if (!LoadFiles(mFiles, mPrefKeys, actual, error)) return Fault(kill + ": " + error + "\n");
    std::string atRest;
    Inspect(mFiles, true, atRest);
    if (!atRest.empty()) Fault(kill + ":\n" + atRest);
    mModel = actual;
    mNextCall = lastReturned + 1;
    const bool during = lastStarted > lastReturned;
    const Step inFlight = Plan(lastStarted, returned);
    if (during && actual != returned && actual == inFlight.after) {
      mNextCall = lastStarted + 1;
    } else if (actual != returned) {
      Fault(kill + (during ? " during " + Describe(lastStarted, inFlight) : " between calls") +
            ", the files hold neither acceptable state:\n" + returned.Diff(actual));
    }
    if (mModel.Count("comp") < kMaxComponents) return true;
    if (!VantuUpdaterMissingCompsManager().Delete())
      return Fault("the missing-components store could not be reset\n");
    for (const char* kind : {"comp", "mc"}) mModel.erase(mModel.Begin(kind), mModel.End(kind));
    return true;
  }

  // Counts a fault that `text` describes, if any; true when none.
  bool Fault(const std::string& text) {
    mFaults += !text.empty();
    std::cout << text << std::flush;
    return text.empty();
  }

  const StoreFiles mFiles;
  const std::string mDecoy = mFiles.prefs + ".newer";
  const std::set<std::string> mPrefKeys = {"crash.k0", "crash.k1", "crash.k2", "crash.k3"};
  std::mt19937_64 mRandom;
  StoreState mModel;
  long mNextCall = 0;
  // The hosts' and the recovering loaders' progress.
  Progress* const mProgress = SharedArray<Progress>(2);
  long mKills = 0;
  long mRecoveryKills = 0;
  // Locks outliving their holder, unparsable files or leftovers, states neither acceptable one.
  long mFaults = 0;
};

}  // namespace

// An option's value, as given or by default, and the bounds it must lie in.
struct Option {
  double value, least, most;
};

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  std::map<std::string, Option> options = {{"processes", {16, 1, 256}},
                                           {"seconds", {30, 0.001, 1e6}},
                                           {"users", {1, 1, 3}},
                                           {"kills", {1000, 1, 1e9}},
                                           {"seed", {1.0 * std::random_device()(), 0, 1e15}}};
  bool ok = mode == "torture" || mode == "crash";
  for (int i = 2; ok && i < argc; i += 2) {
    const auto option = options.find(StartsWith(argv[i], "--") ? argv[i] + 2 : "");
    char* end = nullptr;
    ok = option != options.end() && i + 1 < argc;
    if (ok) option->second.value = std::strtod(argv[i + 1], &end);
    ok = ok && *end == '\0' && option->second.value >= option->second.least &&
         option->second.value <= option->second.most;
  }
  if (!ok) {
    std::cerr << "usage: " << argv[0] << " torture [--processes 1-256] [--seconds S] [--users 1-3]"
              << " [--seed X]\n       " << argv[0] << " crash [--kills N] [--seed X]\n";
    return 2;
  }
  const auto value = [&options](const char* name) { return options[name].value; };
  const auto seed = static_cast<unsigned long long>(value("seed"));
  std::cout << "seed " << seed << std::endl;
  if (mode == "torture" && value("users") > 1 && !testing_support::RunsAsRoot()) {
    std::cout << "skipped: running as several users needs root\n";
    return 77;
  }
  const auto crash = [&] {
    testing_support::UpdaterSandbox sandbox;
    return CrashRun(PrepareSandbox(sandbox), seed).Run(static_cast<long>(value("kills")));
  };
  ok = mode == "crash" ? crash()
                       : Torture(static_cast<int>(value("processes")), value("seconds"),
                                 static_cast<int>(value("users")), seed);
  std::cout << (ok ? "PASS" : "FAIL") << std::endl;
  return ok ? 0 : 1;
}
