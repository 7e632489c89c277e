#include "xplat/VantuUpdaterMissingCompsManager.h"

#include <cstring>
#include <stdexcept>

#include "xplat/ESDAssert.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/SearchResults.h"
#include "xplat/StoreLockScope.h"
#include "xplat/StoreRoot.h"
#include "xplat/VantuUpdaterUtils.h"
#include "xplat/XMLEscaping.h"

namespace {

const char kMissingCompsFileName[] = "VantuMissingComps.xml";

enum UpdateResult : unsigned { kAdded = 0, kAlreadyListed = 1, kUpdateFailed = 2 };

// Removes from `entry` every component that lacks a name, a category or a readable version: a
// request could never be matched against it. Returns how many went.
unsigned long DropUnusableComponents(VantuUpdaterMissingCompsApp& entry) {
  std::list<VantuUpdaterAMissingComponent> comps;
  entry.GetMissingComponents(comps);
  unsigned long dropped = 0;
  for (VantuUpdaterAMissingComponent& comp : comps) {
    std::string name, category;
    FileSystemVersion version(FileSystemVersion::kInvalidVersion);
    if (comp.Getname(name) && comp.Getcategory(category) && comp.Getversion(version)) continue;
    entry.GetObjectRoot()->DeleteChildNode(comp.GetObjectRoot());
    ++dropped;
  }
  return dropped;
}

}  // namespace

VantuUpdaterMissingCompsManager::VantuUpdaterMissingCompsAppMatcher::
    VantuUpdaterMissingCompsAppMatcher(const std::string& appID)
    : mAppID(appID) {}

bool VantuUpdaterMissingCompsManager::VantuUpdaterMissingCompsAppMatcher::operator()(
    const VantuUpdaterMissingCompsApp& inApp) const {
  std::string sAppID;
  ESD_ASSERT(inApp.GetAppID(sAppID));
  return sAppID == mAppID;
}

VantuUpdaterMissingCompsManager::VantuUpdaterMissingCompsAppVerifier::
    VantuUpdaterMissingCompsAppVerifier(VantuUpdaterMissingCompsManager* inManager)
    : mManager(inManager) {
  ESD_ASSERT(inManager);
}

bool VantuUpdaterMissingCompsManager::VantuUpdaterMissingCompsAppVerifier::operator()(
    const VantuUpdaterMissingCompsApp& inApp) const {
  std::string appID, installPath, displayName;
  int opType = 0;
  return !inApp.GetAppID(appID) || appID.empty() || !inApp.GetOperationType(opType) ||
         !inApp.GetInstallPath(installPath) || installPath.empty() ||
         !inApp.GetDisplayName(displayName) || displayName.empty();
}

VantuUpdaterMissingCompsManager::VantuUpdaterMissingCompsManager()
    : JournaledXMLLockedFile(mBuilder, kLockTimeout) {
  std::string dataDir;
  if (!VantuUpdaterUtils::GetVantuUpdaterDataDir(dataDir))
    throw std::runtime_error("Unable to determine missing comps filepath!");
  mFilePath = FileSystemUtils::AppendPathElement(dataDir, kMissingCompsFileName);
  SetPath(mFilePath);
}

// With the lock taken separately by the read and the delete, a read that timed out on a busy lock
// was followed by a delete that got it once freed, throwing away every pending request.
VantuUpdaterMissingCompsManager::~VantuUpdaterMissingCompsManager() {
  try {
    {
      StoreLockScope lock(*this);
      std::list<VantuUpdaterMissingCompsApp> apps;
      if (lock.Held() && (!GetMissingCompsApps(apps) || apps.empty())) Delete();
    }
    if (HasLock()) Unlock(false);
  } catch (...) {
  }
}

std::string VantuUpdaterMissingCompsManager::GetNodeRootName() {
  return "VantuUpdaterMissingCompsManager";
}

bool VantuUpdaterMissingCompsManager::LoadStore() {
  if (Load(nullptr)) return true;
  ForgetLoadedTree();
  return false;
}

void VantuUpdaterMissingCompsManager::ForgetLoadedTree() {
  using Binding = XMLBoundObject<VantuUpdaterMissingCompsManager>;
  Binding::operator=(Binding());
}

bool VantuUpdaterMissingCompsManager::OnLoadSuccess(esd::XMLDocumentNode* root, void*) {
  esd::XMLDocumentNode* storeRoot = StoreRoot::FindOrAdd(root, GetNodeRootName());
  if (storeRoot == nullptr) return false;
  SetObjectRoot(storeRoot);
  unsigned long dropped =
      DeleteVantuUpdaterMissingCompsAppIf(VantuUpdaterMissingCompsAppVerifier(this));
  std::vector<VantuUpdaterMissingCompsApp> entries;
  XMLBoundObjectUtils::GetNodeChildrenAsType<VantuUpdaterMissingCompsApp>(
      storeRoot, VantuUpdaterMissingCompsApp::GetNodeRootName(), entries);
  for (VantuUpdaterMissingCompsApp& entry : entries) dropped += DropUnusableComponents(entry);
  if (dropped > 0) Save();
  return true;
}

