#include "CEsdUpdate.h"
#include "Contained.h"

#include <cstring>
#include <list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "xplat/CKVXVersion.h"
#include "xplat/ChangeDiffType.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/PrefsLockScope.h"
#include "xplat/SearchResults.h"
#include "xplat/StoreLockScope.h"
#include "xplat/SystemUtils.h"
#include "xplat/TextValidation.h"
#include "xplat/VantuUpdaterAdminPrefs.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"
#include "xplat/VantuUpdaterPrefs.h"
#include "xplat/VantuUpdaterRegisteredApp.h"
#include "xplat/VantuUpdaterRegistrationManager.h"
#include "xplat/VantuUpdaterUtils.h"
#include "xplat/XMLDocumentNode.h"
#include "xplat/XMLEscaping.h"

namespace {

// The version this library reports, the project's as the build states it; packed by
// ROZGetVersion.
const char kLibraryVersion[] = VANTU_VERSION_TEXT;

// Byte limits of the host's text arguments, without the terminating NUL.
const size_t kMaxAppIDLength = 256;
const size_t kMaxDisplayNameLength = 512;
const size_t kMaxInstallPathLength = 255;

// The availability exchange with the updater, below its cache-data folder.
const char kUpdateAvailableFolder[] = "UpdateAvailable";
const char kHAElemRoot[] = "UpdateInfo";
const char kHAElemResult[] = "Result";
// The per-application update result the updater caches; stale once the application leaves.
const char kUpdateResultSuffix[] = ".rzp.xml";

// Launch modes handed to the updater in kEnvStartMode.
const int kStartModeManualCheck = 0;
const int kStartModeScheduledCheck = 1;
const int kStartModeDownloadMissing = 3;
const int kStartModeCleanUp = 5;

typedef std::vector<std::pair<std::string, std::string>> LaunchParams;

size_t Length(const char* text) { return std::strlen(text); }
size_t Length(const unsigned char* text) {
  return std::strlen(reinterpret_cast<const char*>(text));
}

bool IsNullOrEmpty(const char* text) { return text == nullptr || text[0] == '\0'; }
bool IsNullOrEmpty(const unsigned char* text) { return text == nullptr || text[0] == '\0'; }

// The header's argument rules, each stated once; every export applies them in its own order.

// An application identifier names files, folders, locks and environment values the updater reads
// back, so it is plain 7-bit text that stands as one file-name component: "." and ".." would name
// the folder above, and "/" another folder. Valid UTF-8 is not enough.
bool IsValidAppID(const char* appID) {
  if (IsNullOrEmpty(appID) || Length(appID) > kMaxAppIDLength) return false;
  if (std::strcmp(appID, ".") == 0 || std::strcmp(appID, "..") == 0) return false;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(appID); *p != 0; ++p) {
    if (*p < 0x20 || *p >= 0x7F || *p == '/') return false;
  }
  return true;
}

bool IsValidDisplayName(const unsigned char* displayName) {
  return !IsNullOrEmpty(displayName) && Length(displayName) <= kMaxDisplayNameLength &&
         validate_utf8(displayName);
}

// Only some exports hold the install path to the length limit.
enum class PathLimit { kNone, kMaxLength };
bool IsValidInstallPath(const unsigned char* installPath, PathLimit limit) {
  return !IsNullOrEmpty(installPath) && validate_utf8(installPath) &&
         (limit == PathLimit::kNone || Length(installPath) <= kMaxInstallPathLength);
}

std::string AsString(const unsigned char* text) {
  return std::string(reinterpret_cast<const char*>(text));
}

// The launch-mode pair; left out when the number cannot be written as text, as the updater
// then starts in its default mode.
void AddStartMode(LaunchParams& params, int mode) {
  std::string text;
  if (esd::ChangeDiffTypeImpl<int, std::string>::ChangeType(mode, text))
    params.push_back(std::make_pair(std::string(VantuUpdaterUtils::kEnvStartMode), text));
}

// The host's language code in the updater's form ("en_US"); empty when it is too short to be one.
std::string NormalisedLanguage(const char* displayLanguage) {
  char code[11];
  ValidateIsoCode(displayLanguage, code);
  return std::string(code);
}

// The stores throw when they cannot even find their folder (no HOME, a machine folder the user
// may not create). For a host that is an ordinary failure of the store, so it is reported as the
// workflow's store failure code instead of unwinding into C code; every other exception passes.
template <class Store>
bool OpenStore(std::optional<Store>& store) {
  return Contained(false, [&store] {
    store.emplace();
    return true;
  });
}

