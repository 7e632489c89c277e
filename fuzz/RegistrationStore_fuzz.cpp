// Fuzzes the registered-applications store through its manager: the input is planted as the
// store file of a sandboxed machine (and, after its first NUL byte, as the journal of a save cut
// short), then listed, registered into and unregistered from.
//
// Checked for every input: the store loads exactly when the journal or, failing that, the file is
// well-formed, and lists what a plain reading of that text finds (entries without an identifier
// or an install path dropped, from the file too); a file that does not load is never overwritten;
// another program's top element gives way to an empty store at the next registration; a
// registration that reports success can be read back and keeps every entry the file held before
// (as the text form reads it back: a value the file spelled with character references for a tab,
// a line feed or a carriage return comes back with blanks); an unregistration removes only its
// own entry, and the file goes exactly when no entry and no element of another kind is left. The
// updater's own record is made up from where it runs, whatever the file holds under its name. No
// input may end the process; an identifier listed twice becomes one entry when it registers.

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "FuzzSandbox.h"
#include "support/TempDir.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/VantuUpdaterRegistrationManager.h"
#include "xplat/VantuUpdaterUtils.h"

namespace {

using fuzzing::Check;
using Builder = esd::ExpatDOMBuilder<esd::XMLDocumentNode>;

const char kFuzzAppID[] = "com.example.Fuzz";
const char kFuzzName[] = "Fuzz & <Co>";
const char kFuzzPath[] = "/opt/Fuzz Pro";

struct Entry {
  std::string name;
  std::string path;
};
using Entries = std::map<std::string, Entry>;

// (identifier, display name, install path) of each entry in file order.
using EntryList = std::vector<std::tuple<std::string, std::string, std::string>>;

// The text of the only child `name` of `node`, or "" when there is not exactly one.
std::string UniqueChildText(const esd::XMLDocumentNode* node, const std::string& name) {
  const esd::XMLDocumentNode* found = nullptr;
  for (const esd::XMLDocumentNode* child : node->GetChildNodes()) {
    if (child->GetElementName() != name) continue;
    if (found) return std::string();
    found = child;
  }
  return found ? found->GetData() : std::string();
}

// What a plain reading of the store text says the manager keeps.
struct StoreText {
  EntryList entries;        // those with an identifier and an install path
  bool foreignTop = false;  // the top element is another program's
  bool otherKinds = false;  // the store's own top element holds elements of other kinds
  bool unusable = false;    // it holds entries a load drops
};

StoreText ReadStoreText(const std::string& bytes) {
  StoreText kept;
  Builder builder;
  if (!fuzzing::ParseBytes(builder, bytes)) return kept;
  for (esd::XMLDocumentNode* top : builder.GetDocumentNode()->GetChildNodes()) {
    const bool ours = top->GetElementName() == VantuUpdaterRegistrationManager::GetNodeRootName();
    kept.foreignTop |= !ours;
    if (!ours) continue;
    for (esd::XMLDocumentNode* child : top->GetChildNodes()) {
      const bool entry = child->GetElementName() == VantuUpdaterRegisteredApp::GetNodeRootName();
      kept.otherKinds |= !entry;
      std::string id;
      const std::string path = entry ? UniqueChildText(child, "InstallPath") : "";
      const bool usable = entry && child->GetAttrValue("appID", id) && !id.empty() && !path.empty();
      kept.unusable |= entry && !usable;
      if (usable) kept.entries.emplace_back(id, UniqueChildText(child, "DisplayName"), path);
    }
  }
  return kept;
}

// Lists the store into `out` (first entry of an identifier wins) and `order`; false when it cannot
// be loaded.
bool List(Entries& out, EntryList* order = nullptr) {
  VantuUpdaterRegistrationManager store;
  store.SetDurableSaves(false);
  std::list<VantuUpdaterRegisteredApp> apps;
  if (!store.GetRegisteredApps(apps)) return false;
  out.clear();
  for (const VantuUpdaterRegisteredApp& app : apps) {
    std::string id;
    Entry entry;
    app.GetDisplayName(entry.name);
    Check(app.GetappID(id) && !id.empty() && app.GetInstallPath(entry.path) && !entry.path.empty(),
          "entries without an identifier or an install path are dropped on load");
    out.emplace(id, entry);
    if (order) order->emplace_back(id, entry.name, entry.path);
  }
  return true;
}

// The entries as the next save writes them (see fuzzing::AsReadBackText); first entry of an
// identifier wins.
Entries AsSaved(const Entries& entries) {
  Entries saved;
  for (const auto& entry : entries) {
    saved.emplace(fuzzing::AsReadBackAttribute(entry.first),
                  Entry{fuzzing::AsReadBackText(entry.second.name),
                        fuzzing::AsReadBackText(entry.second.path)});
  }
  return saved;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  fuzzing::FuzzSandbox::Get();
  const std::string& path = fuzzing::StorePath<VantuUpdaterRegistrationManager>();
  static testing_support::LockFileGuard lockCleanup(path);

  const fuzzing::StoreInput input = fuzzing::PlantStore(data, size, path);
  const StoreText expected = ReadStoreText(input.effective);

  Entries before;
  EntryList listed;
  const bool loaded = List(before, &listed);
  Check(loaded == Builder::IsWellFormed(input.effective.data(), input.effective.size()),
        "the store loads exactly when the text in effect is well-formed");
  if (!loaded)
    Check(fuzzing::ReadIfPresent(path) == input.file, "a file that fails to load is kept");
  if (loaded) Check(listed == expected.entries, "the store lists what its text holds");
  const std::optional<std::string> afterLoad = fuzzing::ReadIfPresent(path);
  {
    VantuUpdaterRegistrationManager store;
    std::unique_ptr<VantuUpdaterRegisteredApp> updater;
    std::string name, where, expectedWhere;
    Check(store.GetRegisteredApplicationByAppID(VantuUpdaterUtils::kVantuUpdaterName, updater) &&
              updater->GetDisplayName(name) && updater->GetInstallPath(where) &&
              VantuUpdaterUtils::GetVantuUpdaterDirectory(expectedWhere) &&
              name == "Vantu Updater" && where == expectedWhere,
          "the updater's own record comes from where it runs, never from the file");
  }

  unsigned inserted;
  {
    VantuUpdaterRegistrationManager store;
    store.SetDurableSaves(false);
    VantuUpdaterRegisteredApp app(kFuzzAppID);
    app.SetDisplayName(kFuzzName);
    app.SetInstallPath(kFuzzPath);
    inserted = store.InsertOrUpdateRegisteredApp(app);
  }
  Check(inserted <= 3, "a registration result is one of the four codes");
  if (!loaded) Check(inserted == 3, "a store that cannot be loaded refuses registrations");
  if (loaded && expected.foreignTop)
    Check(inserted == 0, "another program's top element gives way to an empty store");
  // The updater reads the file itself: what a load dropped must be gone from it too, unless the
  // store holds text that cannot be written back (then the registration is refused as well).
  if (inserted != 3 && afterLoad && !expected.foreignTop)
    Check(!ReadStoreText(*afterLoad).unusable, "a load drops unusable entries from the file");
  if (inserted == 3 || inserted == 2) {
    // Refused (a tree the writer cannot save, such as an attribute holding markup) or already
    // there: nothing may have been written.
    Check(fuzzing::ReadIfPresent(path) == afterLoad,
          "a registration that saved nothing keeps the file");
    if (inserted == 2) {
      const auto found = before.find(kFuzzAppID);
      Check(found != before.end() && found->second.name == kFuzzName &&
                found->second.path == kFuzzPath,
            "an unchanged registration was there before");
    }
    return 0;
  }

  Entries after;
  Check(List(after), "a store just saved loads again");
  Check(after.count(kFuzzAppID) == 1 && after[kFuzzAppID].name == kFuzzName &&
            after[kFuzzAppID].path == kFuzzPath,
        "a registration reported as saved reads back");
  Check(inserted == (before.count(kFuzzAppID) ? 1u : 0u), "inserted and replaced are told apart");
  for (const auto& entry : AsSaved(before)) {
    if (entry.first == kFuzzAppID) continue;
    const auto kept = after.find(entry.first);
    Check(kept != after.end() && kept->second.name == entry.second.name &&
              kept->second.path == entry.second.path,
          "a registration keeps every other entry");
  }

  unsigned removed;
  {
    VantuUpdaterRegistrationManager store;
    store.SetDurableSaves(false);
    removed = store.UnregisterApp(kFuzzAppID);
  }
  Check(removed == 0, "a registered application can be unregistered");
  after.erase(kFuzzAppID);
  Entries last;
  if (!FileSystemUtils::DoesPathExist(path)) {
    Check(after.empty() && !expected.otherKinds, "the file goes only with its last entry");
  } else {
    Check(!after.empty() || expected.otherKinds, "the file goes with its last entry");
    Check(List(last), "a store saved after a removal loads again");
    Check(last.size() == after.size() && last.count(kFuzzAppID) == 0,
          "an unregistration removes exactly its own entry");
  }
  return 0;
}
