#include "reliability/StoreState.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iterator>
#include <exception>
#include <filesystem>
#include <iostream>
#include <list>
#include <sstream>

#include "VantuUpdater/VantuUpdater.h"
#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemVersion.h"
#include "xplat/MapPref.h"
#include "xplat/PrefsLockScope.h"
#include "xplat/PrefsWriter.h"
#include "xplat/VantuUpdaterAMissingComponent.h"
#include "xplat/VantuUpdaterMissingCompsApp.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"
#include "xplat/VantuUpdaterPrefs.h"
#include "xplat/VantuUpdaterRegisteredApp.h"
#include "xplat/VantuUpdaterRegistrationManager.h"
#include "xplat/XMLDocumentNode.h"

namespace reliability {

namespace fs = std::filesystem;

const char* const kOperationNames[kOperations] = {"register", "unregister",       "download",
                                                  "pref set", "pref map (r-m-w)", "trigger"};

namespace {

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

const unsigned char* U(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.c_str());
}

std::string ComponentKey(const std::string& appID, const MissingComponent& c) {
  return StoreState::Key("comp", appID) + "\t" + c.category + "\t" + c.name + "\t" + c.version;
}

bool LoadRegistered(StoreState& out) {
  // The entries point into the store's tree: the store must outlive them.
  VantuUpdaterRegistrationManager store;
  std::list<VantuUpdaterRegisteredApp> apps;
  bool ok = store.GetRegisteredApps(apps);
  for (const VantuUpdaterRegisteredApp& app : apps) {
    std::string appID, name, path;
    ok = ok && app.GetappID(appID) && app.GetDisplayName(name) && app.GetInstallPath(path) &&
         out.emplace(StoreState::Key("reg", appID), name + "\t" + path).second;
  }
  return ok;
}

bool LoadMissing(StoreState& out) {
  VantuUpdaterMissingCompsManager store;
  std::list<VantuUpdaterMissingCompsApp> apps;
  bool ok = store.GetMissingCompsApps(apps);
  for (VantuUpdaterMissingCompsApp& app : apps) {
    std::string appID, name, path;
    int type = 0;
    std::list<VantuUpdaterAMissingComponent> components;
    ok = ok && app.GetAppID(appID) && app.GetDisplayName(name) && app.GetInstallPath(path) &&
         app.GetOperationType(type) && app.GetMissingComponents(components) &&
         out.emplace(StoreState::Key("mc", appID), name + "\t" + path + "\t" + std::to_string(type))
             .second;
    for (const VantuUpdaterAMissingComponent& component : components) {
      MissingComponent c;
      FileSystemVersion version("0");
      ok = ok && component.Getcategory(c.category) && component.Getname(c.name) &&
           component.Getversion(version);
      c.version = version.ToString();
      ok = ok && out.emplace(ComponentKey(appID, c), "").second;
    }
  }
  return ok;
}

bool LoadPrefs(const std::string& path, const std::set<std::string>& keys, StoreState& out) {
  // No lock installed: the file is read once, which is all a reader at rest needs.
  esd::PrefsWriter reader(path, "VantuUpdater");
  for (const std::string& key : keys) {
    std::string value;
    if (!reader.GetPref<std::string>(key, value, std::string())) return false;
    if (!value.empty()) out[StoreState::Key("pref", key)] = value;
  }
  esd::MapPref<std::string, std::string> messages("NotificationMessage");
  messages.SetPrefsFile(&reader);
  std::map<std::string, std::string> entries;
  if (!messages.Get(entries)) return false;
  for (const auto& [key, value] : entries) out[StoreState::Key("msg", key)] = value;
  return true;
}

}  // namespace

size_t StoreState::Count(const std::string& kind) const {
  return static_cast<size_t>(std::distance(Begin(kind), End(kind)));
}

StoreState StoreState::Filter(const std::function<bool(const std::string&)>& keep) const {
  StoreState kept;
  for (const auto& item : *this) {
    const size_t start = item.first.find('\t') + 1;
    if (keep(item.first.substr(start, item.first.find('\t', start) - start))) kept.insert(item);
  }
  return kept;
}

std::string StoreState::Diff(const StoreState& actual) const {
  std::ostringstream text;
  const auto missing = [&text](const StoreState& from, const StoreState& in, const char* what) {
    for (const auto& [key, value] : from) {
      const auto found = in.find(key);
      if (found == in.end() || found->second != value)
        text << "  " << what << ": " << key << "\t" << value << "\n";
    }
  };
  missing(*this, actual, "expected, not found");
  missing(actual, *this, "found, not expected");
  return text.str();
}

bool StoreState::Load(const StoreFiles& files, const std::set<std::string>& prefKeys,
                      StoreState& out, std::string& error) {
  out = StoreState();
  error.clear();
  try {
    if (!LoadRegistered(out)) error = "the registered-applications store did not load whole";
    if (error.empty() && !LoadMissing(out)) error = "the missing-components store did not load";
    if (error.empty() && !LoadPrefs(files.prefs, prefKeys, out)) error = "preferences unread";
  } catch (const std::exception& e) {
    error = std::string("loading threw: ") + e.what();
  }
  return error.empty();
}

bool Parses(const std::string& path) {
  const std::string bytes = testing_support::ReadFile(path);
  return esd::ExpatDOMBuilder<esd::XMLDocumentNode>::IsWellFormed(bytes.data(), bytes.size());
}