// Runs `use` on the user's preferences while their lock is held. False when it could not run:
// the lock stayed busy, or the preferences could not be read or made (a damaged file that cannot
// be replaced, no data folder); every caller then goes on as if there were no preferences.
template <class Use>
bool WithPrefs(Use use) {
  return Contained(false, [&use] {
    VantuUpdaterPrefs* prefs = VantuUpdaterPrefs::GetVantuUpdaterPrefs();
    esd::PrefsLockScope lock(*prefs);
    if (!lock.IsHeld()) return false;
    use(*prefs);
    return true;
  });
}

// Sets "Launch" to "Manual" so the updater knows the user asked for this launch.
void RecordManualLaunch() {
  WithPrefs([](VantuUpdaterPrefs& prefs) {
    prefs.Launch.Set(VantuUpdaterUtils::GetStartupModeName(VantuUpdaterUtils::kManual));
  });
}

bool LaunchUpdater(const LaunchParams& params) {
  return Contained(false, [&params] { return CKVXVersion().LaunchUpdater(params); });
}

bool ForkUpdater(const LaunchParams& params) {
  return Contained(false, [&params] { return CKVXVersion().ForkUpdater(params); });
}

// Reads the answer of the updater's result file. False when the file does not parse or holds no
// single "Result" below "UpdateInfo"; a text that is not "0" or "1" reads as false.
bool ReadAvailabilityAnswer(const std::string& resultFile, bool& answer) {
  esd::ExpatDOMBuilder<esd::XMLDocumentNode> builder;
  if (!builder.Create(nullptr, nullptr)) return false;
  if (!builder.ParseFile(resultFile, false)) return false;
  esd::SearchResult<esd::XMLDocumentNode> roots =
      esd::SearchResult<esd::XMLDocumentNode>(builder.GetDocumentNode())
          .Children(esd::NodeName(std::string(kHAElemRoot)));
  if (roots.empty()) return false;
  esd::SearchResult<esd::XMLDocumentNode> results =
      esd::SearchResult<esd::XMLDocumentNode>(roots.GetFirst())
          .Children(esd::NodeName(std::string(kHAElemResult)));
  if (results.size() != 1) return false;
  bool value = false;
  if (!esd::ChangeDiffTypeImpl<std::string, bool>::ChangeType(results.GetFirst()->GetData(), value))
    value = false;
  answer = value;
  return true;
}

}  // namespace

CEsdUpdate::~CEsdUpdate() {}

int32_t CEsdUpdate::ROZGetVersion() {
  const std::string text(kLibraryVersion);
  std::vector<int> parts;
  std::string::size_type start = 0;
  for (;;) {
    const std::string::size_type dot = text.find('.', start);
    const std::string piece =
        text.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
    int value = 0;
    if (!esd::ChangeDiffTypeImpl<std::string, int>::ChangeType(piece, value)) break;
    parts.push_back(value);
    if (dot == std::string::npos) break;
    start = dot + 1;
  }
  if (parts.size() != 4) return 0;
  // The packing is the interface's: parts are OR-ed unmasked and the last one is not shifted.
  const uint32_t packed = (static_cast<uint32_t>(parts[0]) << 28) |
                          (static_cast<uint32_t>(parts[1]) << 24) |
                          (static_cast<uint32_t>(parts[2]) << 20) | static_cast<uint32_t>(parts[3]);
  return static_cast<int32_t>(packed);
}

bool CEsdUpdate::ROZIsUpdateCheckEnabled() {
  // A policy that cannot be read gives no answer, as a missing one does.
  bool policyEnabled = true;
  bool answer = true;
  if (Contained(false, [&answer] {
        return VantuUpdaterAdminPrefs::GetVantuUpdaterAdminPrefs().GetUpdateCheckEnabled(answer);
      }))
    policyEnabled = answer;

  const bool isAdmin =
      Contained(false, [] { return VantuUpdaterUtils::DoesUserHaveAdminPrivileges(); });
  bool platformAllows = false;
  if (!isAdmin) {
    // Only a platform whose ordinary users may update by themselves enables non-administrators;
    // this one never does, so the comparison documents the rule rather than ever passing.
    platformAllows = Contained(false, [] {
      const std::string platform = esd::SystemUtils::GetOSPlatform();
      const std::string versionText = esd::SystemUtils::GetOSPlatformVersion();
      float version = 0.0f;
      if (!esd::ChangeDiffTypeImpl<std::string, float>::ChangeType(versionText, version))
        version = 0.0f;
      return platform == "Windows" && version >= 6.0f;
    });
  }
  return policyEnabled && (isAdmin || platformAllows);
}

