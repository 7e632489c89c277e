#ifndef VANTUUPDATERLIB_CESDUPDATE_H
#define VANTUUPDATERLIB_CESDUPDATE_H

// The facade behind the exported functions. Each export makes one object on its stack, calls the
// method of the same name and returns its result, so the object holds nothing between calls and
// everything that persists lives in the stores, the preferences file and the updater's folders.
//
// The methods call one another through the object (the workflows first ask
// ROZIsUpdateCheckEnabled, AddOrUpdateRegistration delegates to ROZRegisterApplication), which is
// why they are virtual and why their slot order is part of the class: a subclass that answers one
// question differently changes every workflow that asks it.
//
// Result codes are those of the public header. A step that throws (a store that cannot find its
// folder, memory running out, preferences that cannot be read or replaced) gives that step's
// result code, as the header documents: hosts are mostly C, where an exception would end the
// process with its locks held.

#include <cstdint>

#include "VantuUpdater/VantuUpdater.h"

class CEsdUpdate {
 public:
  CEsdUpdate() = default;
  CEsdUpdate(const CEsdUpdate&) = delete;
  CEsdUpdate& operator=(const CEsdUpdate&) = delete;
  virtual ~CEsdUpdate();

  // Starts an update check now. appID may be null: the updater is then started without an
  // application and nothing is registered or checked beyond the display name and path. A
  // scheduled trigger (type 1) starts nothing when automatic checks are off or the check period
  // has not elapsed, and never overrides a manual launch that is still pending.
  virtual int32_t ROZTriggerUpdateCheck(const char* appID, const unsigned char* displayName,
                                        const unsigned char* installPath,
                                        const char* displayLanguage, ROZTriggerType type,
                                        bool registerFirst);

  // Inserts the application into the registered-applications store or replaces its entry. A
  // store the store itself reports as unusable is deleted and rebuilt from this one entry.
  virtual int32_t ROZRegisterApplication(const char* appID, const unsigned char* displayName,
                                         const unsigned char* installPath);

  // True when the administrator policy does not switch checks off and the user is an
  // administrator. The policy can only disable; a user without administrator rights is never
  // enabled on this platform.
  virtual bool ROZIsUpdateCheckEnabled();

  // Records the components as missing for appID and has the updater fetch them: a running
  // updater is signalled, otherwise it is started in download mode. Entries before a failing
  // one stay recorded; entries after it are not recorded.
  virtual int32_t ROZDownloadMissingComponents(const char* appID, const unsigned char* displayName,
                                               const unsigned char* installPath,
                                               const char* displayLanguage,
                                               const ROZMissingComptList* list,
                                               ROZDownloadMissingCompType type, bool registerFirst);

  // Removes appID from the store and deletes its cached update result; when no application is
  // left, starts the updater in clean-up mode unless it already runs.
  virtual int32_t ROZUnRegisterApplication(const char* appID);

  // The availability exchange: the first call for a request number starts the updater with the
  // path of a result file and answers 8; a later call finds the file, stores its answer in
  // *available (when available is not null), removes the request folder and answers 0.
  virtual int32_t ROZIsUpdateAvailable(const char* appID, const unsigned char* displayName,
                                       const unsigned char* installPath,
                                       unsigned long requestNumber, bool* available,
                                       bool registerFirst);

  // Asks a not yet running updater to run the action it prepared for a registered appID.
  virtual int32_t ROZDoPluginAction(const char* appID);

  // Registers appID only when it is missing from the store or its path or name differ, so that
  // workflows can call it on every request without rewriting the store. displayName may be null
  // (the entry then keeps its name, or a new one is named by appID). Any registration failure is
  // reported as kROZResultNotRegistered.
  int32_t AddOrUpdateRegistration(const char* appID, const unsigned char* displayName,
                                  const unsigned char* installPath);

  // The library version packed into 32 bits (see the public header).
  static int32_t ROZGetVersion();
};

#endif
