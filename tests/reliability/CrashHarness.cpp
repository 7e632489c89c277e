// Crash safety: a host process is killed (SIGKILL) at random moments while it saves the
// registered-applications store, the missing-components store and the preferences file; after
// each kill no lock may still be held (the kernel drops a dead holder's locks, nothing is
// repaired) and the files, loaded through the library (so an interrupted save's journal is
// recovered as any host would), must hold every change whose call had returned.
//
//   CrashHarness [--kills N] [--seed X]
//
// The host runs one planned sequence of calls that cycles through the three files and reports
// over a pipe when each call starts and when it has returned. After a kill the harness knows the
// calls that returned (their changes must all be there) and at most one call in flight (its
// change may or may not be there, but nothing else may differ). The plan is a function of the
// call's number and the files' current content, so the harness computes both acceptable states
// exactly and the next host carries on from the one it finds. When a kill leaves a complete
// journal, the load that recovers it is killed too, at a random moment of the recovery.
//
// Exit status 0 when nothing was lost and no lock outlived its holder, 1 otherwise.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <list>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "VantuUpdater/VantuUpdater.h"
#include "reliability/StoreState.h"
#include "support/LockFiles.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/PrefsLockScope.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"
#include "xplat/VantuUpdaterRegisteredApp.h"
#include "xplat/VantuUpdaterRegistrationManager.h"
#include "xplat/VantuUpdaterPrefs.h"
#include "xplat/XMLDocumentNode.h"

namespace {

using Clock = std::chrono::steady_clock;
using reliability::MissingComponent;
using reliability::StoreFiles;
using reliability::StoreState;

// The preferences' lock resource, the same in every process.
const char kPrefsLock[] = "VantuUpdater";
// The missing-components store only grows (the updater empties it); it is reset between kills
// once it holds this many components, so that saves keep a steady size.
constexpr size_t kMaxComponents = 60;

enum Target { kRegistry, kMissing, kPrefs, kTargets };
const char* const kTargetNames[kTargets] = {"registered-applications store",
                                            "missing-components store", "preferences file"};

const unsigned char* U(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.c_str());
}

// One planned call: what it does, the result it must give and the state it leaves.
struct Step {
  Target target = kRegistry;
  std::string description;
  long expected = 0;
  StoreState after;
  // The call itself, run by the host.
  long (*run)(const Step&) = nullptr;
  std::string appID, name, path, key, value;
  int type = 0;
  MissingComponent component;
};

long RunRegister(const Step& s) {
  return ROZRegisterApplication(s.appID.c_str(), U(s.name), U(s.path));
}
long RunUnregister(const Step& s) { return ROZUnRegisterApplication(s.appID.c_str()); }
long RunDownload(const Step& s) {
  MissingComponent c = s.component;
  ROZMissingComponent entry{&c.category[0], &c.name[0], &c.version[0]};
  ROZMissingComponent* entries[] = {&entry};
  ROZMissingComptList list{1, entries};
  return ROZDownloadMissingComponents(s.appID.c_str(), U(s.name), U(s.path), "it_IT", &list,
                                      static_cast<ROZDownloadMissingCompType>(s.type), false);
}
long RunSetPref(const Step& s) {
  return VantuUpdaterPrefs::GetVantuUpdaterPrefs()->SetPref<std::string>(s.key, s.value) ? 1 : 0;
}
long RunSetMessage(const Step& s) {
  VantuUpdaterPrefs* prefs = VantuUpdaterPrefs::GetVantuUpdaterPrefs();
  esd::PrefsLockScope lock(*prefs);
  if (!lock.IsHeld()) return -1;
  std::map<std::string, std::string> messages;
  if (!prefs->NotificationMessage.Get(messages)) return -2;
  messages[s.key] = s.value;
  return prefs->NotificationMessage.Set(messages) ? 1 : 0;
}