int32_t CEsdUpdate::ROZRegisterApplication(const char* appID, const unsigned char* displayName,
                                           const unsigned char* installPath) {
  if (!IsValidAppID(appID) || !IsValidDisplayName(displayName) ||
      !IsValidInstallPath(installPath, PathLimit::kMaxLength))
    return kROZResultInvalidArgument;

  return Contained(kROZResultRegistryUnusable, [&]() -> int32_t {
    VantuUpdaterRegisteredApp app{std::string(appID)};
    app.SetDisplayName(AsString(displayName));
    app.SetInstallPath(AsString(installPath));

    std::optional<VantuUpdaterRegistrationManager> store;
    if (!OpenStore(store)) return kROZResultRegistryUnusable;
    // Outside the update group the store is read-only: refused before its lock is even asked
    // for.
    if (!VantuUpdaterUtils::CanChangeAllUserData()) return kROZResultRegistryUnusable;

    using Manager = VantuUpdaterRegistrationManager;
    const auto stored = [](unsigned r) {
      return r == Manager::kInserted || r == Manager::kReplaced;
    };
    unsigned result = store->InsertOrUpdateRegisteredApp(app);
    if (stored(result)) return kROZResultOK;
    if (result == Manager::kUnchanged || result == Manager::kRefused) {
      return kROZResultRegistryNotUpdated;
    }

    // The store failed. Only a file the store cannot read is rebuilt: when it still loads, the
    // fault lay with this entry or the save (a name the UTF-8 check lets through but XML cannot
    // carry, a full disk), and deleting the file would cost every other host its registration
    // for nothing. The lock is held from that test to the rebuild: a store that could not be
    // read only because the lock stayed busy is not unusable, and without the lock another
    // process could write between the test and the deletion.
    StoreLockScope lock(*store);
    if (!lock.Held()) return kROZResultRegistryUnusable;
    std::list<VantuUpdaterRegisteredApp> current;
    if (store->GetRegisteredApps(current)) return kROZResultRegistryUnusable;

    // Rebuilding from this one entry loses the other registrations, but they re-register on
    // their next request, whereas a store that stays broken would refuse every host for good.
    if (!store->Delete()) return kROZResultRegistryUnusable;
    return stored(store->InsertOrUpdateRegisteredApp(app)) ? kROZResultOK
                                                           : kROZResultRegistryUnusable;
  });
}

int32_t CEsdUpdate::AddOrUpdateRegistration(const char* appID, const unsigned char* displayName,
                                            const unsigned char* installPath) {
  if (appID == nullptr || installPath == nullptr) return kROZResultInvalidArgument;

  const bool current = Contained(false, [&] {
    std::optional<VantuUpdaterRegistrationManager> store;
    if (!OpenStore(store)) return false;
    std::unique_ptr<VantuUpdaterRegisteredApp> existing;
    if (!store->GetRegisteredApplicationByAppID(std::string(appID), existing)) return false;
    // A field the entry lacks is no reason to rewrite it: only a readable, different value is.
    // Values are compared in the form the file gives them back.
    std::string stored;
    if (existing->GetInstallPath(stored) &&
        stored != esd::XMLEscaping::AsReadBack(AsString(installPath)))
      return false;
    return displayName == nullptr || !existing->GetDisplayName(stored) ||
           stored == esd::XMLEscaping::AsReadBack(AsString(displayName));
  });
  if (current) return kROZResultOK;

  const unsigned char* name =
      displayName != nullptr ? displayName : reinterpret_cast<const unsigned char*>(appID);
  return ROZRegisterApplication(appID, name, installPath) == kROZResultOK ? kROZResultOK
                                                                          : kROZResultNotRegistered;
}

