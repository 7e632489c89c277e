#ifndef TESTS_RELIABILITY_STORESTATE_H
#define TESTS_RELIABILITY_STORESTATE_H

// What the three shared files hold, as plain values: the registered applications in file order,
// the missing-component requests, and the preferences a reliability run writes. The same type
// serves as the expected state (a model the harness updates as each call succeeds, mirroring
// what the library does) and as the actual state (read back through the library), so a run
// ends in one comparison.

#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace reliability {

struct RegisteredApp {
  std::string appID;
  std::string displayName;
  std::string installPath;
  bool operator==(const RegisteredApp& other) const;
};

struct MissingComponent {
  std::string category;
  std::string name;
  std::string version;  // four parts, as the store writes it ("1.2.0.0")
  bool operator==(const MissingComponent& other) const;
};

struct MissingApp {
  std::string displayName;
  std::string installPath;
  int operationType = 0;
  std::vector<MissingComponent> components;  // in the order they were recorded
  bool operator==(const MissingApp& other) const;
};

// Where the three files of one sandboxed machine lie.
struct StoreFiles {
  std::string registry;
  std::string missingComps;
  std::string prefs;
};

class StoreState {
 public:
  std::vector<RegisteredApp> registered;
  std::map<std::string, MissingApp> missing;
  // Scalar preferences by key; a key absent here reads as empty (never set).
  std::map<std::string, std::string> prefs;
  // The entries of the "NotificationMessage" map preference.
  std::map<std::string, std::string> messages;

  bool operator==(const StoreState& other) const;
  bool operator!=(const StoreState& other) const { return !(*this == other); }

  // --- The model: each call mirrors what the library does for a call that succeeded. ---

  // Inserts, or replaces and moves the entry to the end, as the registered-applications store.
  void Register(const std::string& appID, const std::string& name, const std::string& path);
  // False when the application was not registered.
  bool Unregister(const std::string& appID);
  const RegisteredApp* FindRegistered(const std::string& appID) const;

  // Records one missing-components request the way the download workflow does and returns the
  // result it must give: 0 when anything was new, 9 when every component was recorded already.
  // The entry takes the request's name, path and type.
  int RequestMissing(const std::string& appID, const std::string& name, const std::string& path,
                     int operationType, const std::vector<MissingComponent>& components);

  // --- Reading the real files. ---

  // Loads the three files through the library's own classes, in the Env installed now, so a
  // journal left by an interrupted save is recovered exactly as a host would. `prefKeys` are the
  // scalar preferences to read. False with `error` set when a store or the preferences cannot
  // be loaded.
  static bool Load(const StoreFiles& files, const std::set<std::string>& prefKeys, StoreState& out,
                   std::string& error);

  // What interrupted saves may leave behind without harm: a journal that does not parse (every
  // load ignores it, the next save replaces it) and, until the next locked save sweeps them,
  // temporaries beside the preferences file.
  struct Leftovers {
    size_t partialJournals = 0;
    size_t prefsTemporaries = 0;
  };

  // Checks what any reader finds on disk once the stores were loaded: every file that exists
  // parses, no journal that parses is left beside a store (the next load would take it for an
  // interrupted save and put it in place), and no "TempSwap." object is left in their folders.
  // Returns the problems, empty when there are none, and counts the harmless leftovers.
  static std::string CheckAtRest(const StoreFiles& files, Leftovers& leftovers);

  // The part of the state that concerns one owner: applications and keys starting with
  // `prefix`, and message keys starting with it.
  StoreState Owned(const std::string& prefix) const;

  // A readable list of the differences, expected (this) against actual; empty when equal.
  std::string Diff(const StoreState& actual) const;

  // A line-based text form, for a worker process to hand its model to the harness.
  void Write(std::ostream& out) const;
  // Reads the lines Write produced, ignoring lines of other kinds; false on a malformed line.
  bool ReadLine(const std::string& line);
};

}  // namespace reliability

#endif