// Call number n, planned from the state before it. Calls take turns among the three files.
// The registered applications go through phases of mostly registering and of draining the
// store to nothing, so saves that create, grow, shrink and delete the file all get killed.
Step Plan(long n, const StoreState& before) {
  Step s;
  s.after = before;
  s.target = static_cast<Target>(n % kTargets);
  const long i = n / kTargets;
  switch (s.target) {
    case kRegistry: {
      s.appID = "crash.app" + std::to_string(i % 5);
      const bool draining = (i / 30) % 3 == 2;
      if (draining && !before.registered.empty()) s.appID = before.registered.front().appID;
      const bool registered = before.FindRegistered(s.appID) != nullptr;
      if (registered && (draining || i % 4 == 3)) {
        s.run = RunUnregister;
        s.description = "unregister " + s.appID;
        s.after.Unregister(s.appID);
      } else {
        s.run = RunRegister;
        s.name = "Crash app #" + std::to_string(i);
        s.path = "/opt/crash/" + std::to_string(i % 3);
        s.description = "register " + s.appID;
        s.after.Register(s.appID, s.name, s.path);
      }
      break;
    }
    case kMissing: {
      s.run = RunDownload;
      s.appID = "crash.mc" + std::to_string(i % 3);
      s.name = "Crash mc " + std::to_string((i / 7) % 2);
      s.path = "/opt/crash/mc";
      s.type = static_cast<int>((i / 5) % 3);
      s.component = {"cat" + std::to_string(i % 2), "c" + std::to_string(i),
                     "1." + std::to_string(i % 4) + ".0.0"};
      auto known = before.missing.find(s.appID);
      // Now and then a component that is listed already: 9, though a changed name still saves.
      if (i % 5 == 4 && known != before.missing.end() && !known->second.components.empty())
        s.component = known->second.components.back();
      s.description = "request " + s.component.name + " for " + s.appID;
      s.expected = s.after.RequestMissing(s.appID, s.name, s.path, s.type, {s.component});
      break;
    }
    default: {
      s.value = "v" + std::to_string(i);
      s.expected = 1;
      if (i % 2 == 0) {
        s.run = RunSetPref;
        s.key = "crash.k" + std::to_string(i % 4);
        s.after.prefs[s.key] = s.value;
      } else {
        s.run = RunSetMessage;
        s.key = "crash.m" + std::to_string(i % 3);
        s.after.messages[s.key] = s.value;
      }
      s.description = "set " + s.key;
      break;
    }
  }
  return s;
}

// What the host tells the harness; written whole (far below PIPE_BUF), so a kill cannot tear it.
struct Message {
  int32_t kind;  // kStarted, kReturned, kWrong
  int32_t call;
  int64_t value;  // kReturned: how long the call took in microseconds; kWrong: its result
};
enum : int32_t { kStarted = 1, kReturned = 2, kWrong = 3 };

void Send(int fd, int32_t kind, long call, int64_t value) {
  const Message m{kind, static_cast<int32_t>(call), value};
  if (::write(fd, &m, sizeof m) != static_cast<ssize_t>(sizeof m)) ::_exit(5);
}