int32_t CEsdUpdate::ROZUnRegisterApplication(const char* appID) {
  if (!IsValidAppID(appID)) return kROZResultInvalidArgument;

  std::optional<VantuUpdaterRegistrationManager> store;
  const int32_t removal = Contained(kROZResultRegistryUnusable, [&]() -> int32_t {
    if (!OpenStore(store)) return kROZResultRegistryUnusable;
    if (!VantuUpdaterUtils::CanChangeAllUserData()) return kROZResultRegistryUnusable;
    const unsigned removed = store->UnregisterApp(std::string(appID));
    if (removed == VantuUpdaterRegistrationManager::kNotFound) return kROZResultNotRegistered;
    return removed == VantuUpdaterRegistrationManager::kRemoved ? kROZResultOK
                                                                : kROZResultRegistryUnusable;
  });
  if (removal != kROZResultOK) return removal;

  // What follows only tidies up after a removal that has happened, so it cannot fail it.
  Contained(false, [&] {
    // A cached answer for an application that is gone would be handed to the next host that
    // registers under the same identifier.
    std::string cacheDir;
    if (VantuUpdaterUtils::GetVantuUpdaterCacheDataDir(cacheDir)) {
      const std::string cached =
          FileSystemUtils::AppendPathElement(cacheDir, std::string(appID) + kUpdateResultSuffix);
      if (FileSystemUtils::DoesPathExist(cached)) FileSystemUtils::DeleteLocalFile(cached);
    }

    std::list<VantuUpdaterRegisteredApp> remaining;
    if (store->GetRegisteredApps(remaining) && !remaining.empty()) return true;

    // The last application left: the updater cleans up after it (and may remove itself).
    if (!VantuUpdaterUtils::IsUpdaterRunning(false)) {
      LaunchParams params;
      AddStartMode(params, kStartModeCleanUp);
      if (!params.empty()) CKVXVersion().LaunchUpdater(params);
    }
    return true;
  });
  return kROZResultOK;
}

int32_t CEsdUpdate::ROZIsUpdateAvailable(const char* appID, const unsigned char* displayName,
                                         const unsigned char* installPath,
                                         unsigned long requestNumber, bool* available,
                                         bool registerFirst) {
  if (!ROZIsUpdateCheckEnabled()) return kROZResultUpdateCheckDisabled;

  if (!IsValidAppID(appID) || !IsValidDisplayName(displayName) ||
      !IsValidInstallPath(installPath, PathLimit::kMaxLength))
    return kROZResultInvalidArgument;

  // The registration only keeps the store current; the availability request stands on its own,
  // so its outcome is deliberately not reported.
  if (registerFirst) AddOrUpdateRegistration(appID, displayName, installPath);

  // Every failure to set the request up is reported as a request that could not be marked.
  return Contained(kROZResultMissingCompsStoreFailed, [&]() -> int32_t {
    // Without the cache-data folder there is nowhere for the updater to put its answer.
    std::string cacheDir;
    if (!VantuUpdaterUtils::GetVantuUpdaterCacheDataDir(cacheDir))
      return kROZResultMissingCompsStoreFailed;
    const std::string requestFolder = FileSystemUtils::AppendPathElement(
        FileSystemUtils::AppendPathElement(cacheDir, kUpdateAvailableFolder), std::string(appID));
    std::string requestName;
    esd::ChangeDiffTypeImpl<unsigned long, std::string>::ChangeType(requestNumber, requestName);
    const std::string resultFile =
        FileSystemUtils::AppendPathElement(requestFolder, requestName + ".xml");

    // A request that can never be marked (no usable folder for the markers: the runtime folder
    // refused and the private temporary folder taken by another user) would otherwise read as a
    // workflow under way for ever.
    std::string markerFolder;
    if (!VantuUpdaterUtils::VantuUpdaterNotifyWorkflowLocker::GetIPCLockFileFolder(markerFolder))
      return kROZResultMissingCompsStoreFailed;

    // While the updater works on this application, a second start would race it for the same
    // result file.
    if (VantuUpdaterUtils::VantuUpdaterNotifyWorkflowLocker::IsNotificationWorkflowActive(
            std::string(appID)))
      return kROZResultAnswerPending;

    if (FileSystemUtils::DoesPathExist(resultFile)) {
      bool answer = false;
      ReadAvailabilityAnswer(resultFile, answer);
      if (available != nullptr) *available = answer;
      // The answer is consumed: the next request starts afresh, also after a file that did not
      // parse.
      FileSystemUtils::DeleteDirectory(requestFolder, true);
      return kROZResultOK;
    }

    FileSystemUtils::DeleteDirectory(requestFolder, true);
    FileSystemUtils::CreateLocalDirectory(requestFolder);

    LaunchParams params;
    params.push_back(std::make_pair(std::string(VantuUpdaterUtils::kKeyUpdatesNotifyAppID),
                                    std::string(appID)));
    params.push_back(
        std::make_pair(std::string(VantuUpdaterUtils::kKeyUpdatesNotifyOutfile), resultFile));

    // The marker tells the next request (ours or another host's) that the answer is under way;
    // the updater removes it when it has written the result file.
    if (!VantuUpdaterUtils::VantuUpdaterNotifyWorkflowLocker::CreateIPCLockFile(
            std::string(appID)))
      return kROZResultMissingCompsStoreFailed;
    if (ForkUpdater(params)) return kROZResultAnswerPending;
    VantuUpdaterUtils::VantuUpdaterNotifyWorkflowLocker::DeleteIPCLockFile(std::string(appID));
    return kROZResultUpdaterUnavailable;
  });
}

