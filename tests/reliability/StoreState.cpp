#include "reliability/StoreState.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <exception>
#include <filesystem>
#include <iostream>
#include <list>
#include <sstream>
#include <thread>

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

void Register(StoreState& model, const std::string& appID, const std::string& name,
              const std::string& path) {
  auto& apps = model.registered;
  apps.erase(std::remove_if(apps.begin(), apps.end(),
                            [&](const RegisteredApp& app) { return app.appID == appID; }),
             apps.end());
  apps.push_back(RegisteredApp{appID, name, path});
}

bool LoadRegistered(StoreState& out, std::string& error) {
  // The entries point into the store's tree: the store must outlive them.
  VantuUpdaterRegistrationManager store;
  std::list<VantuUpdaterRegisteredApp> apps;
  bool ok = store.GetRegisteredApps(apps);
  for (const VantuUpdaterRegisteredApp& app : apps) {
    RegisteredApp entry;
    ok = ok && app.GetappID(entry.appID) && app.GetDisplayName(entry.displayName) &&
         app.GetInstallPath(entry.installPath);
    out.registered.push_back(entry);
  }
  if (!ok) error = "the registered-applications store did not load whole";
  return ok;
}

bool LoadMissing(StoreState& out, std::string& error) {
  VantuUpdaterMissingCompsManager store;
  std::list<VantuUpdaterMissingCompsApp> apps;
  bool ok = store.GetMissingCompsApps(apps);
  for (VantuUpdaterMissingCompsApp& app : apps) {
    std::string appID;
    MissingApp entry;
    std::list<VantuUpdaterAMissingComponent> components;
    ok = ok && app.GetAppID(appID) && app.GetDisplayName(entry.displayName) &&
         app.GetInstallPath(entry.installPath) && app.GetOperationType(entry.operationType) &&
         app.GetMissingComponents(components);
    for (const VantuUpdaterAMissingComponent& component : components) {
      MissingComponent c;
      FileSystemVersion version("0");
      ok = ok && component.Getcategory(c.category) && component.Getname(c.name) &&
           component.Getversion(version);
      c.version = version.ToString();
      entry.components.push_back(c);
    }
    ok = ok && out.missing.emplace(appID, entry).second;
  }
  if (!ok) error = "the missing-components store did not load whole, or repeats an entry";
  return ok;
}

bool LoadPrefs(const std::string& path, const std::set<std::string>& keys, StoreState& out,
               std::string& error) {
  // No lock installed: the file is read once, which is all a reader at rest needs.
  esd::PrefsWriter reader(path, "VantuUpdater");
  for (const std::string& key : keys) {
    std::string value;
    if (!reader.GetPref<std::string>(key, value, std::string())) {
      error = "preference " + key + " did not read";
      return false;
    }
    if (!value.empty()) out.prefs[key] = value;
  }
  esd::MapPref<std::string, std::string> messages("NotificationMessage");
  messages.SetPrefsFile(&reader);
  if (!messages.Get(out.messages)) error = "the map preference did not read";
  return error.empty();
}

}  // namespace

const RegisteredApp* StoreState::FindRegistered(const std::string& appID) const {
  auto found = std::find_if(registered.begin(), registered.end(),
                            [&](const RegisteredApp& app) { return app.appID == appID; });
  return found == registered.end() ? nullptr : &*found;
}

std::string StoreState::Text() const {
  std::ostringstream out;
  for (const RegisteredApp& app : registered)
    out << "reg\t" << app.appID << "\t" << app.displayName << "\t" << app.installPath << "\n";
  for (const auto& [appID, app] : missing) {
    out << "mc\t" << appID << "\t" << app.displayName << "\t" << app.installPath << "\t"
        << app.operationType << "\n";
    for (const MissingComponent& c : app.components)
      out << "comp\t" << appID << "\t" << c.category << "\t" << c.name << "\t" << c.version << "\n";
  }
  for (const auto& [key, value] : prefs) out << "pref\t" << key << "\t" << value << "\n";
  for (const auto& [key, value] : messages) out << "msg\t" << key << "\t" << value << "\n";
  return out.str();
}

StoreState StoreState::Filter(const std::function<bool(const std::string&)>& keep) const {
  StoreState kept;
  std::copy_if(registered.begin(), registered.end(), std::back_inserter(kept.registered),
               [&](const RegisteredApp& app) { return keep(app.appID); });
  const auto copy = [&keep](const auto& from, auto& to) {
    for (const auto& item : from) {
      if (keep(item.first)) to.insert(item);
    }
  };
  copy(missing, kept.missing);
  copy(prefs, kept.prefs);
  copy(messages, kept.messages);
  return kept;
}

