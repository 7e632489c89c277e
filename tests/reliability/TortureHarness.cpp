// Concurrency torture: many host processes calling the exported functions at once on one
// sandboxed machine, then a check that nothing a call reported as done was lost.
//
//   TortureHarness [--processes N] [--seconds S] [--seed X] [--users U]
//
// With --users 2 or 3 (as root) the processes run as that many administrators in turn, each
// with a home and runtime folder of their own, sharing the machine-wide store in a folder
// provisioned as installed (root:<administrators' group> 2775); 77 when not root.
//
// Each process owns its application identifiers ("torture.p<N>.a<K>") and preference keys, and
// keeps a model of what its successful calls must have left in the files. The others change the
// same files all the time, so any save made from a stale tree, any lock that fails to exclude,
// or any reload that is skipped shows up as a difference between a model and the files. Exit
// status 0 when every call gave its expected result, no call ran into a lock time-out and every
// model matches the files; 1 otherwise.

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "VantuUpdater/VantuUpdater.h"
#include "reliability/StoreState.h"
#include "support/ChildProcess.h"
#include "support/MultiUser.h"
#include "support/PrivateMounts.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/PrefsLockScope.h"
#include "xplat/VantuUpdaterPrefs.h"

namespace {

using Clock = std::chrono::steady_clock;
using reliability::MissingComponent;
using reliability::StoreFiles;
using reliability::StoreState;

// The shortest lock time-out in the library (the stores'; the preferences wait 3 s). A call that
// failed after waiting this long may have failed on a lock; faster failures cannot have.
constexpr double kLockTimeoutMs = 2000.0;
constexpr int kAppsPerProcess = 6;
constexpr int kMessagesPerProcess = 4;

enum Operation { kRegister, kUnregister, kDownload, kPrefSet, kPrefMap, kTrigger, kOperations };
const char* const kOperationNames[kOperations] = {"register", "unregister",       "download",
                                                  "pref set", "pref map (r-m-w)", "trigger"};

const unsigned char* U(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.c_str());
}

struct Options {
  int processes = 16;
  double seconds = 30;
  unsigned long long seed = 0;
  int users = 1;
};

// The users of a run and where each keeps its own files. A run as one user is the harness's own
// identity in the sandbox's home.
struct User {
  testing_support::UserIdentity identity;
  std::string home;
  std::string runtime;
  StoreFiles files;
  unsigned long manual = 0, scheduled = 0;
};

struct Timing {
  unsigned long calls = 0;
  double totalMs = 0;
  double maxMs = 0;
  void Add(double ms) {
    ++calls;
    totalMs += ms;
    maxMs = std::max(maxMs, ms);
  }
};

// One worker process: random calls until the deadline, each checked against the model.
class Worker {
 public:
  Worker(int index, unsigned long long seed, testing_support::UpdaterSandbox& sandbox)
      : mPrefix("torture.p" + std::to_string(index) + "."),
        mRandom(seed * 1000003ULL + static_cast<unsigned long long>(index)),
        mSandbox(sandbox) {}

  void Run(Clock::time_point deadline) {
    while (Clock::now() < deadline) {
      const unsigned pick = Draw(100);
      if (pick < 30)
        Register();
      else if (pick < 45)
        Unregister();
      else if (pick < 70)
        Download();
      else if (pick < 82)
        SetPreference();
      else if (pick < 92)
        UpdateMessages();
      else
        Trigger();
    }
  }

