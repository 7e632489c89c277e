#ifndef VANTUUPDATERSHARED_XPLAT_VANTUUPDATERMISSINGCOMPSMANAGER_H
#define VANTUUPDATERSHARED_XPLAT_VANTUUPDATERMISSINGCOMPSMANAGER_H

// The user's pending missing-component requests, "VantuMissingComps.xml" in the per-user updater
// data folder: one "VantuUpdaterMissingCompsApp" entry per application below the store root
// "VantuUpdaterMissingCompsManager", each listing the components the application still lacks.
// The updater application consumes the file; this library only adds to it.
//
// Unlike the registered-applications store, the entries handed out stay bound to the manager's
// loaded tree: a change made through one, followed by SaveMissingCompsApps(), changes the file.
// UpdateWithAppAndCompData relies on that.

#include <list>
#include <memory>
#include <string>

#include "xplat/VantuUpdaterMissingCompsApp.h"
#include "xplat/XMLRecordStore.h"

class VantuUpdaterMissingCompsManager : public XMLRecordStore<VantuUpdaterMissingCompsManager> {
 public:
  // Results of UpdateWithAppAndCompData and InsertMissingCompsApp.
  enum UpdateResult : unsigned { kAdded = 0, kAlreadyListed = 1, kUpdateFailed = 2 };

  // True for an entry whose "AppID" equals the identifier exactly. Loading drops entries without
  // one, so meeting one here is a programming error.
  class VantuUpdaterMissingCompsAppMatcher {
   public:
    explicit VantuUpdaterMissingCompsAppMatcher(const std::string& appID);
    bool operator()(const VantuUpdaterMissingCompsApp& inApp) const;

   private:
    std::string mAppID;
  };

  // True ("remove it") for an entry without a non-empty "AppID", a readable "OperationType", a
  // non-empty "DisplayName" and "InstallPath": such a request could be neither found, updated,
  // shown nor installed, and a damaged file must not end the host.
  class VantuUpdaterMissingCompsAppVerifier {
   public:
    explicit VantuUpdaterMissingCompsAppVerifier(VantuUpdaterMissingCompsManager* inManager);
    bool operator()(const VantuUpdaterMissingCompsApp& inApp) const;

   private:
    [[maybe_unused]] VantuUpdaterMissingCompsManager* mManager;
  };

  // Finds the store's path; throws std::runtime_error "Unable to determine missing comps
  // filepath!" when the per-user data folder cannot be had. Neither locks nor loads.
  VantuUpdaterMissingCompsManager();
  // Not passive: loads the store and deletes the file when it holds no entries or cannot be
  // parsed, so an empty or damaged request list never outlives the request that made it. A store
  // that could not be read only because another process held the lock is left alone: the read
  // and the delete are made under one hold of the lock.
  ~VantuUpdaterMissingCompsManager() override;

  // Binds the manager to the store root of the loaded document (adding a root when the file had
  // none, or another program's element), drops the entries the verifier rejects and the
  // components without a name, a category or a readable version and, when it dropped any, saves
  // at once.
  bool OnLoadSuccess(esd::XMLDocumentNode* root, void* context) override;

  // Records one missing component of one application. kAdded (to a new or an existing entry),
  // kAlreadyListed a matching component (a changed name, path or operation type is still saved),
  // kUpdateFailed: a null argument, an identifier, component name or
  // category holding a tab, line feed or carriage return (an attribute cannot carry them), no
  // lock, no load, an unreadable field of the existing entry, a failed save. An unparsable
  // compVersion throws std::runtime_error "Unable to parse version" and nothing is saved.
  //
  // The lock is held from the lookup to the save (taken here unless the caller holds it): the
  // save writes the whole tree that the lookup loaded, so another process writing in between
  // would otherwise have its entries silently overwritten by this older tree.
  unsigned UpdateWithAppAndCompData(const char* appID, const unsigned char* displayName,
                                    const unsigned char* installPath, int opType, char* compName,
                                    char* compCategory, char* compVersion);

  // Appends a copy of the entry and saves: kAdded, or kUpdateFailed (no lock, no load, an empty
  // identifier, display name or install path, a failed save). It does not look for an existing
  // entry of the same identifier; the caller does.
  unsigned InsertMissingCompsApp(VantuUpdaterMissingCompsApp& app);

  // Loads the store and lists its entries in file order, bound to the loaded tree.
  bool GetMissingCompsApps(std::list<VantuUpdaterMissingCompsApp>& out);

  // The entry for appID, as a heap copy still bound to the loaded tree; false (and `out`
  // untouched) when there is none or the store cannot be read.
  bool GetMissingCompsAppByAppID(const std::string& appID,
                                 std::unique_ptr<VantuUpdaterMissingCompsApp>& out);

  // Writes the loaded tree, or deletes the file when the store root has no children left.
  // Exceptions become false.
  bool SaveMissingCompsApps();

  // Removes every entry for which pred is true and returns how many; the tree only, no save.
  template <class Pred>
  unsigned long DeleteVantuUpdaterMissingCompsAppIf(Pred pred);

  static std::string GetNodeRootName();
};

template <class Pred>
unsigned long VantuUpdaterMissingCompsManager::DeleteVantuUpdaterMissingCompsAppIf(Pred pred) {
  return DeleteRecordsIf<VantuUpdaterMissingCompsApp>(pred);
}

#endif
