#ifndef VANTUUPDATERSHARED_XPLAT_VANTUUPDATERMISSINGCOMPSAPP_H
#define VANTUUPDATERSHARED_XPLAT_VANTUUPDATERMISSINGCOMPSAPP_H

// One application's pending request in the missing-components store: a
// "VantuUpdaterMissingCompsApp" element with the attributes "AppID", "OperationType" and
// "RedoCFU", the child elements "DisplayName" and "InstallPath", and one "AMissingComponent"
// child per component, in the order they were asked for. A view on its element; copies share it.

#include <list>
#include <memory>
#include <string>

#include "xplat/FileSystemVersion.h"
#include "xplat/VantuUpdaterAMissingComponent.h"
#include "xplat/XMLBoundObject.h"

namespace esd {
class XMLDocumentNode;
}

class VantuUpdaterMissingCompsApp : public XMLBoundObject<VantuUpdaterMissingCompsApp> {
 public:
  // Decides whether a stored component satisfies a request. Category and version must be equal;
  // the name must be equal too, except that with `wildcard` set a name of "*" on either side
  // matches any name. Every stored component has all three attributes; one without is a
  // programming error.
  class MissingCompMatcher {
   public:
    MissingCompMatcher(const std::string& name, const std::string& category,
                       const FileSystemVersion& version, bool wildcard);
    bool operator()(const VantuUpdaterAMissingComponent& inComp) const;

   private:
    std::string mName;
    std::string mCategory;
    FileSystemVersion mVersion;
    bool mWildcard;
  };

  // A fresh entry, not yet in any document: "AppID", the operation type as its integer value and
  // "RedoCFU" "1" (the updater is always asked to check again for a new request). The operation
  // type is the host's ROZDownloadMissingCompType, which this layer only records and compares.
  VantuUpdaterMissingCompsApp(const std::string& appID, int opType);
  // Bound to an existing element, which must outlive this record (and every copy).
  explicit VantuUpdaterMissingCompsApp(esd::XMLDocumentNode* node);
  VantuUpdaterMissingCompsApp(const VantuUpdaterMissingCompsApp& other);
  VantuUpdaterMissingCompsApp& operator=(const VantuUpdaterMissingCompsApp& other);
  virtual ~VantuUpdaterMissingCompsApp();

  bool GetAppID(std::string& out) const;
  bool SetAppID(const std::string& value);
  bool GetOperationType(int& out) const;
  bool SetOperationType(const int& value);
  // Written for the updater only; this library never reads it back.
  bool SetRedoCFU(const bool& value);
  bool GetDisplayName(std::string& out) const;
  bool SetDisplayName(const std::string& value);
  bool GetInstallPath(std::string& out) const;
  bool SetInstallPath(const std::string& value);

  // Every component of the entry in document order, bound to this entry's element (so they write
  // into it). The entry must have an element.
  bool GetMissingComponents(std::list<VantuUpdaterAMissingComponent>& out);

  // Appends a copy of the component's element as the entry's last child; duplicates are the
  // caller's business. Always true.
  bool AddAMissingComponent(VantuUpdaterAMissingComponent& comp);

  // The first component that MissingCompMatcher(name, category, version, true) accepts, as a heap
  // copy bound to this entry; false (and `out` untouched) when none does.
  bool GetAMatchingMIssingComponent(const std::string& name, const std::string& category,
                                    const FileSystemVersion& version,
                                    std::unique_ptr<VantuUpdaterAMissingComponent>& out);

  static std::string GetNodeRootName();
};

#endif
