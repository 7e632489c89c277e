// Concurrency torture: many host processes calling the exported functions at once on one
// sandboxed machine, then a check that nothing a call reported as done was lost.
//
//   TortureHarness [--processes N] [--seconds S] [--seed X] [--users U]
//
// With --users 2 or 3 (as root; 77 otherwise) the processes run as that many administrators in
// turn, each with folders of their own, sharing the machine-wide store in a folder made as an
// installation makes it (root:<administrators' group> 2775).
//
// Each process owns its application identifiers and preference keys and keeps a model of what
// its successful calls must have left in the files, which the others change all the time: a
// save from a stale tree, a lock that fails to exclude or a skipped reload shows as a difference
// between a model and the files once all are done. Exit status 0 when every call gave its
// expected result (none ran into a lock time-out) and every model matches the files.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <random>

#include "reliability/StoreState.h"
#include "support/ChildProcess.h"
#include "support/MultiUser.h"
#include "support/PrivateMounts.h"
#include "support/UpdaterSandbox.h"

namespace {

using namespace reliability;
using Clock = std::chrono::steady_clock;

// The shortest lock time-out in the library (the stores'; the preferences wait 3 s). A call that
// failed after waiting this long may have failed on a lock; faster failures cannot have.
constexpr double kLockTimeoutMs = 2000.0;
constexpr int kAppsPerProcess = 6;
constexpr int kMessagesPerProcess = 4;

// What the workers did, added up in memory they share with the harness.
struct Totals {
  struct {
    std::atomic<unsigned long> calls, micros;
  } timing[kOperations];
  std::atomic<unsigned long> failures, timeouts, lost, checked, compared, launchProblems;
  std::atomic<unsigned long> manual[3], scheduled[3];  // by user
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