// The host: runs the plan from call `first` until it is killed.
[[noreturn]] void Host(int fd, long first, StoreState model) {
  for (long n = first;; ++n) {
    const Step step = Plan(n, model);
    Send(fd, kStarted, n, 0);
    const Clock::time_point start = Clock::now();
    const long result = step.run(step);
    if (result != step.expected) {
      Send(fd, kWrong, n, result);
      ::_exit(3);
    }
    model = step.after;
    Send(fd, kReturned, n,
         std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
  }
}

struct Options {
  long kills = 1000;
  unsigned long long seed = 0;
};

struct Figures {
  long kills = 0;
  long inFlight[kTargets] = {0, 0, 0};
  long inFlightApplied[kTargets] = {0, 0, 0};
  long betweenCalls = 0;
  long callsReturned = 0;
  long journalsComplete = 0;
  long journalsPartial = 0;
  long recoveryKills = 0;
  long recoveriesFinished = 0;
  long resets = 0;
  long losses = 0;
  long wrongResults = 0;
  long unparsableFiles = 0;
  long locksLeftHeld = 0;
};

class CrashRun {
 public:
  CrashRun(const Options& options, testing_support::UpdaterSandbox& sandbox)
      : mOptions(options),
        mSandbox(sandbox),
        mFiles{sandbox.RegistryFile(), sandbox.MissingCompsFile(),
               sandbox.UserDataDir() + "/VantuUpdaterPrefs.dat"},
        mLockResources{mFiles.registry, mFiles.missingComps, kPrefsLock},
        mRandom(options.seed) {
    for (int k = 0; k < 4; ++k) mPrefKeys.insert("crash.k" + std::to_string(k));
  }

  bool Run() {
    const Clock::time_point start = Clock::now();
    for (long kill = 0; kill < mOptions.kills; ++kill) {
      if (!OneKill()) return false;
    }
    mSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    StoreState::CheckAtRest(mFiles, mLeftovers);
    return true;
  }

  void Print() const {
    const Figures& f = mFigures;
    std::printf("\n%ld kills in %.1f s (%.1f ms per kill), %ld calls returned before them\n",
                f.kills, mSeconds, f.kills ? mSeconds * 1000 / f.kills : 0.0, f.callsReturned);
    for (int t = 0; t < kTargets; ++t)
      std::printf("  during a call on the %-30s %5ld (its change found applied %ld times)\n",
                  kTargetNames[t], f.inFlight[t], f.inFlightApplied[t]);
    std::printf("  between calls                                %5ld\n", f.betweenCalls);
    std::printf(
        "journals found after a kill: %ld complete (put in place by the next load), "
        "%ld partial (ignored)\n",
        f.journalsComplete, f.journalsPartial);
    std::printf("hosts killed while they recovered a journal: %ld (%ld finished first)\n",
                f.recoveryKills, f.recoveriesFinished);
    std::printf("missing-components store reset %ld times to keep its size\n", f.resets);
    std::printf("left at the end: %zu temporaries beside the preferences file, %zu partial "
                "journals\n",
                mLeftovers.prefsTemporaries, mLeftovers.partialJournals);
    std::printf("losses %ld, wrong results %ld, unparsable files %ld, locks held after a kill %ld\n",
                f.losses, f.wrongResults, f.unparsableFiles, f.locksLeftHeld);
  }

  bool Passed() const {
    const Figures& f = mFigures;
    // The last kill may have left one temporary that no later save has swept yet.
    return f.kills == mOptions.kills && f.losses == 0 && f.wrongResults == 0 &&
           f.unparsableFiles == 0 && f.locksLeftHeld == 0 && mLeftovers.prefsTemporaries <= 1;
  }

 private:
  // One host started, killed, cleaned up after and checked.
  bool OneKill() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return Fail("pipe failed");
    std::fflush(nullptr);
    const pid_t host = ::fork();
    if (host < 0) return Fail("fork failed");
    if (host == 0) {
      ::close(fds[0]);
      Host(fds[1], mNextCall, mModel);
    }
    ::close(fds[1]);
    // The host gets through zero to two calls, then the kill falls at a uniform moment of the
    // next one, over a little more than such calls have taken lately. So the plan moves on and
    // the three files take turns, whatever their calls cost (on a disk the syncs dominate, on
    // tmpfs the CPU).
    const long victim = mNextCall + static_cast<long>(mRandom() % 3);
    long lastStarted = mNextCall - 1, lastReturned = mNextCall - 1;
    bool started = false;
    while (!started) {
      Message m{};
      pollfd ready{fds[0], POLLIN, 0};
      if (::poll(&ready, 1, 10000) != 1 || ::read(fds[0], &m, sizeof m) != sizeof m) break;
      if (!Take(m, lastStarted, lastReturned)) break;
      started = m.kind == kStarted && m.call == victim;
    }
    const double meanMs = mMeanCallMs[victim % kTargets];
    std::uniform_real_distribution<double> delay(0, std::min(250.0, 1.2 * meanMs));
    if (started)
      std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(delay(mRandom)));
    ::kill(host, SIGKILL);
    int status = 0;
    while (::waitpid(host, &status, 0) < 0 && errno == EINTR) {
    }
    Message m{};
    while (::read(fds[0], &m, sizeof m) == static_cast<ssize_t>(sizeof m))
      Take(m, lastStarted, lastReturned);
    ::close(fds[0]);
    ++mFigures.kills;
    const long returned = lastReturned - mNextCall + 1;
    mFigures.callsReturned += returned;

    ExpectLocksFree();
    InspectJournals();
    if (mFigures.wrongResults > 0) return Fail("a call gave a wrong result");
    // Ten seconds without a call starting or returning: a lock that outlived a host, or a hang.
    if (!started) return Fail("the host stalled before call " + std::to_string(victim));
    return Check(lastStarted, lastReturned);
  }

  // Takes one message of the host into account; false when it reported a wrong result.
  bool Take(const Message& m, long& lastStarted, long& lastReturned) {
    if (m.kind == kStarted) lastStarted = m.call;
    if (m.kind == kReturned) {
      lastReturned = m.call;
      double& mean = mMeanCallMs[m.call % kTargets];
      mean = 0.8 * mean + 0.2 * (static_cast<double>(m.value) / 1000);
    }
    if (m.kind != kWrong) return true;
    ++mFigures.wrongResults;
    const Step step = Plan(m.call, StateBefore(m.call));
    std::cout << "call " << m.call << " (" << step.description << ") gave " << m.value
              << ", expected " << step.expected << "\n";
    return false;
  }

  // The model after every call up to `call` (exclusive) of the current host returned.
  StoreState StateBefore(long call) const {
    StoreState state = mModel;
    for (long n = mNextCall; n < call; ++n) state = Plan(n, state).after;
    return state;
  }

  // A killed host's locks are gone with it: nothing is broken, nothing repaired.
  void ExpectLocksFree() {
    for (int t = 0; t < kTargets; ++t) {
      if (!testing_support::LockIsHeld(mLockResources[t])) continue;
      ++mFigures.locksLeftHeld;
      std::cout << "the lock of the " << kTargetNames[t] << " outlived its killed holder\n";
    }
  }

  // Looks at what the kill left before the library recovers it: the store files themselves are
  // only ever replaced whole, so they must parse as they are; a journal may be partial.
  // A complete journal is put in place by the next load, which is itself killed at a random
  // moment of the recovery: a kill between the exchange and the journal's removal leaves the
  // older text as a complete journal, so the states the check accepts stay the same two.
  void InspectJournals() {
    for (const Target target : {kRegistry, kMissing}) {
      const std::string& store = target == kRegistry ? mFiles.registry : mFiles.missingComps;
      if (FileSystemUtils::DoesPathExist(store) && !Parses(store)) {
        ++mFigures.unparsableFiles;
        std::cout << store << " does not parse before recovery\n";
      }
      const std::string journal = store + "_";
      if (!FileSystemUtils::DoesPathExist(journal)) continue;
      if (!Parses(journal)) {
        ++mFigures.journalsPartial;
        continue;
      }
      ++mFigures.journalsComplete;
      KillDuringRecovery(target);
    }
    if (FileSystemUtils::DoesPathExist(mFiles.prefs) && !Parses(mFiles.prefs)) {
      ++mFigures.unparsableFiles;
      std::cout << mFiles.prefs << " does not parse\n";
    }
  }

  void KillDuringRecovery(Target target) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return;
    std::fflush(nullptr);
    const pid_t host = ::fork();
    if (host < 0) return;
    if (host == 0) {
      ::close(fds[0]);
      Send(fds[1], kStarted, 0, 0);
      const Clock::time_point start = Clock::now();
      if (target == kRegistry) {
        std::list<VantuUpdaterRegisteredApp> apps;
        VantuUpdaterRegistrationManager().GetRegisteredApps(apps);
      } else {
        std::list<VantuUpdaterMissingCompsApp> apps;
        VantuUpdaterMissingCompsManager().GetMissingCompsApps(apps);
      }
      Send(fds[1], kReturned, 0,
           std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
      ::_exit(0);
    }
    ::close(fds[1]);
    Message m{};
    pollfd ready{fds[0], POLLIN, 0};
    if (::poll(&ready, 1, 10000) == 1 && ::read(fds[0], &m, sizeof m) == sizeof m) {
      std::uniform_real_distribution<double> delay(0, 1.2 * mMeanRecoveryMs);
      std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(delay(mRandom)));
    }
    ::kill(host, SIGKILL);
    int status = 0;
    while (::waitpid(host, &status, 0) < 0 && errno == EINTR) {
    }
    ++mFigures.recoveryKills;
    if (::read(fds[0], &m, sizeof m) == sizeof m && m.kind == kReturned) {
      mMeanRecoveryMs = 0.8 * mMeanRecoveryMs + 0.2 * (static_cast<double>(m.value) / 1000);
      ++mFigures.recoveriesFinished;
    }
    ::close(fds[0]);
    ExpectLocksFree();
  }

  static bool Parses(const std::string& path) {
    const std::string bytes = testing_support::ReadFile(path);
    return esd::ExpatDOMBuilder<esd::XMLDocumentNode>::IsWellFormed(bytes.data(), bytes.size());
  }

  // Loads the files through the library and finds which acceptable state they are in.
  bool Check(long lastStarted, long lastReturned) {
    const StoreState returned = StateBefore(lastReturned + 1);
    StoreState actual;
    std::string error;
    if (!StoreState::Load(mFiles, mPrefKeys, actual, error)) {
      ++mFigures.unparsableFiles;
      return Fail("after kill " + std::to_string(mFigures.kills) + ": " + error);
    }
    StoreState::Leftovers leftovers;
    const std::string atRest = StoreState::CheckAtRest(mFiles, leftovers);
    if (!atRest.empty()) {
      ++mFigures.unparsableFiles;
      std::cout << "after kill " << mFigures.kills << ":\n" << atRest;
    }

    long next = lastReturned + 1;
    if (lastStarted > lastReturned) {
      const Step inFlight = Plan(lastStarted, returned);
      ++mFigures.inFlight[inFlight.target];
      if (actual == returned) {
        mModel = returned;
      } else if (actual == inFlight.after) {
        ++mFigures.inFlightApplied[inFlight.target];
        mModel = inFlight.after;
        next = lastStarted + 1;
      } else {
        ++mFigures.losses;
        std::cout << "after kill " << mFigures.kills << " during call " << lastStarted << " ("
                  << inFlight.description << "), the files hold neither state:\n"
                  << returned.Diff(actual);
        mModel = actual;
      }
    } else {
      ++mFigures.betweenCalls;
      mModel = returned;
      if (actual != returned) {
        ++mFigures.losses;
        std::cout << "after kill " << mFigures.kills << " between calls, the files differ:\n"
                  << returned.Diff(actual);
        mModel = actual;
      }
    }
    mNextCall = next;
    return ResetIfLarge();
  }

  bool ResetIfLarge() {
    size_t components = 0;
    for (const auto& item : mModel.missing) components += item.second.components.size();
    if (components < kMaxComponents) return true;
    VantuUpdaterMissingCompsManager store;
    if (!store.Delete()) return Fail("the missing-components store could not be reset");
    mModel.missing.clear();
    ++mFigures.resets;
    return true;
  }

  bool Fail(const std::string& why) {
    std::cout << why << std::endl;
    return false;
  }

  const Options mOptions;
  testing_support::UpdaterSandbox& mSandbox;
  const StoreFiles mFiles;
  const std::string mLockResources[kTargets];
  std::set<std::string> mPrefKeys;
  std::mt19937_64 mRandom;
  StoreState mModel;
  long mNextCall = 0;
  double mMeanCallMs[kTargets] = {20, 20, 20};
  double mMeanRecoveryMs = 5;
  Figures mFigures;
  double mSeconds = 0;
  StoreState::Leftovers mLeftovers;
};

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) return false;
    const char* value = argv[++i];
    if (arg == "--kills")
      options.kills = std::atol(value);
    else if (arg == "--seed")
      options.seed = std::strtoull(value, nullptr, 10);
    else
      return false;
  }
  return options.kills > 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  options.seed =
      static_cast<unsigned long long>(std::chrono::system_clock::now().time_since_epoch().count());
  if (!ParseOptions(argc, argv, options)) {
    std::cerr << "usage: " << argv[0] << " [--kills N] [--seed X]\n";
    return 2;
  }
  std::cout << "seed " << options.seed << std::endl;

  testing_support::UpdaterSandbox sandbox;
  sandbox.env().SetGroups({"admin"});
  sandbox.InstallUpdater();
  sandbox.env().RecordLaunches(true, 0);

  CrashRun run(options, sandbox);
  const bool completed = run.Run();
  run.Print();
  const bool ok = completed && run.Passed();
  std::cout << (ok ? "PASS" : "FAIL") << std::endl;
  return ok ? 0 : 1;
}
