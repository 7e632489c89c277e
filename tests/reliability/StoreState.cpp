#include "reliability/StoreState.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <list>
#include <memory>
#include <ostream>
#include <sstream>
#include <tuple>

#include "support/TempDir.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/FileSystemVersion.h"
#include "xplat/XMLDocumentNode.h"
#include "xplat/MapPref.h"
#include "xplat/PrefsWriter.h"
#include "xplat/VantuUpdaterAMissingComponent.h"
#include "xplat/VantuUpdaterMissingCompsApp.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"
#include "xplat/VantuUpdaterRegisteredApp.h"
#include "xplat/VantuUpdaterRegistrationManager.h"

namespace reliability {

namespace {

const char kPrefsRootName[] = "VantuUpdater";
const char kMessagesKey[] = "NotificationMessage";

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

std::vector<std::string> SplitTabs(const std::string& line) {
  std::vector<std::string> fields;
  std::string::size_type start = 0;
  for (;;) {
    const std::string::size_type tab = line.find('\t', start);
    fields.push_back(
        line.substr(start, tab == std::string::npos ? std::string::npos : tab - start));
    if (tab == std::string::npos) return fields;
    start = tab + 1;
  }
}

std::string Describe(const RegisteredApp& app) {
  return app.appID + " \"" + app.displayName + "\" " + app.installPath;
}

std::string Describe(const MissingApp& app) {
  std::ostringstream text;
  text << "\"" << app.displayName << "\" " << app.installPath << " type " << app.operationType
       << " [";
  for (const MissingComponent& c : app.components)
    text << " " << c.category << "/" << c.name << "/" << c.version;
  text << " ]";
  return text.str();
}

bool LoadRegistered(StoreState& out, std::string& error) {
  VantuUpdaterRegistrationManager store;
  std::list<VantuUpdaterRegisteredApp> apps;
  if (!store.GetRegisteredApps(apps)) {
    error = "the registered-applications store did not load";
    return false;
  }
  for (const VantuUpdaterRegisteredApp& app : apps) {
    RegisteredApp entry;
    if (!app.GetappID(entry.appID) || !app.GetDisplayName(entry.displayName) ||
        !app.GetInstallPath(entry.installPath)) {
      error = "a registered application lacks a field";
      return false;
    }
    out.registered.push_back(entry);
  }
  return true;
}

bool LoadMissing(StoreState& out, std::string& error) {
  VantuUpdaterMissingCompsManager store;
  std::list<VantuUpdaterMissingCompsApp> apps;
  if (!store.GetMissingCompsApps(apps)) {
    error = "the missing-components store did not load";
    return false;
  }
  for (VantuUpdaterMissingCompsApp& app : apps) {
    std::string appID;
    MissingApp entry;
    std::list<VantuUpdaterAMissingComponent> components;
    if (!app.GetAppID(appID) || !app.GetDisplayName(entry.displayName) ||
        !app.GetInstallPath(entry.installPath) || !app.GetOperationType(entry.operationType) ||
        !app.GetMissingComponents(components)) {
      error = "a missing-components entry lacks a field";
      return false;
    }
    for (const VantuUpdaterAMissingComponent& component : components) {
      MissingComponent c;
      FileSystemVersion version("0");
      if (!component.Getcategory(c.category) || !component.Getname(c.name) ||
          !component.Getversion(version)) {
        error = "a missing component of " + appID + " lacks a field";
        return false;
      }
      c.version = version.ToString();
      entry.components.push_back(c);
    }
    if (!out.missing.emplace(appID, entry).second) {
      error = "two missing-components entries for " + appID;
      return false;
    }
  }
  return true;
}

bool LoadPrefs(const std::string& path, const std::set<std::string>& keys, StoreState& out,
               std::string& error) {
  try {
    // No lock installed: the file is read once, which is all a reader at rest needs.
    esd::PrefsWriter reader(path, kPrefsRootName);
    for (const std::string& key : keys) {
      std::string value;
      if (!reader.GetPref<std::string>(key, value, std::string())) {
        error = "preference " + key + " did not read";
        return false;
      }
      if (!value.empty()) out.prefs[key] = value;
    }
    esd::MapPref<std::string, std::string> messages(kMessagesKey);
    messages.SetPrefsFile(&reader);
    if (!messages.Get(out.messages)) {
      error = "the map preference did not read";
      return false;
    }
  } catch (const std::exception& e) {
    error = std::string("the preferences did not load: ") + e.what();
    return false;
  }
  return true;
}

}  // namespace

bool RegisteredApp::operator==(const RegisteredApp& o) const {
  return std::tie(appID, displayName, installPath) ==
         std::tie(o.appID, o.displayName, o.installPath);
}

bool MissingComponent::operator==(const MissingComponent& o) const {
  return std::tie(category, name, version) == std::tie(o.category, o.name, o.version);
}

bool MissingApp::operator==(const MissingApp& o) const {
  return std::tie(displayName, installPath, operationType, components) ==
         std::tie(o.displayName, o.installPath, o.operationType, o.components);
}

bool StoreState::operator==(const StoreState& o) const {
  return std::tie(registered, missing, prefs, messages) ==
         std::tie(o.registered, o.missing, o.prefs, o.messages);
}

void StoreState::Register(const std::string& appID, const std::string& name,
                          const std::string& path) {
  Unregister(appID);
  registered.push_back(RegisteredApp{appID, name, path});
}

bool StoreState::Unregister(const std::string& appID) {
  const RegisteredApp* found = FindRegistered(appID);
  if (!found) return false;
  registered.erase(registered.begin() + (found - registered.data()));
  return true;
}

const RegisteredApp* StoreState::FindRegistered(const std::string& appID) const {
  auto found = std::find_if(registered.begin(), registered.end(),
                            [&](const RegisteredApp& app) { return app.appID == appID; });
  return found == registered.end() ? nullptr : &*found;
}

int StoreState::RequestMissing(const std::string& appID, const std::string& name,
                               const std::string& path, int operationType,
                               const std::vector<MissingComponent>& components) {
  bool anyNew = false;
  for (const MissingComponent& component : components) {
    auto found = missing.find(appID);
    if (found == missing.end()) {
      MissingApp entry;
      entry.components.push_back(component);
      found = missing.emplace(appID, entry).first;
      anyNew = true;
    } else {
      std::vector<MissingComponent>& known = found->second.components;
      if (std::find(known.begin(), known.end(), component) == known.end()) {
        known.push_back(component);
        anyNew = true;
      }
    }
    found->second.displayName = name;
    found->second.installPath = path;
    found->second.operationType = operationType;
  }
  return !anyNew && !components.empty() ? 9 : 0;
}

bool StoreState::Load(const StoreFiles& files, const std::set<std::string>& prefKeys,
                      StoreState& out, std::string& error) {
  out = StoreState();
  try {
    return LoadRegistered(out, error) && LoadMissing(out, error) &&
           LoadPrefs(files.prefs, prefKeys, out, error);
  } catch (const std::exception& e) {
    error = std::string("loading threw: ") + e.what();
    return false;
  }
}

std::string StoreState::CheckAtRest(const StoreFiles& files, Leftovers& leftovers) {
  namespace fs = std::filesystem;
  const auto parses = [](const std::string& path) {
    const std::string bytes = testing_support::ReadFile(path);
    return esd::ExpatDOMBuilder<esd::XMLDocumentNode>::IsWellFormed(bytes.data(), bytes.size());
  };
  std::ostringstream problems;
  leftovers = Leftovers();
  for (const std::string& path : {files.registry, files.missingComps, files.prefs}) {
    if (FileSystemUtils::DoesPathExist(path) && !parses(path))
      problems << path << " does not parse\n";
  }
  for (const std::string& store : {files.registry, files.missingComps}) {
    const std::string journal = store + "_";
    if (!FileSystemUtils::DoesPathExist(journal)) continue;
    if (parses(journal))
      problems << "a complete journal is left beside " << store << "\n";
    else
      ++leftovers.partialJournals;
  }
  const std::string prefsName = fs::path(files.prefs).filename().string() + ".new";
  std::set<std::string> folders = {FileSystemUtils::GetParentPath(files.registry),
                                   FileSystemUtils::GetParentPath(files.missingComps),
                                   FileSystemUtils::GetParentPath(files.prefs)};
  for (const std::string& folder : folders) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(folder, ignored)) {
      const std::string name = entry.path().filename().string();
      if (StartsWith(name, "TempSwap.")) problems << "left over: " << entry.path() << "\n";
      if (StartsWith(name, prefsName)) ++leftovers.prefsTemporaries;
    }
  }
  return problems.str();
}