  // Once every worker is done, whether the files hold what the model holds, leaving out what a
  // failed call touched. Every call that started the updater must have launched it once, and an
  // unregistration may have (when it left the store empty, which depends on the others).
  void Compare(const StoreFiles& files, size_t launches) {
    const unsigned long least = mSucceeded[kDownload] + mSucceeded[kTrigger];
    const unsigned long most = least + mSucceeded[kUnregister];
    if (launches < least || launches > most) {
      ++mTotals.launchProblems;
      std::cout << "worker " << mIndex << " started the updater " << launches << " times, expected "
                << least << " to " << most << std::endl;
    }
    const auto owned = [this](const std::string& key) {
      return key.compare(0, mPrefix.size(), mPrefix) == 0 && mTainted.count(key) == 0;
    };
    StoreState actual;
    std::string error;
    if (!StoreState::Load(files, {mPrefix + "value"}, actual, error)) {
      std::cout << "worker " << mIndex << ": loading the files failed: " << error << std::endl;
      return;
    }
    const StoreState expected = mModel.Filter(owned);
    const std::string diff = expected.Diff(actual.Filter(owned));
    mTotals.checked += expected.size();
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

  // Makes one call, times it and compares its result with the one the model expects.
  void Make(const Call& call) {
    StoreState next = mModel;
    const long expected = call.Apply(next);
    const Clock::time_point start = Clock::now();
    const long result = call.Make();
    const unsigned long micros = static_cast<unsigned long>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
    ++mTotals.timing[call.op].calls;
    mTotals.timing[call.op].micros += micros;
    if (result == expected) {
      ++mSucceeded[call.op];
      mModel = std::move(next);
      if (call.op == kTrigger) ++(call.appID.empty() ? mTotals.manual : mTotals.scheduled)[mUser];
      return;
    }
    const double ms = micros / 1000.0;
    const bool timedOut = ms >= kLockTimeoutMs * 0.95;
    ++mTotals.failures;
    mTotals.timeouts += timedOut;
    mTainted.insert(call.Item());
    std::cout << "worker " << mIndex << ": " << kOperationNames[call.op] << " " << call.Item()
              << " gave " << result << ", expected " << expected << " after " << ms << " ms"
              << (timedOut ? " (lock time-out)" : "") << std::endl;
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

  Call Preference() { return Call::Pref(kSetPref, mPrefix + "value", Serial()); }

  // Without working exclusion or reloads, the other processes' entries of the map would vanish.
  Call Message() {
    const std::string key = mPrefix + "m" + std::to_string(Draw(kMessagesPerProcess));
    return Call::Pref(kSetMessage, key, "message " + Serial());
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

bool Chown(const std::string& path, uid_t uid, gid_t gid, mode_t mode) {
  return chown(path.c_str(), uid, gid) == 0 && chmod(path.c_str(), mode) == 0;
}

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
  bool ok = !error && Chown(base, 0, 0, 0755) && Chown(sandbox.root(), 0, 0, 0755) &&
            Chown(folder + "/..", 0, 0, 0755) && Chown(folder, 0, AdministratorsGroup(), 02775);
  for (int u = 0; ok && u < count; ++u) {
    const std::string uid = std::to_string(identities[u]->uid);
    User user{*identities[u], base + "/home-" + uid, base + "/runtime-" + uid, {}};
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

int Run(int processes, double seconds, int userCount, unsigned long long seed) {
  if (userCount > 1 && !testing_support::CanRunAsOtherUsers()) {
    std::cout << "skipped: running as several users needs root\n";
    return 77;
  }
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
    return 1;
  }

  Totals& totals = *SharedArray<Totals>(1);
  std::atomic<int>* const done = SharedArray<std::atomic<int>>(1);
  testing_support::Pipe go;
  std::vector<pid_t> workers;
  for (size_t i = 0; i < static_cast<size_t>(processes); ++i) {
    const User& user = users[i % users.size()];
    const auto work = [&, i] {
      if (!go.Wait(60000)) return 3;
      Worker worker(i, i % users.size(), seed, totals);
      worker.Run(Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                    std::chrono::duration<double>(seconds)));
      ++*done;
      if (testing_support::WaitUntil([&] { return *done == processes; }, 60000, 10000))
        worker.Compare(user.files, sandbox.env().Launches().size());
      return 0;
    };
    UseFoldersOf(sandbox, user);
    workers.push_back(userCount == 1 ? testing_support::StartChild(work)
                                     : testing_support::StartAs(user.identity, work));
  }
  const Clock::time_point start = Clock::now();
  for (size_t i = 0; i < workers.size(); ++i) go.Signal();
  int crashed = 0;
  for (pid_t pid : workers) crashed += testing_support::WaitChild(pid) != 0;
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  if (totals.compared < static_cast<unsigned long>(processes)) {
    std::cout << processes - totals.compared << " workers did not compare the files\n";
    crashed = std::max<int>(crashed, processes - static_cast<int>(totals.compared));
  }

  // Every file parses, nothing is left over, and each user's "Launch" is what its triggers left.
  std::string error, atRest;
  bool loaded = true;
  size_t lost = totals.lost, leftovers = 0;
  for (size_t u = 0; u < users.size(); ++u) {
    const User& user = users[u];
    UseFoldersOf(sandbox, user);
    StoreState actual;
    loaded = StoreState::Load(user.files, {"Launch"}, actual, error) && loaded;
    const Leftovers left = Inspect(user.files, true, atRest);
    leftovers += left.partialJournals + left.prefsTemporaries;
    const std::string wanted = totals.manual[u] > 0      ? "Manual"
                               : totals.scheduled[u] > 0 ? "Scheduled"
                                                         : "";
    const std::string launch = actual[StoreState::Key("pref", "Launch")];
    if (launch != wanted) {
      ++lost;
      std::cout << "\"Launch\" is \"" << launch << "\", expected \"" << wanted << "\"\n";
    }
  }
  if (!loaded) std::cout << "loading the files failed: " << error << "\n";
  std::cout << atRest;

  unsigned long calls = 0;
  std::printf("\n%d processes as %d user(s), %.1f s (%s locks)\n", processes, userCount, elapsed,
              isolated ? "private" : "shared");
  std::printf("%-18s %9s %9s\n", "operation", "calls", "mean ms");
  for (int op = 0; op < kOperations; ++op) {
    const auto& t = totals.timing[op];
    calls += t.calls;
    std::printf("%-18s %9lu %9.2f\n", kOperationNames[op], t.calls.load(),
                t.calls ? t.micros / 1000.0 / t.calls : 0.0);
  }
  std::printf("%-18s %9lu   (%.0f calls/s)\n", "all", calls, calls / elapsed);
  std::printf(
      "failed calls %lu (on a lock time-out %lu), lost or wrong items %zu of %lu checked,"
      " crashed workers %d, leftovers %zu\n",
      totals.failures.load(), totals.timeouts.load(), lost, totals.checked.load(), crashed,
      leftovers);

  const bool ok = crashed == 0 && totals.failures == 0 && loaded && lost == 0 && atRest.empty() &&
                  totals.launchProblems == 0 && leftovers == 0 && calls > 0;
  std::cout << (ok ? "PASS" : "FAIL") << std::endl;
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::map<std::string, double> options = {{"processes", 16}, {"seconds", 30}, {"users", 1}};
  unsigned long long seed = 0;
  if (!ParseOptions(argc, argv, options, seed) || options["processes"] < 1 ||
      options["processes"] > 256 || options["seconds"] <= 0 || options["users"] < 1 ||
      options["users"] > 3) {
    std::cerr << "usage: " << argv[0] << " [--processes 1-256] [--seconds S] [--users 1-3]"
              << " [--seed X]\n";
    return 2;
  }
  return Run(static_cast<int>(options["processes"]), options["seconds"],
             static_cast<int>(options["users"]), seed);
}
