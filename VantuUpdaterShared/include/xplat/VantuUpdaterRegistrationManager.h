#ifndef VANTUUPDATERSHARED_XPLAT_VANTUUPDATERREGISTRATIONMANAGER_H
#define VANTUUPDATERSHARED_XPLAT_VANTUUPDATERREGISTRATIONMANAGER_H

// The machine-wide register of host applications, "VantuESDGlobalApps.xml" in the all-users
// updater data folder. The file is shared by every process and user, so each public operation
// loads it afresh under the store's inter-process lock and saves through the journal before the
// lock is released. The manager's own element is the store root "VantuUpdaterRegistrationManager"
// of the loaded tree; its records are "Application" elements below it.
//
// The updater itself is never stored: a lookup of its identifier is answered with a record made
// up on the spot from its running location.

#include <list>
#include <memory>
#include <string>

#include "xplat/VantuUpdaterRegisteredApp.h"
#include "xplat/XMLRecordStore.h"

class VantuUpdaterRegistrationManager : public XMLRecordStore<VantuUpdaterRegistrationManager> {
 public:
  // Results of InsertOrUpdateRegisteredApp. An identifier the store cannot hold is refused with
  // the same number as an unchanged entry: callers treat both as "nothing written".
  enum InsertResult : unsigned {
    kInserted = 0,
    kReplaced = 1,
    kUnchanged = 2,
    kRefused = 2,
    kInsertFailed = 3
  };
  // Results of UnregisterApp.
  enum UnregisterResult : unsigned { kRemoved = 0, kNotFound = 1, kUnregisterFailed = 2 };

  // True for a record whose "appID" equals the identifier exactly (byte-wise, case-sensitive).
  // Loading drops records without an "appID", so meeting one here is a programming error.
  class RegisteredAppMatcher {
   public:
    explicit RegisteredAppMatcher(const std::string& appID);
    bool operator()(const VantuUpdaterRegisteredApp& inApp) const;

   private:
    std::string mAppID;
  };

  // True ("remove it") for a record with no "appID" or no "InstallPath" (or an empty one): such an
  // entry can be neither looked up nor updated, so loading drops it rather than letting a damaged
  // file end the host. The file system is not consulted.
  class RegisteredAppVerifier {
   public:
    explicit RegisteredAppVerifier(VantuUpdaterRegistrationManager* inManager);
    bool operator()(const VantuUpdaterRegisteredApp& inApp) const;

   private:
    [[maybe_unused]] VantuUpdaterRegistrationManager* mManager;
  };

  // Finds the store's path; throws std::runtime_error "Unable to determine registration filepath!"
  // when the all-users data folder cannot be had. Neither locks nor loads.
  VantuUpdaterRegistrationManager();

  // Binds the manager to the store root of the loaded document (adding a root when the file had
  // none, or another program's element), drops entries without an identifier or an install path
  // and, when it dropped any, saves at once so the repair reaches the disk even if the caller goes
  // on only to read.
  bool OnLoadSuccess(esd::XMLDocumentNode* root, void* context) override;

  // kInserted, kReplaced an entry whose name or path differed (it moves to the end), kUnchanged
  // (nothing written), kRefused an identifier holding markup or a tab, line feed or carriage
  // return, kInsertFailed: no lock, no load, an empty identifier, name or path, or a failed save.
  // `app` itself is not added, a copy of its element is.
  unsigned InsertOrUpdateRegisteredApp(VantuUpdaterRegisteredApp& app);

  // kRemoved and saved (the file is deleted when it was the last entry), kNotFound,
  // kUnregisterFailed: the updater's own identifier, no store file, no lock, no load, a failed
  // save.
  unsigned UnregisterApp(const std::string& appID);

  // Every entry in file order, detached: the caller's records never write into the store.
  bool GetRegisteredApps(std::list<VantuUpdaterRegisteredApp>& out);

  // The entry for appID as a detached copy owned by `out`; false (and `out` untouched) when there
  // is none. The updater's identifier is answered by GetVantuUpdaterInfo without reading the file.
  bool GetRegisteredApplicationByAppID(const std::string& appID,
                                       std::unique_ptr<VantuUpdaterRegisteredApp>& out);

  // The updater's own record: "VantuUpdater", "Vantu Updater" and the folder of the running
  // updater; false (and `out` untouched) when that folder cannot be found.
  bool GetVantuUpdaterInfo(std::unique_ptr<VantuUpdaterRegisteredApp>& out);

  // Writes the loaded tree, or deletes the file when the store root has no children left (an
  // empty register is no register). Exceptions become false.
  bool SaveRegisteredApps();

  // Removes the record's element from the store root; false when it is not a child of it. The
  // record is left dangling and must not be used again.
  bool DeleteVantuUpdaterRegisteredApp(VantuUpdaterRegisteredApp& app);

  // Removes every entry for which pred is true and returns how many; the tree only, no save.
  template <class Pred>
  unsigned long DeleteVantuUpdaterRegisteredAppIf(Pred pred);

  static std::string GetNodeRootName();
};

template <class Pred>
unsigned long VantuUpdaterRegistrationManager::DeleteVantuUpdaterRegisteredAppIf(Pred pred) {
  return DeleteRecordsIf<VantuUpdaterRegisteredApp>(pred);
}

#endif
