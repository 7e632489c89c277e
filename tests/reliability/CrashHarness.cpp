// Crash safety: a host process is killed (SIGKILL) at random moments while it saves the two
// stores and the preferences file; after each kill no lock may still be held (the kernel drops a
// dead holder's locks, nothing is repaired) and the files, loaded through the library (which
// recovers an interrupted save's journal), must hold every change whose call had returned.
//
//   CrashHarness [--kills N] [--seed X]
//
// The host runs a planned sequence of calls, a function of the call's number and the files'
// content, and shares the last call it started and the last that returned. So after a kill the
// harness knows the two acceptable states exactly (with or without the call in flight), and the
// next host carries on from the one it finds. A load that recovers a complete journal is killed
// too, at a random moment. Exit status 0 when nothing was lost and no lock outlived its holder.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <iostream>
#include <random>
#include <thread>

#include "reliability/StoreState.h"
#include "support/ChildProcess.h"
#include "support/LockFiles.h"
#include "support/UpdaterSandbox.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"

namespace {

using namespace reliability;
using Clock = std::chrono::steady_clock;

// The missing-components store only grows (the updater empties it); it is reset between kills
// once it holds this many components, so that saves keep a steady size.
constexpr size_t kMaxComponents = 60;

enum Target { kRegistry, kMissing, kPrefs, kTargets };
const char* const kTargetNames[kTargets] = {"registered-applications store",
                                            "missing-components store", "preferences file"};

// One planned call, the result it must give and the state it leaves.
struct Step {
  Target target;
  Call call{kRegister};
  long expected = 0;
  StoreState after;
};

// Call number n, planned from the state before it. Calls take turns among the three files.
// The registered applications go through phases of mostly registering and of draining the
// store to nothing, so saves that create, grow, shrink and delete the file all get killed.
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
    c = Call::Pref(
        i % 2 == 0 ? kSetPref : kSetMessage,
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

// What a host shares with the harness, in memory mapped before the fork (a kill cannot tear a
// word): the last call started and returned, a call that gave a wrong result and that result,
// and how long calls on each file have taken lately.
struct Progress {
  std::atomic<long> started, returned, wrong, result;
  std::atomic<double> meanMs[kTargets];
};

void Kill(pid_t pid) {
  ::kill(pid, SIGKILL);
  testing_support::WaitChild(pid);
}

double Milliseconds(Clock::time_point since) {
  return std::chrono::duration<double, std::milli>(Clock::now() - since).count();
}

void Sleep(std::mt19937_64& random, double maxMs) {
  std::uniform_real_distribution<double> delay(0, maxMs);
  std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(delay(random)));
}

struct Figures {
  long kills = 0;
  long inFlight[kTargets] = {}, inFlightApplied[kTargets] = {};
  long journalsComplete = 0, journalsPartial = 0, recoveryKills = 0, recoveriesFinished = 0;
  long resets = 0, losses = 0, wrongResults = 0, unparsableFiles = 0, locksLeftHeld = 0;
};

class CrashRun {
 public:
  CrashRun(const StoreFiles& files, unsigned long long seed) : mFiles(files), mRandom(seed) {
    for (auto& mean : mProgress[0].meanMs) mean = 20;
    mProgress[1].meanMs[0] = 5;
  }

  // Kills `kills` hosts, prints the figures and returns whether nothing was lost.
  bool Run(long kills) {
    const Clock::time_point start = Clock::now();
    bool completed = true;
    while (completed && mFigures.kills < kills) completed = OneKill();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::string ignored;
    const Leftovers left = Inspect(mFiles, true, ignored);
    const Figures& f = mFigures;
    std::printf("\n%ld kills in %.1f s\n", f.kills, seconds);
    for (int t = 0; t < kTargets; ++t)
      std::printf("  during a call on the %-30s %5ld (its change found applied %ld times)\n",
                  kTargetNames[t], f.inFlight[t], f.inFlightApplied[t]);
    std::printf(
        "journals after a kill: %ld complete, %ld partial; recoveries killed %ld (%ld ended"
        " first); store resets %ld\n",
        f.journalsComplete, f.journalsPartial, f.recoveryKills, f.recoveriesFinished, f.resets);
    std::printf(
        "left: %zu preference temporaries, %zu partial journals; losses %ld, wrong results"
        " %ld, unparsable files %ld, locks held after a kill %ld\n",
        left.prefsTemporaries, left.partialJournals, f.losses, f.wrongResults, f.unparsableFiles,
        f.locksLeftHeld);
    // The last kill may have left one temporary that no later save has swept yet.
    return completed && f.losses == 0 && f.wrongResults == 0 && f.unparsableFiles == 0 &&
           f.locksLeftHeld == 0 && left.prefsTemporaries <= 1;
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
    if (started) Sleep(mRandom, std::min(250.0, 1.2 * p.meanMs[victim % kTargets]));
    Kill(host);
    ++mFigures.kills;

    ExpectLocksFree();
    InspectJournals();
    if (p.wrong >= 0) {
      ++mFigures.wrongResults;
      const Step step = Plan(p.wrong, StateBefore(p.wrong));
      return Fail(Describe(p.wrong, step) + " gave " + std::to_string(p.result) + ", expected " +
                  std::to_string(step.expected));
    }
    // Ten seconds without a call starting: a lock that outlived a host, or a hang.
    if (!started) return Fail("the host stalled before call " + std::to_string(victim));
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
    const std::string resources[kTargets] = {mFiles.registry, mFiles.missingComps, "VantuUpdater"};
    for (int t = 0; t < kTargets; ++t) {
      if (!testing_support::LockIsHeld(resources[t])) continue;
      ++mFigures.locksLeftHeld;
      std::cout << "the lock of the " << kTargetNames[t] << " outlived its killed holder\n";
    }
  }