StoreState StoreState::Owned(const std::string& prefix) const {
  StoreState owned;
  for (const RegisteredApp& app : registered) {
    if (StartsWith(app.appID, prefix)) owned.registered.push_back(app);
  }
  for (const auto& item : missing) {
    if (StartsWith(item.first, prefix)) owned.missing.insert(item);
  }
  for (const auto& item : prefs) {
    if (StartsWith(item.first, prefix)) owned.prefs.insert(item);
  }
  for (const auto& item : messages) {
    if (StartsWith(item.first, prefix)) owned.messages.insert(item);
  }
  return owned;
}

std::string StoreState::Diff(const StoreState& actual) const {
  std::ostringstream text;
  if (registered != actual.registered) {
    text << "registered applications differ\n  expected:";
    for (const RegisteredApp& app : registered) text << "\n    " << Describe(app);
    text << "\n  actual:";
    for (const RegisteredApp& app : actual.registered) text << "\n    " << Describe(app);
    text << "\n";
  }
  std::set<std::string> ids;
  for (const auto& item : missing) ids.insert(item.first);
  for (const auto& item : actual.missing) ids.insert(item.first);
  for (const std::string& id : ids) {
    auto want = missing.find(id);
    auto got = actual.missing.find(id);
    if (want != missing.end() && got != actual.missing.end() && want->second == got->second)
      continue;
    text << "missing components of " << id
         << " differ\n  expected: " << (want == missing.end() ? "<none>" : Describe(want->second))
         << "\n  actual:   " << (got == actual.missing.end() ? "<none>" : Describe(got->second))
         << "\n";
  }
  const auto diffMap = [&text](const char* what, const std::map<std::string, std::string>& want,
                               const std::map<std::string, std::string>& got) {
    std::set<std::string> keys;
    for (const auto& item : want) keys.insert(item.first);
    for (const auto& item : got) keys.insert(item.first);
    for (const std::string& key : keys) {
      auto w = want.find(key);
      auto g = got.find(key);
      const std::string wv = w == want.end() ? "<unset>" : "\"" + w->second + "\"";
      const std::string gv = g == got.end() ? "<unset>" : "\"" + g->second + "\"";
      if (wv != gv) text << what << " " << key << ": expected " << wv << ", actual " << gv << "\n";
    }
  };
  diffMap("preference", prefs, actual.prefs);
  diffMap("message", messages, actual.messages);
  return text.str();
}