  void WriteResults(std::ostream& out) const {
    for (int op = 0; op < kOperations; ++op)
      out << "timing\t" << op << "\t" << mTiming[op].calls << "\t" << mTiming[op].totalMs << "\t"
          << mTiming[op].maxMs << "\n";
    for (const std::string& failure : mFailures) out << "failure\t" << failure << "\n";
    for (const std::string& key : mTainted) out << "tainted\t" << key << "\n";
    out << "timeouts\t" << mTimeouts << "\n";
    out << "triggers\t" << mManualTriggers << "\t" << mScheduledTriggers << "\n";
    // Every successful request or trigger starts the updater once; an unregistration does when
    // it leaves the store empty, which depends on the other processes.
    const size_t launches = mSandbox.env().Launches().size();
    const unsigned long least = mSucceeded[kDownload] + mSucceeded[kTrigger];
    out << "launches\t" << launches << "\t" << least << "\t" << least + mSucceeded[kUnregister]
        << "\n";
    mModel.Write(out);
  }

 private:
  unsigned Draw(unsigned bound) { return static_cast<unsigned>(mRandom() % bound); }

  std::string AppID(int k) const { return mPrefix + "a" + std::to_string(k); }

  // Runs one call, times it and compares its result with the expected one. A failed call
  // taints what it touched: the model no longer knows what the files must hold there.
  template <class Call>
  bool Check(Operation op, const std::string& key, long expected, Call call) {
    const Clock::time_point start = Clock::now();
    const long result = call();
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    mTiming[op].Add(ms);
    if (result == expected) {
      ++mSucceeded[op];
      return true;
    }
    const bool timedOut = ms >= kLockTimeoutMs * 0.95;
    if (timedOut) ++mTimeouts;
    std::ostringstream text;
    text << kOperationNames[op] << " " << key << " gave " << result << ", expected " << expected
         << " after " << ms << " ms" << (timedOut ? " (lock time-out)" : "");
    mFailures.push_back(text.str());
    mTainted.insert(key);
    return false;
  }

  void Register() {
    const std::string id = AppID(static_cast<int>(Draw(kAppsPerProcess)));
    const unsigned long n = ++mSequence;
    const std::string name = "Torture " + id + " #" + std::to_string(n);
    const std::string path = "/opt/torture/" + id + "/r" + std::to_string(n % 4);
    if (Check(kRegister, id, kROZResultOK,
              [&] { return ROZRegisterApplication(id.c_str(), U(name), U(path)); }))
      mModel.Register(id, name, path);
  }

  void Unregister() {
    if (mModel.registered.empty()) return Register();
    const std::string id = mModel.registered[Draw(mModel.registered.size())].appID;
    if (Check(kUnregister, id, kROZResultOK, [&] { return ROZUnRegisterApplication(id.c_str()); }))
      mModel.Unregister(id);
  }

  // A missing-components request, sometimes registering first, sometimes under the registered
  // name and path (no re-registration) and sometimes under new ones (a replaced registration).
  void Download() {
    const std::string id = AppID(static_cast<int>(Draw(kAppsPerProcess)));
    const unsigned long n = ++mSequence;
    const reliability::RegisteredApp* registered = mModel.FindRegistered(id);
    std::string name = "Torture " + id + " dl#" + std::to_string(n);
    std::string path = "/opt/torture/" + id + "/d" + std::to_string(n % 4);
    if (registered != nullptr && Draw(2) == 0) {
      name = registered->displayName;
      path = registered->installPath;
    }
    const bool registerFirst = Draw(4) == 0;
    const int type = static_cast<int>(Draw(3));

    std::vector<MissingComponent> wanted;
    const unsigned count = 1 + Draw(3);
    for (unsigned i = 0; i < count; ++i) {
      wanted.push_back(MissingComponent{"cat" + std::to_string(Draw(2)),
                                        "comp" + std::to_string(Draw(4)),
                                        "1." + std::to_string(Draw(3)) + ".0.0"});
    }
    std::vector<ROZMissingComponent> entries;
    for (MissingComponent& c : wanted) {
      entries.push_back(ROZMissingComponent{&c.category[0], &c.name[0], &c.version[0]});
    }
    std::vector<ROZMissingComponent*> pointers;
    for (ROZMissingComponent& entry : entries) pointers.push_back(&entry);
    ROZMissingComptList list{static_cast<uint32_t>(pointers.size()), pointers.data()};

    StoreState expected = mModel;
    if (registerFirst) {
      const reliability::RegisteredApp* current = expected.FindRegistered(id);
      if (current == nullptr || current->installPath != path || current->displayName != name)
        expected.Register(id, name, path);
    }
    const int expectedResult = expected.RequestMissing(id, name, path, type, wanted);
    if (Check(kDownload, id, expectedResult, [&] {
          return ROZDownloadMissingComponents(id.c_str(), U(name), U(path), "de_DE", &list,
                                              static_cast<ROZDownloadMissingCompType>(type),
                                              registerFirst);
        }))
      mModel = expected;
  }

