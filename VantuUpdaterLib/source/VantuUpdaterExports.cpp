// The library's exported functions. Each makes a fresh facade on its own stack and returns what
// the method returns: no state survives a call, so any thread of any host may call any of them at
// any time.
//
// Hosts are mostly written in C, and an exception reaching a C frame ends the process without
// unwinding, leaving every lock it held behind. The facade turns the failures of each step into
// that step's result code; what might still escape it (memory running out between steps) is
// caught here and answered with the code the header documents for the function.

#include "CEsdUpdate.h"
#include "Contained.h"
#include "VantuUpdater/VantuUpdater.h"

extern "C" {

int32_t ROZGetVersion(void) {
  return Contained(0, [] { return CEsdUpdate::ROZGetVersion(); });
}

int32_t ROZIsUpdateCheckEnabled(void) {
  return Contained(0, [] {
    CEsdUpdate facade;
    return facade.ROZIsUpdateCheckEnabled() ? 1 : 0;
  });
}

int32_t ROZRegisterApplication(const char* appID, const unsigned char* displayName,
                               const unsigned char* installPath) {
  return Contained(kROZResultRegistryUnusable, [&] {
    CEsdUpdate facade;
    return facade.ROZRegisterApplication(appID, displayName, installPath);
  });
}

int32_t ROZUnRegisterApplication(const char* appID) {
  return Contained(kROZResultRegistryUnusable, [&] {
    CEsdUpdate facade;
    return facade.ROZUnRegisterApplication(appID);
  });
}

int32_t ROZIsUpdateAvailable(const char* appID, const unsigned char* displayName,
                             const unsigned char* installPath, unsigned long requestNumber,
                             bool* available, bool registerFirst) {
  return Contained(kROZResultMissingCompsStoreFailed, [&] {
    CEsdUpdate facade;
    return facade.ROZIsUpdateAvailable(appID, displayName, installPath, requestNumber, available,
                                       registerFirst);
  });
}

int32_t ROZTriggerUpdateCheck(const char* appID, const unsigned char* displayName,
                              const unsigned char* installPath, const char* displayLanguage,
                              ROZTriggerType type, bool registerFirst) {
  return Contained(kROZResultUpdaterUnavailable, [&] {
    CEsdUpdate facade;
    return facade.ROZTriggerUpdateCheck(appID, displayName, installPath, displayLanguage, type,
                                        registerFirst);
  });
}

int32_t ROZDoPluginAction(const char* appID) {
  return Contained(kROZResultUpdaterUnavailable, [&] {
    CEsdUpdate facade;
    return facade.ROZDoPluginAction(appID);
  });
}

int32_t ROZDownloadMissingComponents(const char* appID, const unsigned char* displayName,
                                     const unsigned char* installPath, const char* displayLanguage,
                                     const ROZMissingComptList* list,
                                     ROZDownloadMissingCompType type, bool registerFirst) {
  return Contained(kROZResultMissingCompsStoreFailed, [&] {
    CEsdUpdate facade;
    return facade.ROZDownloadMissingComponents(appID, displayName, installPath, displayLanguage,
                                               list, type, registerFirst);
  });
}

}  // extern "C"