void StoreState::Write(std::ostream& out) const {
  for (const RegisteredApp& app : registered)
    out << "reg\t" << app.appID << "\t" << app.displayName << "\t" << app.installPath << "\n";
  for (const auto& item : missing) {
    const MissingApp& app = item.second;
    out << "mc\t" << item.first << "\t" << app.displayName << "\t" << app.installPath << "\t"
        << app.operationType << "\n";
    for (const MissingComponent& c : app.components)
      out << "comp\t" << item.first << "\t" << c.category << "\t" << c.name << "\t" << c.version
          << "\n";
  }
  for (const auto& item : prefs) out << "pref\t" << item.first << "\t" << item.second << "\n";
  for (const auto& item : messages) out << "msg\t" << item.first << "\t" << item.second << "\n";
}

bool StoreState::ReadLine(const std::string& line) {
  const std::vector<std::string> f = SplitTabs(line);
  if (f[0] == "reg" && f.size() == 4) {
    registered.push_back(RegisteredApp{f[1], f[2], f[3]});
  } else if (f[0] == "mc" && f.size() == 5) {
    MissingApp& app = missing[f[1]];
    app.displayName = f[2];
    app.installPath = f[3];
    try {
      app.operationType = std::stoi(f[4]);
    } catch (const std::exception&) {
      return false;
    }
  } else if (f[0] == "comp" && f.size() == 5) {
    auto found = missing.find(f[1]);
    if (found == missing.end()) return false;
    found->second.components.push_back(MissingComponent{f[2], f[3], f[4]});
  } else if (f[0] == "pref" && f.size() == 3) {
    prefs[f[1]] = f[2];
  } else if (f[0] == "msg" && f.size() == 3) {
    messages[f[1]] = f[2];
  } else if (f[0] == "reg" || f[0] == "mc" || f[0] == "comp" || f[0] == "pref" || f[0] == "msg") {
    return false;
  }
  return true;
}

}  // namespace reliability