  // A scalar preference through the settings object every export uses.
  void SetPreference() {
    const std::string key = mPrefix + "value";
    const std::string value = std::to_string(++mSequence);
    if (Check(kPrefSet, key, 1, [&] {
          return static_cast<long>(
              VantuUpdaterPrefs::GetVantuUpdaterPrefs()->SetPref<std::string>(key, value));
        }))
      mModel.prefs[key] = value;
  }

  // A read-modify-write of a map that all processes share, under the preference lock held
  // across the read and the write: without working exclusion or reloads, entries of other
  // processes would vanish.
  void UpdateMessages() {
    const std::string key = mPrefix + "m" + std::to_string(Draw(kMessagesPerProcess));
    const std::string value = "message " + std::to_string(++mSequence);
    if (Check(kPrefMap, key, 1, [&]() -> long {
          VantuUpdaterPrefs* prefs = VantuUpdaterPrefs::GetVantuUpdaterPrefs();
          esd::PrefsLockScope lock(*prefs);
          if (!lock.IsHeld()) return -1;
          std::map<std::string, std::string> messages;
          if (!prefs->NotificationMessage.Get(messages)) return -2;
          messages[key] = value;
          return prefs->NotificationMessage.Set(messages) ? 1 : 0;
        }))
      mModel.messages[key] = value;
  }

  // The preference writes the exports make themselves: a manual trigger records "Manual", a
  // scheduled one "Scheduled" unless a manual launch is pending.
  void Trigger() {
    if (Draw(2) == 0) {
      if (Check(kTrigger, "Launch", kROZResultOK, [&] {
            return ROZTriggerUpdateCheck(nullptr, U("Torture"), U("/opt/torture"), "en_US",
                                         kROZTriggerManual, false);
          }))
        ++mManualTriggers;
    } else {
      const std::string id = AppID(static_cast<int>(Draw(kAppsPerProcess)));
      if (Check(kTrigger, "Launch", kROZResultOK, [&] {
            return ROZTriggerUpdateCheck(id.c_str(), U("Torture"), U("/opt/torture/" + id), "en_US",
                                         kROZTriggerScheduled, false);
          }))
        ++mScheduledTriggers;
    }
  }

  const std::string mPrefix;
  std::mt19937_64 mRandom;
  testing_support::UpdaterSandbox& mSandbox;
  StoreState mModel;
  unsigned long mSequence = 0;
  Timing mTiming[kOperations];
  unsigned long mSucceeded[kOperations] = {};
  std::vector<std::string> mFailures;
  std::set<std::string> mTainted;
  unsigned long mTimeouts = 0;
  unsigned long mManualTriggers = 0;
  unsigned long mScheduledTriggers = 0;
};

// What one worker reported.
struct Report {
  bool complete = false;
  Timing timing[kOperations];
  std::vector<std::string> failures;
  std::set<std::string> tainted;
  unsigned long timeouts = 0;
  unsigned long manualTriggers = 0;
  unsigned long scheduledTriggers = 0;
  unsigned long launches = 0, leastLaunches = 0, mostLaunches = 0;
  StoreState model;
};

