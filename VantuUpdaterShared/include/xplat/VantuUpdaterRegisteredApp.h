#ifndef VANTUUPDATERSHARED_XPLAT_VANTUUPDATERREGISTEREDAPP_H
#define VANTUUPDATERSHARED_XPLAT_VANTUUPDATERREGISTEREDAPP_H

// One host application known to the updater: an "Application" element of the registered-
// applications store. The record keeps no copy of its fields; every accessor reads or writes the
// element it is bound to, so a copy of a record writes into the same element as its source.

#include <string>

#include "xplat/XMLBoundObject.h"

namespace esd {
class XMLDocumentNode;
}

class VantuUpdaterRegisteredApp : public XMLBoundObject<VantuUpdaterRegisteredApp> {
 public:
  // A fresh "Application" element, not yet in any document, carrying appID.
  explicit VantuUpdaterRegisteredApp(const std::string& appID);
  // Bound to an existing "Application" element, which must outlive this record (and every copy).
  explicit VantuUpdaterRegisteredApp(esd::XMLDocumentNode* node);
  VantuUpdaterRegisteredApp(const VantuUpdaterRegisteredApp& other);
  VantuUpdaterRegisteredApp& operator=(const VantuUpdaterRegisteredApp& other);
  virtual ~VantuUpdaterRegisteredApp();

  // Attribute "appID". The lower-case spelling is the stored name's.
  bool GetappID(std::string& out) const;
  bool SetappID(const std::string& value);

  // Child elements "DisplayName" and "InstallPath", as text.
  bool GetDisplayName(std::string& out) const;
  bool SetDisplayName(const std::string& value);
  bool GetInstallPath(std::string& out) const;
  bool SetInstallPath(const std::string& value);

  static std::string GetNodeRootName();
};

#endif
