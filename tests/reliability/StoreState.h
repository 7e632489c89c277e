#ifndef TESTS_RELIABILITY_STORESTATE_H
#define TESTS_RELIABILITY_STORESTATE_H

// What the torture and the crash harness share: the content of the three shared files as plain
// values, serving both as the model the successful calls update and as what the library loads
// back from the files; the calls their hosts make; and the checks of the files at rest.

#include <sys/mman.h>

#include <functional>
#include <map>
#include <new>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {
class UpdaterSandbox;
}

namespace reliability {

struct RegisteredApp {
  std::string appID, displayName, installPath;
};

struct MissingComponent {
  std::string category, name;
  std::string version;  // four parts, as the store writes it ("1.2.0.0")
  bool operator==(const MissingComponent& o) const {
    return category == o.category && name == o.name && version == o.version;
  }
};

struct MissingApp {
  std::string displayName, installPath;
  int operationType = 0;
  std::vector<MissingComponent> components;  // in the order they were recorded
};

// Where the three files of one sandboxed machine lie.
struct StoreFiles {
  std::string registry, missingComps, prefs;
};

struct StoreState {
  std::vector<RegisteredApp> registered;  // in file order
  std::map<std::string, MissingApp> missing;
  std::map<std::string, std::string> prefs;     // scalar preferences; absent means never set
  std::map<std::string, std::string> messages;  // the "NotificationMessage" map preference

  const RegisteredApp* FindRegistered(const std::string& appID) const;

  // One tab-separated line per item, as differences are shown.
  std::string Text() const;
  bool operator==(const StoreState& o) const { return Text() == o.Text(); }
  bool operator!=(const StoreState& o) const { return Text() != o.Text(); }
  // The items whose key `keep` accepts.
  StoreState Filter(const std::function<bool(const std::string&)>& keep) const;
  // The items expected (this) and not found in `actual`, and the reverse; empty when equal.
  std::string Diff(const StoreState& actual) const;

  // Loads the files through the library's own classes in the Env installed now, so that an
  // interrupted save's journal is recovered as a host would; reads the preferences `prefKeys`.
  static bool Load(const StoreFiles& files, const std::set<std::string>& prefKeys, StoreState& out,
                   std::string& error);
};

bool Parses(const std::string& path);

// A journal beside a store: none, one that does not parse (every load ignores it and the next
// save replaces it), or a complete one (the next load takes it for an interrupted save).
enum class Journal { kNone, kPartial, kComplete };
Journal JournalBeside(const std::string& store);

// What interrupted saves may leave without harm: partial journals and, until the next locked
// save sweeps them, temporaries beside the preferences file.
struct Leftovers {
  size_t partialJournals = 0, prefsTemporaries = 0;
};

// Checks what any reader finds on disk once the stores were loaded: every file parses, no
// complete journal and no "TempSwap." object is left. Returns the problems (empty when none)
// and adds the harmless leftovers to `leftovers`.
std::string CheckAtRest(const StoreFiles& files, Leftovers& leftovers);

enum Operation { kRegister, kUnregister, kDownload, kSetPref, kSetMessage, kTrigger, kOperations };
extern const char* const kOperationNames[kOperations];

// One call a host makes, as data, to plan, make and apply to a model. Preferences are set through
// the settings object every export uses; a message is a read-modify-write of the shared map under
// the preference lock.
struct Call {
  explicit Call(Operation op, std::string appID = {}, std::string name = {}, std::string path = {})
      : op(op), appID(std::move(appID)), name(std::move(name)), path(std::move(path)) {}

  Operation op;
  std::string appID, name, path;  // a trigger without an application is a manual one
  std::string key, value;         // of a preference
  int type = 0;
  bool registerFirst = false;
  std::vector<MissingComponent> components;

  long Make() const;
  // Updates `model` as the call does when it succeeds; returns the result it must give.
  long Apply(StoreState& model) const;
  // The item the call changes.
  std::string Item() const;
};

// Makes the sandbox's user an administrator with the updater installed (launches counted, not
// run); returns where its files lie.
StoreFiles PrepareSandbox(testing_support::UpdaterSandbox& sandbox);

// Reads "--name value" pairs whose names `values` holds with their defaults, and "--seed"
// (default: the clock), and prints the seed; prints the usage and returns false when an option
// is unknown or the values are not `valid`.
bool ParseOptions(int argc, char** argv, std::map<std::string, double>& values,
                  unsigned long long& seed, const std::function<bool()>& valid);

// Waits up to `timeoutMs` for `done`, looking every `stepMicros`; whether it came.
bool WaitFor(const std::function<bool()>& done, int timeoutMs, int stepMicros);

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

}  // namespace reliability

#endif