bool ReadReport(const std::string& path, Report& report) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string kind;
    std::getline(fields, kind, '\t');
    if (kind == "timing") {
      int op = 0;
      Timing t;
      fields >> op >> t.calls >> t.totalMs >> t.maxMs;
      if (op < 0 || op >= kOperations) return false;
      report.timing[op] = t;
    } else if (kind == "failure") {
      report.failures.push_back(line.substr(kind.size() + 1));
    } else if (kind == "tainted") {
      report.tainted.insert(line.substr(kind.size() + 1));
    } else if (kind == "timeouts") {
      fields >> report.timeouts;
    } else if (kind == "triggers") {
      fields >> report.manualTriggers >> report.scheduledTriggers;
    } else if (kind == "launches") {
      fields >> report.launches >> report.leastLaunches >> report.mostLaunches;
      report.complete = true;
    } else if (!report.model.ReadLine(line)) {
      return false;
    }
  }
  return report.complete;
}

// Drops what failed calls touched from both sides of a comparison.
void Untaint(StoreState& state, const std::set<std::string>& tainted) {
  state.registered.erase(std::remove_if(state.registered.begin(), state.registered.end(),
                                        [&](const reliability::RegisteredApp& app) {
                                          return tainted.count(app.appID) > 0;
                                        }),
                         state.registered.end());
  for (const std::string& key : tainted) {
    state.missing.erase(key);
    state.prefs.erase(key);
    state.messages.erase(key);
  }
}

size_t CountLines(const std::string& text) {
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) return false;
    const char* value = argv[++i];
    if (arg == "--processes")
      options.processes = std::atoi(value);
    else if (arg == "--seconds")
      options.seconds = std::atof(value);
    else if (arg == "--seed")
      options.seed = std::strtoull(value, nullptr, 10);
    else if (arg == "--users")
      options.users = std::atoi(value);
    else
      return false;
  }
  return options.processes > 0 && options.processes <= 256 && options.seconds > 0 &&
         options.users >= 1 && options.users <= 3;
}

bool Chown(const std::string& path, uid_t uid, gid_t gid, mode_t mode) {
  return chown(path.c_str(), uid, gid) == 0 && chmod(path.c_str(), mode) == 0;
}

// Gives each user a home and runtime folder, makes the sandbox reachable for them, and makes the
// machine-wide folder as an installation does.
bool MakeUsers(testing_support::UpdaterSandbox& sandbox, int count, std::vector<User>& users) {
  using namespace testing_support;
  const UserIdentity third{1003, 1003, {AdministratorsGroup()}};
  const UserIdentity* identities[] = {&AdministratorA(), &AdministratorB(), &third};
  const std::string base = FileSystemUtils::GetParentPath(sandbox.root());
  const std::string folder = sandbox.AllUsersDataDir();
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  bool ok = !error && Chown(base, 0, 0, 0755) && Chown(sandbox.root(), 0, 0, 0755) &&
            Chown(FileSystemUtils::GetParentPath(folder), 0, 0, 0755) &&
            Chown(folder, 0, AdministratorsGroup(), 02775);
  for (int u = 0; ok && u < count; ++u) {
    const std::string uid = std::to_string(identities[u]->uid);
    User user{*identities[u], base + "/home-" + uid, base + "/runtime-" + uid, {}, 0, 0};
    const std::string data = user.home + "/.local/share/Vantu/Updater5";
    user.files = {sandbox.RegistryFile(), data + "/VantuMissingComps.xml",
                  data + "/VantuUpdaterPrefs.dat"};
    for (const std::string& path : {user.home, user.runtime}) {
      ok = ok && std::filesystem::create_directory(path, error) &&
           Chown(path, user.identity.uid, user.identity.gid, 0700);
    }
    users.push_back(user);
  }
  return ok;
}

// Points the sandbox's Env at one user's own folders.
void UseFoldersOf(testing_support::UpdaterSandbox& sandbox, const User& user) {
  sandbox.env().SetHome(user.home);
  sandbox.env().SetVariable("XDG_RUNTIME_DIR", user.runtime);
}