bool VantuUpdaterMissingCompsManager::SaveMissingCompsApps() {
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

bool VantuUpdaterMissingCompsManager::GetMissingCompsApps(
    std::list<VantuUpdaterMissingCompsApp>& out) {
  StoreLockScope lock(*this);
  if (!lock.Held()) return false;
  if (!LoadStore()) return false;

  out.clear();
  std::vector<VantuUpdaterMissingCompsApp> apps;
  XMLBoundObjectUtils::GetNodeChildrenAsType<VantuUpdaterMissingCompsApp>(
      GetObjectRoot(), VantuUpdaterMissingCompsApp::GetNodeRootName(), apps);
  out.assign(apps.begin(), apps.end());
  return true;
}

bool VantuUpdaterMissingCompsManager::GetMissingCompsAppByAppID(
    const std::string& appID, std::unique_ptr<VantuUpdaterMissingCompsApp>& out) {
  StoreLockScope lock(*this);
  if (!lock.Held()) return false;
  std::list<VantuUpdaterMissingCompsApp> apps;
  if (!GetMissingCompsApps(apps)) return false;
  auto found = std::find_if(apps.begin(), apps.end(), VantuUpdaterMissingCompsAppMatcher(appID));
  if (found == apps.end()) return false;
  out.reset(new VantuUpdaterMissingCompsApp(*found));
  return true;
}

unsigned VantuUpdaterMissingCompsManager::InsertMissingCompsApp(VantuUpdaterMissingCompsApp& app) {
  StoreLockScope lock(*this);
  if (!lock.Held()) return kUpdateFailed;
  if (!LoadStore()) return kUpdateFailed;

  std::string appID, installPath, displayName;
  if (!app.GetAppID(appID) || appID.empty() || !app.GetInstallPath(installPath) ||
      installPath.empty() || !app.GetDisplayName(displayName) || displayName.empty())
    return kUpdateFailed;

  esd::XMLDocumentNode* copy = esd::XMLDocumentNode::Duplicate(app.GetObjectRoot());
  if (copy == nullptr) return kUpdateFailed;
  GetObjectRoot()->AddChildNode(copy);
  return SaveMissingCompsApps() ? kAdded : kUpdateFailed;
}

unsigned VantuUpdaterMissingCompsManager::UpdateWithAppAndCompData(
    const char* appID, const unsigned char* displayName, const unsigned char* installPath,
    int opType, char* compName, char* compCategory, char* compVersion) {
  if (appID == nullptr || displayName == nullptr || installPath == nullptr ||
      compName == nullptr || compCategory == nullptr || compVersion == nullptr)
    return kUpdateFailed;
  // These three are written raw as attribute values: one holding a tab, line feed or carriage
  // return would read back with a blank, never be found again, and be added once more by every
  // request. (Markup in them is caught when the save refuses text that would not load.)
  for (const char* attribute : {appID, static_cast<const char*>(compName),
                                static_cast<const char*>(compCategory)}) {
    if (std::strpbrk(attribute, "\t\n\r") != nullptr) return kUpdateFailed;
  }
  // The host's text, not the store's: a version that does not parse is a refused entry, found
  // before the lock is taken.
  FileSystemVersion version(FileSystemVersion::kInvalidVersion);
  if (!FileSystemVersion::ParseVersionString(compVersion, version)) return kUpdateFailed;
  const std::string sDisplayName(reinterpret_cast<const char*>(displayName));
  const std::string sInstallPath(reinterpret_cast<const char*>(installPath));

  StoreLockScope lock(*this);
  if (!lock.Held()) return kUpdateFailed;
  std::unique_ptr<VantuUpdaterMissingCompsApp> entry;
  if (GetMissingCompsAppByAppID(appID, entry)) {
    // The entry is bound to the tree just loaded, so the changes below go into that tree and the
    // save writes them.
    std::string storedName, storedPath;
    int storedType = 0;
    if (!entry->GetDisplayName(storedName) || !entry->GetInstallPath(storedPath) ||
        !entry->GetOperationType(storedType))
      return kUpdateFailed;

    bool changed = false;
    if (storedName != esd::XMLEscaping::AsReadBack(sDisplayName)) {
      entry->SetDisplayName(sDisplayName);
      changed = true;
    }
    if (storedPath != esd::XMLEscaping::AsReadBack(sInstallPath)) {
      entry->SetInstallPath(sInstallPath);
      changed = true;
    }
    if (storedType != opType) {
      entry->SetOperationType(opType);
      changed = true;
    }

    unsigned result = kAlreadyListed;
    std::unique_ptr<VantuUpdaterAMissingComponent> match;
    if (!entry->GetAMatchingMIssingComponent(compName, compCategory, version, match)) {
      VantuUpdaterAMissingComponent comp(compName, compCategory, version);
      entry->AddAMissingComponent(comp);
      result = kAdded;
      changed = true;
    }
    // A refreshed name, path or type is worth keeping even when the component was listed
    // already: the updater shows and installs by what the entry says now.
    if (changed && !SaveMissingCompsApps()) result = kUpdateFailed;
    return result;
  }

  VantuUpdaterMissingCompsApp fresh(appID, opType);
  if (!fresh.SetDisplayName(sDisplayName) || !fresh.SetInstallPath(sInstallPath))
    return kUpdateFailed;
  VantuUpdaterAMissingComponent comp(compName, compCategory, version);
  if (!fresh.AddAMissingComponent(comp)) return kUpdateFailed;
  return InsertMissingCompsApp(fresh) == kAdded ? kAdded : kUpdateFailed;
}
