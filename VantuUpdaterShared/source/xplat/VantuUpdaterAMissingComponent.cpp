#include "xplat/VantuUpdaterAMissingComponent.h"

#include "xplat/ChangeDiffType.h"
#include "xplat/XMLDocumentNode.h"

namespace {
const char kNameAttr[] = "name";
const char kCategoryAttr[] = "category";
const char kVersionAttr[] = "version";
}  // namespace

VantuUpdaterAMissingComponent::VantuUpdaterAMissingComponent(const std::string& name,
                                                             const std::string& category,
                                                             const FileSystemVersion& version) {
  Setname(name);
  Setcategory(category);
  Setversion(version);
}

VantuUpdaterAMissingComponent::VantuUpdaterAMissingComponent(esd::XMLDocumentNode* node)
    : XMLBoundObject<VantuUpdaterAMissingComponent>(node) {}

VantuUpdaterAMissingComponent::VantuUpdaterAMissingComponent(
    const VantuUpdaterAMissingComponent& other) = default;

VantuUpdaterAMissingComponent& VantuUpdaterAMissingComponent::operator=(
    const VantuUpdaterAMissingComponent& other) = default;

VantuUpdaterAMissingComponent::~VantuUpdaterAMissingComponent() = default;

std::string VantuUpdaterAMissingComponent::GetNodeRootName() { return "AMissingComponent"; }

bool VantuUpdaterAMissingComponent::Getname(std::string& out) const {
  return GetAttributeField(kNameAttr, out);
}

bool VantuUpdaterAMissingComponent::Setname(const std::string& value) {
  return SetAttributeField(kNameAttr, value);
}

bool VantuUpdaterAMissingComponent::Getcategory(std::string& out) const {
  return GetAttributeField(kCategoryAttr, out);
}

bool VantuUpdaterAMissingComponent::Setcategory(const std::string& value) {
  return SetAttributeField(kCategoryAttr, value);
}

bool VantuUpdaterAMissingComponent::Getversion(FileSystemVersion& out) const {
  return GetAttributeField(kVersionAttr, out);
}

bool VantuUpdaterAMissingComponent::Setversion(const FileSystemVersion& value) {
  return SetAttributeField(kVersionAttr, value);
}