int32_t CEsdUpdate::ROZTriggerUpdateCheck(const char* appID, const unsigned char* displayName,
                                          const unsigned char* installPath,
                                          const char* displayLanguage, ROZTriggerType type,
                                          bool registerFirst) {
  if (!ROZIsUpdateCheckEnabled()) return kROZResultUpdateCheckDisabled;

  // Without an application only the presence of the name and path is checked.
  if (IsNullOrEmpty(displayName) || Length(displayName) > kMaxDisplayNameLength ||
      IsNullOrEmpty(installPath))
    return kROZResultInvalidArgument;

  const std::string language = NormalisedLanguage(displayLanguage);
  const bool scheduled = type == kROZTriggerScheduled;

  LaunchParams params;
  AddStartMode(params, scheduled ? kStartModeScheduledCheck : kStartModeManualCheck);
  if (!language.empty())
    params.push_back(std::make_pair(std::string(VantuUpdaterUtils::kEnvDisplayLang), language));

  // Without an application the updater checks everything it knows; nothing is registered.
  if (appID == nullptr) {
    RecordManualLaunch();
    return LaunchUpdater(params) ? kROZResultOK : kROZResultUpdaterUnavailable;
  }

  if (!IsValidAppID(appID) || !IsValidInstallPath(installPath, PathLimit::kMaxLength) ||
      !IsValidDisplayName(displayName))
    return kROZResultInvalidArgument;
  params.push_back(
      std::make_pair(std::string(VantuUpdaterUtils::kEnvStartAppID), std::string(appID)));

  int32_t result = kROZResultOK;
  if (registerFirst) {
    result = AddOrUpdateRegistration(appID, displayName, installPath);
    if (result != kROZResultOK) return result;
  }

  if (type != kROZTriggerManual) {
    // Preferences that cannot be read ask for a check, as fresh ones do.
    bool periodElapsed = true;
    bool autoCheck = true;
    WithPrefs([&](VantuUpdaterPrefs& prefs) {
      periodElapsed = prefs.HasAutocheckPeriodElapsed();
      if (!prefs.AutoCheck.Get(autoCheck)) autoCheck = true;
    });
    // The user switched automatic checks off, or checked recently enough: the schedule asks for
    // nothing, which is success.
    if (!autoCheck || !periodElapsed) return kROZResultOK;
  }

  if (!scheduled) RecordManualLaunch();

  if (scheduled) {
    WithPrefs([](VantuUpdaterPrefs& prefs) {
      bool firstRun = false;
      if (!prefs.IsFirstRun.Get(firstRun)) firstRun = false;
      if (!firstRun) {
        // A scheduled check after the first run stays out of the user's way.
        prefs.InBackground.Set(true);
        int checkType = 0;
        prefs.InTrayIcon.Set(prefs.AutoCheckType.Get(checkType) && checkType == 0);
      }
      std::string launch;
      prefs.Launch.Get(launch);
      // A scheduled check must never override a manual launch the user already asked for.
      if (launch != VantuUpdaterUtils::GetStartupModeName(VantuUpdaterUtils::kManual))
        prefs.Launch.Set(VantuUpdaterUtils::GetStartupModeName(VantuUpdaterUtils::kScheduled));
    });
  }

  return LaunchUpdater(params) ? result : kROZResultUpdaterUnavailable;
}