int Run(const Options& options) {
  if (options.users > 1 && !testing_support::CanRunAsOtherUsers()) {
    std::cout << "skipped: running as several users needs root\n";
    return 77;
  }
  std::string why;
  const bool isolated = testing_support::EnterPrivateMountNamespace(why) &&
                        testing_support::UsePrivateSemaphores(why);
  if (!isolated) std::cout << "note: /dev/shm shared with the rest of the system (" << why << ")\n";

  testing_support::UpdaterSandbox sandbox;
  sandbox.env().SetGroups({"admin"});
  sandbox.InstallUpdater();
  // Launches are counted, not run: thousands of updater processes would measure fork, not us.
  sandbox.env().RecordLaunches(true, 0);
  std::vector<User> users;
  if (options.users == 1) {
    users.push_back({testing_support::RootUser(), sandbox.home(), sandbox.runtimeDir(),
                     {sandbox.RegistryFile(), sandbox.MissingCompsFile(),
                      sandbox.UserDataDir() + "/VantuUpdaterPrefs.dat"}, 0, 0});
  } else if (!MakeUsers(sandbox, options.users, users)) {
    std::cout << "could not make the users' folders\n";
    return 1;
  }

  testing_support::TempDir results;
  chmod(results.path().c_str(), 01777);
  testing_support::Pipe go;
  std::vector<pid_t> workers;
  for (int i = 0; i < options.processes; ++i) {
    const std::string resultPath = results / ("worker" + std::to_string(i));
    const User& user = users[i % users.size()];
    const auto work = [&, i, resultPath] {
      if (!go.Wait(60000)) return 3;
      Worker worker(i, options.seed, sandbox);
      const auto duration = std::chrono::duration_cast<Clock::duration>(
          std::chrono::duration<double>(options.seconds));
      worker.Run(Clock::now() + duration);
      std::ofstream out(resultPath);
      worker.WriteResults(out);
      out.close();
      return out ? 0 : 4;
    };
    UseFoldersOf(sandbox, user);
    workers.push_back(options.users == 1 ? testing_support::StartChild(work)
                                         : testing_support::StartAs(user.identity, work));
  }
  const Clock::time_point start = Clock::now();
  for (size_t i = 0; i < workers.size(); ++i) go.Signal();
  int crashed = 0;
  for (pid_t pid : workers) {
    if (testing_support::WaitChild(pid) != 0) ++crashed;
  }
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();

  // Gather.
  std::vector<Report> reports(workers.size());
  Timing totals[kOperations];
  unsigned long failures = 0, timeouts = 0, launchProblems = 0;
  std::set<std::string> prefKeys = {"Launch"};
  for (size_t i = 0; i < reports.size(); ++i) {
    if (!ReadReport(results / ("worker" + std::to_string(i)), reports[i])) {
      std::cout << "worker " << i << " left no complete report\n";
      ++crashed;
      continue;
    }
    const Report& r = reports[i];
    for (int op = 0; op < kOperations; ++op) {
      totals[op].calls += r.timing[op].calls;
      totals[op].totalMs += r.timing[op].totalMs;
      totals[op].maxMs = std::max(totals[op].maxMs, r.timing[op].maxMs);
    }
    failures += r.failures.size();
    timeouts += r.timeouts;
    users[i % users.size()].manual += r.manualTriggers;
    users[i % users.size()].scheduled += r.scheduledTriggers;
    for (const std::string& failure : r.failures)
      std::cout << "worker " << i << ": " << failure << "\n";
    if (r.launches < r.leastLaunches || r.launches > r.mostLaunches) {
      ++launchProblems;
      std::cout << "worker " << i << " started the updater " << r.launches << " times, expected "
                << r.leastLaunches << " to " << r.mostLaunches << "\n";
    }
    prefKeys.insert("torture.p" + std::to_string(i) + ".value");
  }

  // Every file parses, and holds exactly what the successful calls left: the shared store, and
  // each user's own files.
  std::vector<StoreState> actual(users.size());
  std::string error;
  bool loaded = true;
  StoreState::Leftovers leftovers;
  std::string atRest;
  size_t lost = 0, checked = 0, missingEntries = 0, messages = 0;
  for (size_t u = 0; u < users.size(); ++u) {
    UseFoldersOf(sandbox, users[u]);
    loaded = StoreState::Load(users[u].files, prefKeys, actual[u], error) && loaded;
    StoreState::Leftovers found;
    atRest += StoreState::CheckAtRest(users[u].files, found);
    leftovers.partialJournals += found.partialJournals;
    leftovers.prefsTemporaries += found.prefsTemporaries;
    missingEntries += actual[u].missing.size();
    messages += actual[u].messages.size();
    const std::string launch = actual[u].prefs.count("Launch") ? actual[u].prefs.at("Launch") : "";
    const std::string wanted =
        users[u].manual > 0 ? "Manual" : users[u].scheduled > 0 ? "Scheduled" : "";
    if (launch != wanted) {
      ++lost;
      std::cout << "\"Launch\" is \"" << launch << "\", expected \"" << wanted << "\"\n";
    }
  }
  if (loaded) {
    for (size_t i = 0; i < reports.size(); ++i) {
      if (!reports[i].complete) continue;
      StoreState expected = reports[i].model;
      StoreState found = actual[i % users.size()].Owned("torture.p" + std::to_string(i) + ".");
      Untaint(expected, reports[i].tainted);
      Untaint(found, reports[i].tainted);
      checked += expected.registered.size() + expected.missing.size() + expected.prefs.size() +
                 expected.messages.size();
      const std::string diff = expected.Diff(found);
      if (!diff.empty()) {
        lost += CountLines(diff);
        std::cout << "worker " << i << ": the files do not hold what its calls did:\n" << diff;
      }
    }
  } else {
    std::cout << "loading the files failed: " << error << "\n";
  }
  if (!atRest.empty()) std::cout << atRest;

  unsigned long calls = 0;
  std::printf("\n%d processes as %d user(s), %.1f s (%s locks)\n", options.processes,
              options.users, elapsed, isolated ? "private" : "shared");
  std::printf("%-18s %9s %9s %9s\n", "operation", "calls", "mean ms", "max ms");
  for (int op = 0; op < kOperations; ++op) {
    calls += totals[op].calls;
    std::printf("%-18s %9lu %9.2f %9.1f\n", kOperationNames[op], totals[op].calls,
                totals[op].calls ? totals[op].totalMs / totals[op].calls : 0.0, totals[op].maxMs);
  }
  std::printf("%-18s %9lu   (%.0f calls/s)\n", "all", calls, calls / elapsed);
  std::printf(
      "failed calls %lu (on a lock time-out %lu), lost or wrong items %zu of %zu checked,"
      " crashed workers %d\n",
      failures, timeouts, lost, checked, crashed);
  std::printf(
      "files: %zu registered applications, %zu missing-components entries, "
      "%zu messages\n",
      actual[0].registered.size(), missingEntries, messages);

  const bool ok = crashed == 0 && failures == 0 && loaded && lost == 0 && atRest.empty() &&
                  launchProblems == 0 && leftovers.prefsTemporaries == 0 &&
                  leftovers.partialJournals == 0 && calls > 0;
  std::cout << (ok ? "PASS" : "FAIL") << std::endl;
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  options.seed =
      static_cast<unsigned long long>(std::chrono::system_clock::now().time_since_epoch().count());
  if (!ParseOptions(argc, argv, options)) {
    std::cerr << "usage: " << argv[0]
              << " [--processes N] [--seconds S] [--seed X] [--users 1-3]\n";
    return 2;
  }
  std::cout << "seed " << options.seed << std::endl;
  return Run(options);
}
