#include "xplat/VantuUpdaterRegisteredApp.h"

#include "xplat/XMLDocumentNode.h"

namespace {
const char kAppIDAttr[] = "appID";
const char kDisplayNameElem[] = "DisplayName";
const char kInstallPathElem[] = "InstallPath";
}  // namespace

VantuUpdaterRegisteredApp::VantuUpdaterRegisteredApp(const std::string& appID) {
  SetappID(appID);
}

VantuUpdaterRegisteredApp::VantuUpdaterRegisteredApp(esd::XMLDocumentNode* node)
    : XMLBoundObject<VantuUpdaterRegisteredApp>(node) {}

VantuUpdaterRegisteredApp::VantuUpdaterRegisteredApp(const VantuUpdaterRegisteredApp& other) =
    default;

VantuUpdaterRegisteredApp& VantuUpdaterRegisteredApp::operator=(
    const VantuUpdaterRegisteredApp& other) = default;

VantuUpdaterRegisteredApp::~VantuUpdaterRegisteredApp() = default;

bool VantuUpdaterRegisteredApp::GetappID(std::string& out) const {
  return GetAttributeField(kAppIDAttr, out);
}

bool VantuUpdaterRegisteredApp::SetappID(const std::string& value) {
  return SetAttributeField(kAppIDAttr, value);
}

bool VantuUpdaterRegisteredApp::GetDisplayName(std::string& out) const {
  return GetChildValue<std::string>(kDisplayNameElem, out);
}

bool VantuUpdaterRegisteredApp::SetDisplayName(const std::string& value) {
  return SetChildValue<std::string>(kDisplayNameElem, value);
}

bool VantuUpdaterRegisteredApp::GetInstallPath(std::string& out) const {
  return GetChildValue<std::string>(kInstallPathElem, out);
}

bool VantuUpdaterRegisteredApp::SetInstallPath(const std::string& value) {
  return SetChildValue<std::string>(kInstallPathElem, value);
}

std::string VantuUpdaterRegisteredApp::GetNodeRootName() { return "Application"; }