Leftovers Inspect(const StoreFiles& files, bool atRest, std::string& problems) {
  Leftovers found;
  std::set<fs::path> folders;
  for (const std::string& path : {files.registry, files.missingComps, files.prefs}) {
    if (::access(path.c_str(), F_OK) == 0 && !Parses(path)) problems += path + " does not parse\n";
    folders.insert(fs::path(path).parent_path());
  }
  for (const std::string& store : {files.registry, files.missingComps}) {
    const std::string journal = store + "_";
    if (::access(journal.c_str(), F_OK) == 0)
      ++(Parses(journal) ? found.completeJournals : found.partialJournals);
  }
  const std::string temporary = fs::path(files.prefs).filename().string() + ".new";
  for (const fs::path& folder : folders) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(folder, ignored)) {
      const std::string name = entry.path().filename().string();
      found.swapObjects += StartsWith(name, "TempSwap.");
      found.prefsTemporaries += StartsWith(name, temporary);
    }
  }
  if (atRest && found.completeJournals + found.swapObjects > 0)
    problems += "a complete journal or a \"TempSwap.\" object is left beside the stores\n";
  return found;
}

long Call::Make() const {
  switch (op) {
    case kRegister:
      return ROZRegisterApplication(appID.c_str(), U(name), U(path));
    case kUnregister:
      return ROZUnRegisterApplication(appID.c_str());
    case kDownload: {
      std::vector<MissingComponent> copies = components;
      std::vector<ROZMissingComponent> entries;
      for (MissingComponent& c : copies)
        entries.push_back(ROZMissingComponent{&c.category[0], &c.name[0], &c.version[0]});
      std::vector<ROZMissingComponent*> pointers;
      for (ROZMissingComponent& entry : entries) pointers.push_back(&entry);
      ROZMissingComptList list{static_cast<uint32_t>(pointers.size()), pointers.data()};
      return ROZDownloadMissingComponents(appID.c_str(), U(name), U(path), "de_DE", &list,
                                          static_cast<ROZDownloadMissingCompType>(type),
                                          registerFirst);
    }
    case kSetPref:
      return VantuUpdaterPrefs::GetVantuUpdaterPrefs()->SetPref<std::string>(key, value) ? 1 : 0;
    case kSetMessage: {
      VantuUpdaterPrefs* prefs = VantuUpdaterPrefs::GetVantuUpdaterPrefs();
      esd::PrefsLockScope lock(*prefs);
      std::map<std::string, std::string> messages;
      if (!lock.IsHeld() || !prefs->NotificationMessage.Get(messages)) return -1;
      messages[key] = value;
      return prefs->NotificationMessage.Set(messages) ? 1 : 0;
    }
    default:
      return ROZTriggerUpdateCheck(appID.empty() ? nullptr : appID.c_str(), U(name), U(path),
                                   "en_US",
                                   appID.empty() ? kROZTriggerManual : kROZTriggerScheduled, false);
  }
}

long Call::Apply(StoreState& model) const {
  const std::string registration = StoreState::Key("reg", appID);
  switch (op) {
    case kRegister:
      model[registration] = name + "\t" + path;
      return kROZResultOK;
    case kUnregister:
      model.erase(registration);
      return kROZResultOK;
    case kDownload: {
      if (registerFirst) model[registration] = name + "\t" + path;
      // The entry takes the request's name, path and type; "already requested" when every
      // component was recorded before.
      bool anyNew = components.empty();
      for (const MissingComponent& component : components) {
        anyNew = model.emplace(ComponentKey(appID, component), "").second || anyNew;
        model[StoreState::Key("mc", appID)] = name + "\t" + path + "\t" + std::to_string(type);
      }
      return anyNew ? kROZResultOK : kROZResultAlreadyRequested;
    }
    case kSetPref:
    case kSetMessage:
      model[StoreState::Key(op == kSetPref ? "pref" : "msg", key)] = value;
      return 1;
    default:
      return kROZResultOK;
  }
}

std::string Call::Item() const {
  return op == kTrigger ? "Launch" : op == kSetPref || op == kSetMessage ? key : appID;
}

StoreFiles PrepareSandbox(testing_support::UpdaterSandbox& sandbox) {
  sandbox.env().SetGroups({"admin"});
  sandbox.InstallUpdater();
  // Launches are counted, not run: thousands of updater processes would measure fork, not us.
  sandbox.env().RecordLaunches(true, 0);
  return {sandbox.RegistryFile(), sandbox.MissingCompsFile(),
          sandbox.UserDataDir() + "/VantuUpdaterPrefs.dat"};
}

bool ParseOptions(int argc, char** argv, std::map<std::string, double>& values,
                  unsigned long long& seed) {
  seed =
      static_cast<unsigned long long>(std::chrono::system_clock::now().time_since_epoch().count());
  for (int i = 1; i < argc; i += 2) {
    const std::string name = argv[i];
    char* end = nullptr;
    if (i + 1 < argc && name == "--seed")
      seed = std::strtoull(argv[i + 1], &end, 10);
    else if (i + 1 < argc && StartsWith(name, "--") && values.count(name.substr(2)))
      values[name.substr(2)] = std::strtod(argv[i + 1], &end);
    if (end == nullptr || *end != '\0') return false;
  }
  std::cout << "seed " << seed << std::endl;
  return true;
}

}  // namespace reliability
