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

struct MissingComponent {
  std::string category, name;
  std::string version;  // four parts, as the store writes it ("1.2.0.0")
};

// Where the three files of one sandboxed machine lie.
struct StoreFiles {
  std::string registry, missingComps, prefs;
};

// One entry per item, keyed "<kind>\t<owner>[\t...]": "reg" (display name and install path) and
// "mc" (display name, install path, operation type) by application identifier, "comp" by
// identifier, category, name and version (no value), "pref" (a scalar preference) and "msg" (an
// entry of the "NotificationMessage" map preference) by key. Values are tab-separated.
struct StoreState : std::map<std::string, std::string> {
  static std::string Key(const std::string& kind, const std::string& owner) {
    return kind + "\t" + owner;
  }
  // The items of one kind, whose keys all sort between "<kind>\t" and "<kind>\n".
  const_iterator Begin(const std::string& kind) const { return lower_bound(kind + "\t"); }
  const_iterator End(const std::string& kind) const { return lower_bound(kind + "\n"); }
  size_t Count(const std::string& kind) const;
  // The items whose owner `keep` accepts.
  StoreState Filter(const std::function<bool(const std::string&)>& keep) const;
  // The items expected (this) and not found in `actual`, and the reverse; empty when equal.
  std::string Diff(const StoreState& actual) const;

  // Loads the files through the library's own classes in the Env installed now, so that an
  // interrupted save's journal is recovered as a host would; reads the preferences `prefKeys`.
  // Fails on an item the files hold twice.
  static bool Load(const StoreFiles& files, const std::set<std::string>& prefKeys, StoreState& out,
                   std::string& error);
};

bool Parses(const std::string& path);

// What interrupted saves leave beside the files: journals that do not parse (every load ignores
// them) or do (the next load takes them for an interrupted save), temporaries of the preferences
// file (the next locked save sweeps them) and "TempSwap." objects of an exchange.
struct Leftovers {
  size_t partialJournals = 0, completeJournals = 0, prefsTemporaries = 0, swapObjects = 0;
};

// What lies beside the files; appends to `problems` a file that does not parse and, once the
// stores were loaded (`atRest`), a complete journal or a "TempSwap." object left.
Leftovers Inspect(const StoreFiles& files, bool atRest, std::string& problems);

enum Operation { kRegister, kUnregister, kDownload, kSetPref, kSetMessage, kTrigger, kOperations };
extern const char* const kOperationNames[kOperations];

// One call a host makes, as data. Preferences are set through the settings object every export
// uses; a message is a read-modify-write of the shared map under the preference lock.
struct Call {
  explicit Call(Operation op, std::string appID = {}, std::string name = {}, std::string path = {})
      : op(op), appID(std::move(appID)), name(std::move(name)), path(std::move(path)) {}
  static Call Pref(Operation op, std::string key, std::string value) {
    Call call(op);
    call.key = std::move(key);
    call.value = std::move(value);
    return call;
  }

  Operation op;
  std::string appID, name, path;  // a trigger without an application is a manual one
  std::string key, value;         // of a preference
  int type = 0;
  bool registerFirst = false;
  std::vector<MissingComponent> components;

  long Make() const;
  // Updates `model` as the call does when it succeeds; returns the result it must give.
  long Apply(StoreState& model) const;
  // The owner of the items the call changes.
  std::string Item() const;
};

// Makes the sandbox's user an administrator with the updater installed (launches counted, not
// run); returns where its files lie.
StoreFiles PrepareSandbox(testing_support::UpdaterSandbox& sandbox);

// Reads "--name value" pairs whose names `values` holds, and "--seed" (default: the clock), and
// prints the seed; false on anything else.
bool ParseOptions(int argc, char** argv, std::map<std::string, double>& values,
                  unsigned long long& seed);

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
