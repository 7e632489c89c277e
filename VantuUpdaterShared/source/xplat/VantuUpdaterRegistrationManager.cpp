#include "xplat/VantuUpdaterRegistrationManager.h"

#include <stdexcept>

#include "xplat/ESDAssert.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/SearchResults.h"
#include "xplat/StoreLockScope.h"
#include "xplat/StoreRoot.h"
#include "xplat/VantuUpdaterUtils.h"
#include "xplat/XMLEscaping.h"

namespace {

const char kRegistrationFileName[] = "VantuESDGlobalApps.xml";
const char kAppIDAttr[] = "appID";
const char kVantuUpdaterDisplayName[] = "Vantu Updater";
const char kInstallPathElem[] = "InstallPath";

enum InsertResult : unsigned { kInserted = 0, kReplaced = 1, kUnchanged = 2, kInsertFailed = 3 };
enum UnregisterResult : unsigned { kRemoved = 0, kNotFound = 1, kUnregisterFailed = 2 };

// Adds a deep copy of `record` as the last child of `storeRoot`; false when it cannot be copied.
bool AppendCopy(esd::XMLDocumentNode* storeRoot, esd::XMLDocumentNode* record) {
  esd::XMLDocumentNode* copy = esd::XMLDocumentNode::Duplicate(record);
  if (copy == nullptr) return false;
  storeRoot->AddChildNode(copy);
  return true;
}

// Whether some record under `storeRoot` is one RegisteredAppVerifier removes: no "appID" or an
// empty one, or not a single, non-empty "InstallPath" child. Found by looking at the elements
// directly: a load of a large store would otherwise bind and search every record only to learn
// that all are fine.
bool HasUnusableRecord(const esd::XMLDocumentNode* storeRoot) {
  const std::string recordName = VantuUpdaterRegisteredApp::GetNodeRootName();
  std::string appID;
  for (const esd::XMLDocumentNode* record : storeRoot->GetChildNodes()) {
    if (record->ElementName() != recordName) continue;
    if (!record->GetAttrValue(kAppIDAttr, appID) || appID.empty()) return true;
    int paths = 0;
    bool empty = true;
    for (const esd::XMLDocumentNode* field : record->GetChildNodes()) {
      if (field->ElementName() != kInstallPathElem) continue;
      ++paths;
      empty = field->ElementData().empty();
    }
    if (paths != 1 || empty) return true;
  }
  return false;
}

}  // namespace

VantuUpdaterRegistrationManager::RegisteredAppMatcher::RegisteredAppMatcher(
    const std::string& appID)
    : mAppID(appID) {}

bool VantuUpdaterRegistrationManager::RegisteredAppMatcher::operator()(
    const VantuUpdaterRegisteredApp& inApp) const {
  std::string sAppID;
  ESD_ASSERT(inApp.GetappID(sAppID));
  return sAppID == mAppID;
}

VantuUpdaterRegistrationManager::RegisteredAppVerifier::RegisteredAppVerifier(
    VantuUpdaterRegistrationManager* inManager)
    : mManager(inManager) {
  ESD_ASSERT(inManager);
}

bool VantuUpdaterRegistrationManager::RegisteredAppVerifier::operator()(
    const VantuUpdaterRegisteredApp& inApp) const {
  std::string appID, installPath;
  return !inApp.GetappID(appID) || appID.empty() || !inApp.GetInstallPath(installPath) ||
         installPath.empty();
}

VantuUpdaterRegistrationManager::VantuUpdaterRegistrationManager()
    : JournaledXMLLockedFile(mBuilder, kLockTimeout) {
  std::string dataDir;
  if (!VantuUpdaterUtils::GetVantuUpdaterAllUserDataDir(dataDir))
    throw std::runtime_error("Unable to determine registration filepath!");
  mFilePath = FileSystemUtils::AppendPathElement(dataDir, kRegistrationFileName);
  SetPath(mFilePath);
  // The machine-wide register must not be world-writable: every save gives it the restricted
  // permission as it is written, rather than narrowing a world-writable file afterwards.
  SetSavedFileMode(0664);
}

VantuUpdaterRegistrationManager::~VantuUpdaterRegistrationManager() {
  try {
    if (HasLock()) Unlock(false);
  } catch (...) {
  }
}

std::string VantuUpdaterRegistrationManager::GetNodeRootName() {
  return "VantuUpdaterRegistrationManager";
}

bool VantuUpdaterRegistrationManager::LoadStore() {
  if (Load(nullptr)) return true;
  ForgetLoadedTree();
  return false;
}

void VantuUpdaterRegistrationManager::ForgetLoadedTree() {
  using Binding = XMLBoundObject<VantuUpdaterRegistrationManager>;
  Binding::operator=(Binding());
}

bool VantuUpdaterRegistrationManager::OnLoadSuccess(esd::XMLDocumentNode* root, void*) {
  esd::XMLDocumentNode* storeRoot = StoreRoot::FindOrAdd(root, GetNodeRootName());
  if (storeRoot == nullptr) return false;
  SetObjectRoot(storeRoot);
  if (HasUnusableRecord(storeRoot) &&
      DeleteVantuUpdaterRegisteredAppIf(RegisteredAppVerifier(this)) > 0)
    Save();
  return true;
}

bool VantuUpdaterRegistrationManager::SaveRegisteredApps() {
  try {
    if (GetObjectRoot()->GetChildNodes().empty()) {
      if (!Delete()) return false;
      ForgetLoadedTree();
      return true;
    }
    return Save();
  } catch (...) {
    return false;
  }
}

