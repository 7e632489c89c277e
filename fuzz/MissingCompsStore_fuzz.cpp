// Fuzzes the missing-components store through its manager: the input is planted as the store
// file of a sandboxed machine (and, after its first NUL byte, as the journal of a save cut
// short), listed, and then asked to record one more missing component.
//
// Checked for every input: the store loads exactly when the journal or, failing that, the file is
// well-formed, and lists what a plain reading of that text finds (entries without a display name
// or an install path dropped, from the file too); once the lister is gone the file exists exactly
// when it loaded and held an entry (an empty or broken request list is deleted); a request is
// "already listed" exactly when the first entry of its identifier (compared exactly) holds a
// component of its category and version named as asked or "*" (odd-sized inputs ask for "*");
// a request that reports success records its type, keeps the entry's other components, can be
// read back and keeps every other entry (as the text form reads it back: a value the file spelled
// with character references for a tab, a line feed or a carriage return comes back with blanks).
// No input may end the process: entries and components lacking what identifies them are dropped
// on load, and another program's top element gives way to an empty store.

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "FuzzSandbox.h"
#include "support/TempDir.h"
#include "xplat/ChangeDiffType.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"

namespace {

using fuzzing::Check;
using Builder = esd::ExpatDOMBuilder<esd::XMLDocumentNode>;

const char kFuzzAppID[] = "com.example.Fuzz";
const char kFuzzName[] = "Fuzz & <Co>";
const char kFuzzPath[] = "/opt/Fuzz Pro";
const char kFuzzVersion[] = "1.2.3.4";
const int kFuzzOpType = 1;
const char kFuzzCategory[] = "Fuzz Category";

// Identifier to (display name, install path) of every entry, first entry of an identifier wins.
using Entries = std::map<std::string, std::pair<std::string, std::string>>;
// (identifier, display name, install path) of each entry in file order; a missing field is empty.
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

// The entries a plain reading of the store text says the manager keeps: those with an identifier,
// a readable operation type, a display name and an install path. `unusable` tells whether it
// holds others.
EntryList ReadStoreText(const std::string& bytes, bool* unusable = nullptr) {
  EntryList kept;
  Builder builder;
  if (!fuzzing::ParseBytes(builder, bytes)) return kept;
  for (esd::XMLDocumentNode* top : builder.GetDocumentNode()->GetChildNodes()) {
    if (top->GetElementName() != VantuUpdaterMissingCompsManager::GetNodeRootName()) continue;
    for (esd::XMLDocumentNode* child : top->GetChildNodes()) {
      if (child->GetElementName() != VantuUpdaterMissingCompsApp::GetNodeRootName()) continue;
      std::string id, type;
      int opType = 0;
      const std::string name = UniqueChildText(child, "DisplayName");
      const std::string path = UniqueChildText(child, "InstallPath");
      if (child->GetAttrValue("AppID", id) && !id.empty() &&
          child->GetAttrValue("OperationType", type) && esd::ChangeType(type, opType) &&
          !name.empty() && !path.empty())
        kept.emplace_back(id, name, path);
      else if (unusable)
        *unusable = true;
    }
  }
  return kept;
}

// Lists the store; `listsComp`, when given, tells whether the first entry of kFuzzAppID holds a
// component the request for `compName` matches: the same category and version, and the same
// name or "*" on either side; `compCount` counts that entry's components.
bool List(VantuUpdaterMissingCompsManager& store, Entries& out, EntryList* order = nullptr,
          const std::string& compName = "", bool* listsComp = nullptr,
          size_t* compCount = nullptr) {
  std::list<VantuUpdaterMissingCompsApp> apps;
  if (!store.GetMissingCompsApps(apps)) return false;
  out.clear();
  for (VantuUpdaterMissingCompsApp& app : apps) {
    std::string id, name, path;
    Check(app.GetAppID(id) && !id.empty() && app.GetDisplayName(name) && !name.empty() &&
              app.GetInstallPath(path) && !path.empty(),
          "entries without an identifier, a name or a path are dropped on load");
    std::list<VantuUpdaterAMissingComponent> comps;
    if (listsComp && id == kFuzzAppID && !out.count(id) && app.GetMissingComponents(comps)) {
      *compCount = comps.size();
      for (const VantuUpdaterAMissingComponent& comp : comps) {
        std::string n, c;
        FileSystemVersion v(FileSystemVersion::kInvalidVersion);
        *listsComp |= comp.Getname(n) && comp.Getcategory(c) && comp.Getversion(v) &&
                      c == kFuzzCategory && v == FileSystemVersion(kFuzzVersion) &&
                      (n == compName || n == "*" || compName == "*");
      }
    }
    out.emplace(id, std::make_pair(name, path));
    if (order) order->emplace_back(id, name, path);
  }
  return true;
}

// The entries as the next save writes them (see fuzzing::AsReadBackText); first entry of an
// identifier wins.
Entries AsSaved(const Entries& entries) {
  Entries saved;
  for (const auto& entry : entries) {
    saved.emplace(fuzzing::AsReadBackAttribute(entry.first),
                  std::make_pair(fuzzing::AsReadBackText(entry.second.first),
                                 fuzzing::AsReadBackText(entry.second.second)));
  }
  return saved;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  fuzzing::FuzzSandbox::Get();
  const std::string& path = fuzzing::StorePath<VantuUpdaterMissingCompsManager>();
  static testing_support::LockFileGuard lockCleanup(path);
  const fuzzing::StoreInput input = fuzzing::PlantStore(data, size, path);

  // Inputs of odd size ask for any component of the category.
  const std::string compName = size % 2 ? "*" : "Fuzz Component";
  Entries before;
  EntryList listed;
  bool loaded, listsComp = false;
  size_t compCount = 0;
  {
    VantuUpdaterMissingCompsManager store;
    store.SetDurableSaves(false);
    loaded = List(store, before, &listed, compName, &listsComp, &compCount);
  }
  Check(loaded == Builder::IsWellFormed(input.effective.data(), input.effective.size()),
        "the store loads exactly when the text in effect is well-formed");
  if (loaded)
    Check(listed == ReadStoreText(input.effective), "the store lists what its text holds");
  Check(FileSystemUtils::DoesPathExist(path) == (loaded && !before.empty()),
        "an empty or broken request list does not outlive its reader");
  const std::optional<std::string> afterList = fuzzing::ReadIfPresent(path);

  unsigned result;
  {
    VantuUpdaterMissingCompsManager store;
    store.SetDurableSaves(false);
    std::string name = compName, category = kFuzzCategory, version = kFuzzVersion;
    result = store.UpdateWithAppAndCompData(kFuzzAppID,
                                            reinterpret_cast<const unsigned char*>(kFuzzName),
                                            reinterpret_cast<const unsigned char*>(kFuzzPath),
                                            kFuzzOpType, &name[0], &category[0], &version[0]);
  }
  Check(result <= 2, "a request result is one of the three codes");
  if (result != 2) Check(result == (listsComp ? 1u : 0u), "a component is added unless listed");
  // The updater reads the file itself: what a load dropped must be gone from it too, unless the
  // store holds text that cannot be written back (then the request fails as well).
  bool unusable = false;
  if (afterList) ReadStoreText(*afterList, &unusable);
  Check(result == 2 || !unusable, "a load drops unusable entries from the file");
  if (result == 2) {
    // Refused, for a tree the writer cannot save (an attribute holding markup): nothing may have
    // been written.
    Check(fuzzing::ReadIfPresent(path) == afterList, "a failed request keeps the file");
    return 0;
  }

  VantuUpdaterMissingCompsManager store;
  store.SetDurableSaves(false);
  Entries after;
  Check(List(store, after), "a store just saved loads again");
  const auto fuzzEntry = after.find(kFuzzAppID);
  Check(fuzzEntry != after.end() &&
            fuzzEntry->second == std::make_pair(std::string(kFuzzName), std::string(kFuzzPath)),
        "a request reported as saved reads back");
  std::unique_ptr<VantuUpdaterMissingCompsApp> app;
  Check(store.GetMissingCompsAppByAppID(kFuzzAppID, app), "the requesting entry can be found");
  int opType = -1;
  Check(app->GetOperationType(opType) && opType == kFuzzOpType, "a request records its type");
  std::list<VantuUpdaterAMissingComponent> comps;
  Check(app->GetMissingComponents(comps) && comps.size() == compCount + (result == 0 ? 1 : 0),
        "a request keeps the entry's other components");
  std::unique_ptr<VantuUpdaterAMissingComponent> comp;
  Check(app->GetAMatchingMIssingComponent(compName, kFuzzCategory, FileSystemVersion(kFuzzVersion),
                                          comp),
        "the requested component is listed");
  for (const auto& entry : AsSaved(before)) {
    const auto kept = after.find(entry.first);
    Check(kept != after.end(), "a request keeps every other entry");
    if (entry.first != kFuzzAppID)
      Check(kept->second == entry.second, "other entries are unchanged");
  }
  return 0;
}
