// The library's exported functions. Each makes a fresh facade on its own stack and returns what
// the method returns: no state survives a call, so any thread of any host may call any of them at
// any time. Nothing is caught here; the facade decides which failures become result codes.

#include "CEsdUpdate.h"
#include "VantuUpdater/VantuUpdater.h"

extern "C" {

int32_t ROZGetVersion(void) {
  CEsdUpdate facade;
  return facade.ROZGetVersion();
}

int32_t ROZIsUpdateCheckEnabled(void) {
  CEsdUpdate facade;
  return facade.ROZIsUpdateCheckEnabled() ? 1 : 0;
}

int32_t ROZRegisterApplication(const char* appID, const unsigned char* displayName,
                               const unsigned char* installPath) {
  CEsdUpdate facade;
  return facade.ROZRegisterApplication(appID, displayName, installPath);
}

int32_t ROZUnRegisterApplication(const char* appID) {
  CEsdUpdate facade;
  return facade.ROZUnRegisterApplication(appID);
}

int32_t ROZIsUpdateAvailable(const char* appID, const unsigned char* displayName,
                             const unsigned char* installPath, unsigned long requestNumber,
                             bool* available, bool registerFirst) {
  CEsdUpdate facade;
  return facade.ROZIsUpdateAvailable(appID, displayName, installPath, requestNumber, available,
                                     registerFirst);
}

int32_t ROZTriggerUpdateCheck(const char* appID, const unsigned char* displayName,
                              const unsigned char* installPath, const char* displayLanguage,
                              ROZTriggerType type, bool registerFirst) {
  CEsdUpdate facade;
  return facade.ROZTriggerUpdateCheck(appID, displayName, installPath, displayLanguage, type,
                                      registerFirst);
}

int32_t ROZDoPluginAction(const char* appID) {
  CEsdUpdate facade;
  return facade.ROZDoPluginAction(appID);
}

int32_t ROZDownloadMissingComponents(const char* appID, const unsigned char* displayName,
                                     const unsigned char* installPath, const char* displayLanguage,
                                     const ROZMissingComptList* list,
                                     ROZDownloadMissingCompType type, bool registerFirst) {
  CEsdUpdate facade;
  return facade.ROZDownloadMissingComponents(appID, displayName, installPath, displayLanguage, list,
                                             type, registerFirst);
}

}  // extern "C"