bool VantuUpdaterRegistrationManager::DeleteVantuUpdaterRegisteredApp(
    VantuUpdaterRegisteredApp& app) {
  return GetObjectRoot()->DeleteChildNode(app.GetObjectRoot());
}

unsigned VantuUpdaterRegistrationManager::InsertOrUpdateRegisteredApp(
    VantuUpdaterRegisteredApp& app) {
  StoreLockScope lock(*this);
  if (!lock.Held()) return kInsertFailed;
  if (!LoadStore()) return kInsertFailed;

  std::string appID, installPath, displayName;
  if (!app.GetappID(appID) || appID.empty() || !app.GetInstallPath(installPath) ||
      installPath.empty() || !app.GetDisplayName(displayName) || displayName.empty())
    return kInsertFailed;
  // Attribute values are written raw, so an identifier holding markup could never be saved, and one
  // holding a tab, line feed or carriage return would read back with a blank instead: never found
  // again, registered once more by every call, the duplicates ending the next lookup of the blank
  // form. It is refused here rather than reported as an unusable store, which callers answer by
  // rebuilding the file and dropping every other registration.
  if (appID.find_first_of("\"<&\t\n\r") != std::string::npos) return kUnchanged;

  esd::XMLDocumentNode* storeRoot = GetObjectRoot();
  esd::SearchResult<esd::XMLDocumentNode> existing =
      esd::SearchResult<esd::XMLDocumentNode>(storeRoot).Children(
          esd::NodeBoth(esd::NodeName(VantuUpdaterRegisteredApp::GetNodeRootName()),
                        esd::NodeAttr(kAppIDAttr, appID)));

  unsigned result = kInsertFailed;
  if (existing.empty()) {
    if (AppendCopy(storeRoot, app.GetObjectRoot())) result = kInserted;
  } else {
    VantuUpdaterRegisteredApp stored(existing.GetFirst());
    std::string storedPath, storedName;
    if (existing.size() == 1 && stored.GetInstallPath(storedPath) &&
        storedPath == esd::XMLEscaping::AsReadBack(installPath) &&
        stored.GetDisplayName(storedName) &&
        storedName == esd::XMLEscaping::AsReadBack(displayName)) {
      result = kUnchanged;
    } else {
      // Replacing rather than editing in place moves the entry to the end of the file, which is
      // where readers of the file expect the most recently registered application. A file
      // another program wrote may list the identifier more than once: every copy goes, so the
      // saved store holds the one entry this registration makes.
      bool removed = true;
      for (esd::XMLDocumentNode* old : existing)
        removed = storeRoot->DeleteChildNode(old) && removed;
      if (removed && AppendCopy(storeRoot, app.GetObjectRoot())) result = kReplaced;
    }
  }

  if ((result == kInserted || result == kReplaced) && !SaveRegisteredApps()) result = kInsertFailed;
  return result;
}

unsigned VantuUpdaterRegistrationManager::UnregisterApp(const std::string& appID) {
  if (appID == VantuUpdaterUtils::kVantuUpdaterName) return kUnregisterFailed;
  if (!FileSystemUtils::DoesPathExist(mFilePath)) return kUnregisterFailed;

  StoreLockScope lock(*this);
  if (!lock.Held()) return kUnregisterFailed;
  std::list<VantuUpdaterRegisteredApp> scratch;
  if (!GetRegisteredApps(scratch)) return kUnregisterFailed;
  if (DeleteVantuUpdaterRegisteredAppIf(RegisteredAppMatcher(appID)) == 0) return kNotFound;
  return SaveRegisteredApps() ? kRemoved : kUnregisterFailed;
}

bool VantuUpdaterRegistrationManager::GetRegisteredApps(
    std::list<VantuUpdaterRegisteredApp>& out) {
  StoreLockScope lock(*this);
  if (!lock.Held()) return false;
  if (!LoadStore()) return false;

  out.clear();
  std::vector<VantuUpdaterRegisteredApp> apps;
  XMLBoundObjectUtils::GetNodeChildrenAsType<VantuUpdaterRegisteredApp>(
      GetObjectRoot(), VantuUpdaterRegisteredApp::GetNodeRootName(), apps);
  for (VantuUpdaterRegisteredApp& app : apps) {
    out.push_back(app);
    out.back().Detach();
  }
  return true;
}

bool VantuUpdaterRegistrationManager::GetRegisteredApplicationByAppID(
    const std::string& appID, std::unique_ptr<VantuUpdaterRegisteredApp>& out) {
  if (appID == VantuUpdaterUtils::kVantuUpdaterName) return GetVantuUpdaterInfo(out);

  StoreLockScope lock(*this);
  if (!lock.Held()) return false;
  std::list<VantuUpdaterRegisteredApp> apps;
  if (!GetRegisteredApps(apps)) return false;
  auto found = std::find_if(apps.begin(), apps.end(), RegisteredAppMatcher(appID));
  if (found == apps.end()) return false;
  out.reset(new VantuUpdaterRegisteredApp(*found));
  return true;
}

bool VantuUpdaterRegistrationManager::GetVantuUpdaterInfo(
    std::unique_ptr<VantuUpdaterRegisteredApp>& out) {
  VantuUpdaterRegisteredApp updater(VantuUpdaterUtils::kVantuUpdaterName);
  updater.SetDisplayName(kVantuUpdaterDisplayName);
  std::string updaterDir;
  if (!VantuUpdaterUtils::GetVantuUpdaterDirectory(updaterDir)) return false;
  updater.SetInstallPath(updaterDir);
  out.reset(new VantuUpdaterRegisteredApp(updater));
  return true;
}
