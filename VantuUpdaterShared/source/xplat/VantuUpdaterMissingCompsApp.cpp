#include "xplat/VantuUpdaterMissingCompsApp.h"

#include <algorithm>
#include <vector>

#include "xplat/ESDAssert.h"
#include "xplat/XMLBoundObjectUtils.h"
#include "xplat/XMLDocumentNode.h"

namespace {
const char kAppIDAttr[] = "AppID";
const char kOperationTypeAttr[] = "OperationType";
const char kRedoCFUAttr[] = "RedoCFU";
const char kDisplayNameElem[] = "DisplayName";
const char kInstallPathElem[] = "InstallPath";
const char kWildcardName[] = "*";
}  // namespace

VantuUpdaterMissingCompsApp::MissingCompMatcher::MissingCompMatcher(
    const std::string& name, const std::string& category, const FileSystemVersion& version,
    bool wildcard)
    : mName(name), mCategory(category), mVersion(version), mWildcard(wildcard) {}

bool VantuUpdaterMissingCompsApp::MissingCompMatcher::operator()(
    const VantuUpdaterAMissingComponent& inComp) const {
  std::string sCompName, sCompCategory;
  FileSystemVersion CompVersion(FileSystemVersion::kInvalidVersion);
  ESD_ASSERT(inComp.Getname(sCompName));
  ESD_ASSERT(inComp.Getcategory(sCompCategory));
  ESD_ASSERT(inComp.Getversion(CompVersion));

  if (sCompCategory != mCategory) return false;
  if (!(CompVersion == mVersion)) return false;
  // A "*" stands for any name, on either side, but never for a category or a version: a
  // request for every component of a category still names the exact release it needs.
  if (mWildcard && mName == kWildcardName) return true;
  if (sCompName == mName) return true;
  return mWildcard && sCompName == kWildcardName;
}

VantuUpdaterMissingCompsApp::VantuUpdaterMissingCompsApp(const std::string& appID, int opType) {
  SetAppID(appID);
  SetOperationType(opType);
  SetRedoCFU(true);
}

VantuUpdaterMissingCompsApp::VantuUpdaterMissingCompsApp(esd::XMLDocumentNode* node)
    : XMLBoundObject<VantuUpdaterMissingCompsApp>(node) {}

VantuUpdaterMissingCompsApp::VantuUpdaterMissingCompsApp(const VantuUpdaterMissingCompsApp& other) =
    default;

VantuUpdaterMissingCompsApp& VantuUpdaterMissingCompsApp::operator=(
    const VantuUpdaterMissingCompsApp& other) = default;

VantuUpdaterMissingCompsApp::~VantuUpdaterMissingCompsApp() = default;

std::string VantuUpdaterMissingCompsApp::GetNodeRootName() { return "VantuUpdaterMissingCompsApp"; }

bool VantuUpdaterMissingCompsApp::GetAppID(std::string& out) const {
  return GetAttributeField(kAppIDAttr, out);
}

bool VantuUpdaterMissingCompsApp::SetAppID(const std::string& value) {
  return SetAttributeField(kAppIDAttr, value);
}

bool VantuUpdaterMissingCompsApp::GetOperationType(int& out) const {
  return GetAttributeField(kOperationTypeAttr, out);
}

bool VantuUpdaterMissingCompsApp::SetOperationType(const int& value) {
  return SetAttributeField(kOperationTypeAttr, value);
}

bool VantuUpdaterMissingCompsApp::SetRedoCFU(const bool& value) {
  return SetAttributeField(kRedoCFUAttr, value);
}

bool VantuUpdaterMissingCompsApp::GetDisplayName(std::string& out) const {
  return GetChildValue<std::string>(kDisplayNameElem, out);
}

bool VantuUpdaterMissingCompsApp::SetDisplayName(const std::string& value) {
  return SetChildValue<std::string>(kDisplayNameElem, value);
}

bool VantuUpdaterMissingCompsApp::GetInstallPath(std::string& out) const {
  return GetChildValue<std::string>(kInstallPathElem, out);
}

bool VantuUpdaterMissingCompsApp::SetInstallPath(const std::string& value) {
  return SetChildValue<std::string>(kInstallPathElem, value);
}

bool VantuUpdaterMissingCompsApp::GetMissingComponents(
    std::list<VantuUpdaterAMissingComponent>& out) {
  out.clear();
  std::vector<VantuUpdaterAMissingComponent> comps;
  XMLBoundObjectUtils::GetNodeChildrenAsType<VantuUpdaterAMissingComponent>(
      GetObjectRoot(), VantuUpdaterAMissingComponent::GetNodeRootName(), comps);
  out.assign(comps.begin(), comps.end());
  return true;
}

bool VantuUpdaterMissingCompsApp::AddAMissingComponent(VantuUpdaterAMissingComponent& comp) {
  esd::XMLDocumentNode* entry = GetObjectRoot();
  if (entry == nullptr || comp.GetObjectRoot() == nullptr) return false;
  esd::XMLDocumentNode* copy = esd::XMLDocumentNode::Duplicate(comp.GetObjectRoot());
  if (copy == nullptr) return false;
  entry->AddChildNode(copy);
  return true;
}

bool VantuUpdaterMissingCompsApp::GetAMatchingMIssingComponent(
    const std::string& name, const std::string& category, const FileSystemVersion& version,
    std::unique_ptr<VantuUpdaterAMissingComponent>& out) {
  std::list<VantuUpdaterAMissingComponent> comps;
  GetMissingComponents(comps);
  auto found =
      std::find_if(comps.begin(), comps.end(), MissingCompMatcher(name, category, version, true));
  if (found == comps.end()) return false;
  out.reset(new VantuUpdaterAMissingComponent(*found));
  return true;
}