  // What the kill left before any recovery: files are only replaced whole, so they parse; a
  // journal may be partial. A complete one is put in place by the next load, itself killed at
  // random (between the exchange and the journal's removal it leaves the older text as a
  // complete journal, so the acceptable states stay the same two).
  void InspectJournals() {
    std::string problems;
    const Leftovers found = Inspect(mFiles, false, problems);
    mFigures.unparsableFiles += !problems.empty();
    std::cout << problems;
    mFigures.journalsPartial += found.partialJournals;
    mFigures.journalsComplete += found.completeJournals;
    if (found.completeJournals > 0) KillDuringRecovery();
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
      StoreState::Load(mFiles, {}, state, error);
      p.meanMs[0] = 0.8 * p.meanMs[0] + 0.2 * Milliseconds(start);
      p.returned = 1;
      return 0;
    });
    if (testing_support::WaitUntil([&] { return p.started == 1; }, 10000, 50))
      Sleep(mRandom, 1.2 * p.meanMs[0]);
    Kill(host);
    ++mFigures.recoveryKills;
    mFigures.recoveriesFinished += p.returned;
    ExpectLocksFree();
  }

  // Loads the files through the library and finds which acceptable state they are in.
  bool Check(long lastStarted, long lastReturned) {
    const std::string kill = "after kill " + std::to_string(mFigures.kills);
    const StoreState returned = StateBefore(lastReturned + 1);
    StoreState actual;
    std::string error;
    if (!StoreState::Load(mFiles, mPrefKeys, actual, error)) {
      ++mFigures.unparsableFiles;
      return Fail(kill + ": " + error);
    }
    std::string atRest;
    Inspect(mFiles, true, atRest);
    if (!atRest.empty()) {
      ++mFigures.unparsableFiles;
      std::cout << kill << ":\n" << atRest;
    }
    mModel = actual;
    mNextCall = lastReturned + 1;
    const bool during = lastStarted > lastReturned;
    const Step inFlight = Plan(lastStarted, returned);
    if (during) ++mFigures.inFlight[inFlight.target];
    if (during && actual != returned && actual == inFlight.after) {
      ++mFigures.inFlightApplied[inFlight.target];
      mNextCall = lastStarted + 1;
    } else if (actual != returned) {
      ++mFigures.losses;
      std::cout << kill
                << (during ? " during " + Describe(lastStarted, inFlight) : " between calls")
                << ", the files hold neither acceptable state:\n"
                << returned.Diff(actual);
    }
    return ResetIfLarge();
  }

  bool ResetIfLarge() {
    if (mModel.Count("comp") < kMaxComponents) return true;
    if (!VantuUpdaterMissingCompsManager().Delete())
      return Fail("the missing-components store could not be reset");
    for (const char* kind : {"comp", "mc"}) mModel.erase(mModel.Begin(kind), mModel.End(kind));
    ++mFigures.resets;
    return true;
  }

  bool Fail(const std::string& why) {
    std::cout << why << std::endl;
    return false;
  }

  const StoreFiles mFiles;
  const std::set<std::string> mPrefKeys = {"crash.k0", "crash.k1", "crash.k2", "crash.k3"};
  std::mt19937_64 mRandom;
  StoreState mModel;
  long mNextCall = 0;
  // The hosts' and the recovering loaders' progress.
  Progress* const mProgress = SharedArray<Progress>(2);
  Figures mFigures;
};

}  // namespace

int main(int argc, char** argv) {
  std::map<std::string, double> options = {{"kills", 1000}};
  unsigned long long seed = 0;
  if (!ParseOptions(argc, argv, options, seed) || options["kills"] < 1) {
    std::cerr << "usage: " << argv[0] << " [--kills N] [--seed X]\n";
    return 2;
  }
  const long kills = static_cast<long>(options["kills"]);
  testing_support::UpdaterSandbox sandbox;
  const bool ok = CrashRun(PrepareSandbox(sandbox), seed).Run(kills);
  std::cout << (ok ? "PASS" : "FAIL") << std::endl;
  return ok ? 0 : 1;
}