int32_t CEsdUpdate::ROZDoPluginAction(const char* appID) {
  if (!ROZIsUpdateCheckEnabled()) return kROZResultUpdateCheckDisabled;
  // A running updater is busy with its own work; the host asks again later.
  if (Contained(false, [] { return VantuUpdaterUtils::IsUpdaterRunning(false); }))
    return kROZResultUpdaterRunning;
  if (!IsValidAppID(appID)) return kROZResultInvalidArgument;

  bool periodPending = false;
  WithPrefs([&periodPending](VantuUpdaterPrefs& prefs) {
    periodPending = !prefs.HasAutocheckPeriodElapsed();
  });
  if (periodPending) return kROZResultOK;

  const bool registered = Contained(false, [appID] {
    std::optional<VantuUpdaterRegistrationManager> store;
    std::unique_ptr<VantuUpdaterRegisteredApp> app;
    return OpenStore(store) && store->GetRegisteredApplicationByAppID(std::string(appID), app);
  });
  if (!registered) return kROZResultNotRegistered;

  LaunchParams params;
  params.push_back(
      std::make_pair(std::string(VantuUpdaterUtils::kKeyUpdatesDoActionAppID), std::string(appID)));
  return ForkUpdater(params) ? kROZResultOK : kROZResultUpdaterUnavailable;
}

int32_t CEsdUpdate::ROZDownloadMissingComponents(
    const char* appID, const unsigned char* displayName, const unsigned char* installPath,
    const char* displayLanguage, const ROZMissingComptList* list, ROZDownloadMissingCompType type,
    bool registerFirst) {
  if (!ROZIsUpdateCheckEnabled()) return kROZResultUpdateCheckDisabled;

  if (!IsValidAppID(appID) || !IsValidDisplayName(displayName) ||
      !IsValidInstallPath(installPath, PathLimit::kNone))
    return kROZResultInvalidArgument;
  const std::string language = NormalisedLanguage(displayLanguage);

  int32_t result = kROZResultOK;
  if (registerFirst) {
    result = AddOrUpdateRegistration(appID, displayName, installPath);
    if (result != kROZResultOK) return result;
  }

  // The store is held until the request is recorded and the updater signalled or started.
  return Contained(kROZResultMissingCompsStoreFailed, [&]() -> int32_t {
    using Manager = VantuUpdaterMissingCompsManager;
    std::optional<Manager> store;
    if (!OpenStore(store)) return kROZResultMissingCompsStoreFailed;

    // The first failing entry ends the request; entries before it stay recorded, so the host may
    // simply ask again with the whole list.
    bool allAlreadyKnown = true;
    unsigned last = Manager::kAdded;
    const uint32_t count = list != nullptr ? list->count : 0;
    for (uint32_t i = 0; i < count; ++i) {
      if (last == Manager::kUpdateFailed) return kROZResultMissingCompsStoreFailed;
      const ROZMissingComponent* entry =
          list->components != nullptr ? list->components[i] : nullptr;
      // A missing entry is recorded as nothing at all, which the store reports as a failure.
      last = store->UpdateWithAppAndCompData(
          appID, displayName, installPath, static_cast<int>(type),
          entry != nullptr ? entry->name : nullptr, entry != nullptr ? entry->category : nullptr,
          entry != nullptr ? entry->version : nullptr);
      if (last == Manager::kAdded) allAlreadyKnown = false;
    }
    if (last == Manager::kUpdateFailed) return kROZResultMissingCompsStoreFailed;
    int32_t recorded = result;
    if (last == Manager::kAlreadyListed && allAlreadyKnown) recorded = kROZResultAlreadyRequested;

    // The request stays recorded either way; without an updater nobody will act on it yet.
    std::string updater;
    if (!VantuUpdaterUtils::GetUpdaterLocation(updater) ||
        !FileSystemUtils::DoesPathExist(updater))
      return kROZResultUpdaterUnavailable;

    // A running updater reads the store itself once told to; a second instance is not started.
    if (Contained(false, [] {
          return VantuUpdaterUtils::IsUpdaterRunning(true) &&
                 VantuUpdaterUtils::SignalExpressDownloadRequest();
        }))
      return recorded;

    LaunchParams params;
    AddStartMode(params, kStartModeDownloadMissing);
    if (!language.empty())
      params.push_back(std::make_pair(std::string(VantuUpdaterUtils::kEnvDisplayLang), language));
    LaunchUpdater(params);
    return recorded;
  });
}