std::string StoreState::Diff(const StoreState& actual) const {
  std::ostringstream text;
  std::istringstream want(Text()), got(actual.Text());
  std::set<std::string> wanted, found;
  for (std::string line; std::getline(want, line);) wanted.insert(line);
  for (std::string line; std::getline(got, line);) found.insert(line);
  for (const std::string& line : wanted)
    if (!found.count(line)) text << "  expected, not found: " << line << "\n";
  for (const std::string& line : found)
    if (!wanted.count(line)) text << "  found, not expected: " << line << "\n";
  if (text.str().empty() && *this != actual) text << "  the same items in another order\n";
  return text.str();
}

bool StoreState::Load(const StoreFiles& files, const std::set<std::string>& prefKeys,
                      StoreState& out, std::string& error) {
  out = StoreState();
  error.clear();
  try {
    return LoadRegistered(out, error) && LoadMissing(out, error) &&
           LoadPrefs(files.prefs, prefKeys, out, error);
  } catch (const std::exception& e) {
    error = std::string("loading threw: ") + e.what();
    return false;
  }
}

bool Parses(const std::string& path) {
  const std::string bytes = testing_support::ReadFile(path);
  return esd::ExpatDOMBuilder<esd::XMLDocumentNode>::IsWellFormed(bytes.data(), bytes.size());
}

Journal JournalBeside(const std::string& store) {
  const std::string journal = store + "_";
  if (::access(journal.c_str(), F_OK) != 0) return Journal::kNone;
  return Parses(journal) ? Journal::kComplete : Journal::kPartial;
}

std::string CheckAtRest(const StoreFiles& files, Leftovers& leftovers) {
  std::ostringstream problems;
  std::set<fs::path> folders;
  for (const std::string& path : {files.registry, files.missingComps, files.prefs}) {
    if (::access(path.c_str(), F_OK) == 0 && !Parses(path)) problems << path << " does not parse\n";
    folders.insert(fs::path(path).parent_path());
  }
  for (const std::string& store : {files.registry, files.missingComps}) {
    const Journal journal = JournalBeside(store);
    if (journal == Journal::kComplete)
      problems << "a complete journal is left beside " << store << "\n";
    leftovers.partialJournals += journal == Journal::kPartial;
  }
  const std::string temporary = fs::path(files.prefs).filename().string() + ".new";
  for (const fs::path& folder : folders) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(folder, ignored)) {
      const std::string name = entry.path().filename().string();
      if (StartsWith(name, "TempSwap.")) problems << "left over: " << entry.path() << "\n";
      leftovers.prefsTemporaries += StartsWith(name, temporary);
    }
  }
  return problems.str();
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
  switch (op) {
    case kRegister:
      Register(model, appID, name, path);
      return kROZResultOK;
    case kUnregister:
      model.registered.erase(model.registered.begin() +
                             (model.FindRegistered(appID) - model.registered.data()));
      return kROZResultOK;
    case kDownload: {
      const RegisteredApp* current = model.FindRegistered(appID);
      if (registerFirst &&
          (!current || current->displayName != name || current->installPath != path))
        Register(model, appID, name, path);
      // The entry takes the request's name, path and type; "already requested" when every
      // component was recorded before.
      bool anyNew = components.empty();
      for (const MissingComponent& component : components) {
        MissingApp& app = model.missing[appID];
        std::vector<MissingComponent>& known = app.components;
        if (std::find(known.begin(), known.end(), component) == known.end()) {
          known.push_back(component);
          anyNew = true;
        }
        app.displayName = name;
        app.installPath = path;
        app.operationType = type;
      }
      return anyNew ? kROZResultOK : kROZResultAlreadyRequested;
    }
    case kSetPref:
      model.prefs[key] = value;
      return 1;
    case kSetMessage:
      model.messages[key] = value;
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

bool WaitFor(const std::function<bool()>& done, int timeoutMs, int stepMicros) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done() && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::microseconds(stepMicros));
  return done();
}

bool ParseOptions(int argc, char** argv, std::map<std::string, double>& values,
                  unsigned long long& seed, const std::function<bool()>& valid) {
  seed =
      static_cast<unsigned long long>(std::chrono::system_clock::now().time_since_epoch().count());
  bool ok = argc % 2 == 1;
  for (int i = 1; ok && i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    char* end = nullptr;
    if (name == "--seed")
      seed = std::strtoull(argv[i + 1], &end, 10);
    else if (StartsWith(name, "--") && values.count(name.substr(2)))
      values[name.substr(2)] = std::strtod(argv[i + 1], &end);
    ok = end != nullptr && *end == '\0';
  }
  if (!ok || !valid()) {
    std::cerr << "usage: " << argv[0];
    for (const auto& item : values) std::cerr << " [--" << item.first << " N]";
    std::cerr << " [--seed X]\n";
    return false;
  }
  std::cout << "seed " << seed << std::endl;
  return true;
}

}  // namespace reliability
