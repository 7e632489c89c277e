#ifndef VANTUUPDATERSHARED_XPLAT_VANTUUPDATERAMISSINGCOMPONENT_H
#define VANTUUPDATERSHARED_XPLAT_VANTUUPDATERAMISSINGCOMPONENT_H

// One component that a host application found missing: an "AMissingComponent" element with the
// attributes "name", "category" and "version". Like every stored record it is a view on its
// element; copies share the element.

#include <string>

#include "xplat/FileSystemVersion.h"
#include "xplat/XMLBoundObject.h"

namespace esd {
class XMLDocumentNode;
}

class VantuUpdaterAMissingComponent : public XMLBoundObject<VantuUpdaterAMissingComponent> {
 public:
  // A fresh element, not yet in any document, with all three attributes set.
  VantuUpdaterAMissingComponent(const std::string& name, const std::string& category,
                                const FileSystemVersion& version);
  // Bound to an existing element, which must outlive this record (and every copy).
  explicit VantuUpdaterAMissingComponent(esd::XMLDocumentNode* node);
  VantuUpdaterAMissingComponent(const VantuUpdaterAMissingComponent& other);
  VantuUpdaterAMissingComponent& operator=(const VantuUpdaterAMissingComponent& other);
  virtual ~VantuUpdaterAMissingComponent();

  bool Getname(std::string& out) const;
  bool Setname(const std::string& value);
  bool Getcategory(std::string& out) const;
  bool Setcategory(const std::string& value);
  // Written as the dotted text of the version (1.0.0.0). Reading is lenient the way the version
  // conversion is: a damaged attribute yields the part that parsed.
  bool Getversion(FileSystemVersion& out) const;
  bool Setversion(const FileSystemVersion& value);

  static std::string GetNodeRootName();
};

#endif
