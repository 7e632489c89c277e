// The reference Vantu Updater: the other side of every exchange the client library starts. It
// downloads and installs nothing; it shows, in its log, what a real updater would do, and keeps
// the shared files exactly as the library expects them to be kept.
//
// The library passes its instructions in the environment. In order of precedence:
//   notifyAppID + notifyFile   availability: answer from the update catalogue into notifyFile
//   doActionAppID              run the action prepared for a registered application
//   RZ_LAUNCH_MODE "0" / "1"   a manual / scheduled update check
//   RZ_LAUNCH_MODE "3"         fetch the missing components, then listen for more for a while
//   RZ_LAUNCH_MODE "5"         clean up after the last application was unregistered
// The order matters because the library leaves RZ_LAUNCH_MODE set in the host after a launch,
// so a later availability request may arrive with an old mode beside it.
//
// The update catalogue stands in for an update server: VantuUpdateCatalog.xml in the all-users
// data folder,
//   <UpdateCatalog><Update appID="com.example.Host" version="2.0"/></UpdateCatalog>
// one Update element per application with an update. The log is the file named by logFile in
// the environment, else the "logFile" preference (roz.log in the per-user data folder).
#include <fcntl.h>
#include <unistd.h>

#include <boost/date_time/gregorian/gregorian.hpp>
#include <exception>
#include <filesystem>
#include <fstream>
#include <list>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "ExpressDownloadListener.h"
#include "UpdaterLog.h"
#include "xplat/EnvWrapper.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/NodeAttr.h"
#include "xplat/NodeName.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ScopedEnv.h"
#include "xplat/SearchResult.h"
#include "xplat/StoreLockScope.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"
#include "xplat/VantuUpdaterPrefs.h"
#include "xplat/VantuUpdaterRegistrationManager.h"
#include "xplat/VantuUpdaterUtils.h"
#include "xplat/XMLDocumentNode.h"

namespace {

using Node = esd::XMLDocumentNode;
using Search = esd::SearchResult<Node>;
namespace Utils = VantuUpdaterUtils;
using Utils::VantuUpdaterNotifyWorkflowLocker;

const char kCatalogFileName[] = "VantuUpdateCatalog.xml";
const char kInstalledProgram[] =
    "/opt/Vantu Utilities.localized/Vantu Updater5/Vantu Updater.app/Contents/MacOS/"
    "Vantu Updater";
// How long the updater stays after fetching missing components, for hosts that ask for more.
const int kExpressListenMs = 5000;
// How long an availability answer waits for the application's workflow lock.
const unsigned long kWorkflowLockMs = 2000;

// The machine the updater serves is the one it is installed in: a copy installed at
// ROOT/opt/Vantu Utilities.localized/... works on ROOT's files, so copies installed in a sandbox
// (tests, 'rozctl --root') never reach the real machine. Anywhere else it serves "/".
class InstalledRootEnv : public esd::EnvWrapper {
 public:
  explicit InstalledRootEnv(const std::string& root)
      : esd::EnvWrapper(esd::Env::Platform()), mRoot(root) {}
  std::string GetRootDirectory() override { return mRoot; }

 private:
  std::string mRoot;
};

std::string InstalledRoot() {
  std::string program;
  if (!esd::Env::Platform()->GetCurrentExecutablePath(program)) return "/";
  const std::string suffix = kInstalledProgram;
  if (program.size() <= suffix.size() ||
      program.compare(program.size() - suffix.size(), suffix.size(), suffix) != 0)
    return "/";
  return program.substr(0, program.size() - suffix.size());
}

std::string Variable(const char* name) {
  const char* value = getenv(name);
  return value ? value : "";
}

// The host started us through the shell with its own terminal; our output belongs in the log.
void DetachStandardStreams() {
  const int devNull = open("/dev/null", O_RDWR);
  if (devNull < 0) return;
  for (int fd = 0; fd <= 2; ++fd) dup2(devNull, fd);
  if (devNull > 2) close(devNull);
}

// The catalogue's version for appID; false when it lists no update for it (or there is none).
bool FindCatalogUpdate(const std::string& appID, std::string& version) {
  std::string folder;
  if (!Utils::GetVantuUpdaterAllUserDataDir(folder)) return false;
  esd::ExpatDOMBuilder<Node> catalog;
  if (!catalog.Create(nullptr, nullptr) ||
      !catalog.ParseFile(FileSystemUtils::AppendPathElement(folder, kCatalogFileName), false))
    return false;
  const Search updates = Search(catalog.GetDocumentNode())
                             .Children(esd::NodeName("UpdateCatalog"))
                             .Children(esd::NodeAttr("appID", appID));
  if (updates.empty()) return false;
  if (!updates.GetFirst()->GetAttrValue("version", version)) version = "(unknown version)";
  return true;
}

// Writes <UpdateInfo><Result>1|0</Result></UpdateInfo> (plus the version when there is one)
// under a temporary name and renames it into place, so the library never reads half a file.
bool WriteAvailabilityResult(const std::string& path, bool available, const std::string& version) {
  esd::ExpatDOMBuilder<Node> document;
  if (!document.Create(nullptr, nullptr)) return false;
  Node* info = new Node("UpdateInfo");
  document.GetDocumentNode()->AddChildNode(info);
  Node* result = new Node("Result");
  result->SetElementData(available ? "1" : "0");
  info->AddChildNode(result);
  if (available) {
    Node* versionNode = new Node("Version");
    versionNode->SetElementData(version);
    info->AddChildNode(versionNode);
  }
  std::ostringstream text;
  text << *document.GetDocumentNode();
  const std::string temporary = path + ".partial";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << text.str();
    if (!out.flush()) return false;
  }
  return rename(temporary.c_str(), path.c_str()) == 0;
}

// Availability: holds the application's workflow lock while it works, writes the answer, then
// removes the marker; a host that asks in between is told to wait (kROZResultAnswerPending).
void AnswerAvailability(UpdaterLog& log, const std::string& appID, const std::string& file) {
  esd::ResourceLocker workflow(appID, kWorkflowLockMs);
  if (!workflow.Lock()) log.Write("availability for " + appID + ": workflow lock busy, going on");
  std::string version;
  const bool available = FindCatalogUpdate(appID, version);
  if (WriteAvailabilityResult(file, available, version))
    log.Write("availability for " + appID + ": " +
              (available ? "update " + version + " available" : "no update") + ", answered in " +
              file);
  else
    log.Write("availability for " + appID + ": cannot write " + file);
  if (!VantuUpdaterNotifyWorkflowLocker::DeleteIPCLockFile(appID))
    log.Write("availability for " + appID + ": cannot remove the workflow marker");
}

// Takes every pending request from the store under its lock, reports what a real updater would
// download, and removes the requests it handled.
void FetchMissingComponents(UpdaterLog& log, const std::string& why) {
  VantuUpdaterMissingCompsManager store;
  StoreLockScope lock(store);
  std::list<VantuUpdaterMissingCompsApp> apps;
  if (!lock.Held() || !store.GetMissingCompsApps(apps)) {
    log.Write(why + ": cannot read the missing-components store");
    return;
  }
  if (apps.empty()) log.Write(why + ": no missing components requested");
  std::set<std::string> handled;
  for (VantuUpdaterMissingCompsApp& app : apps) {
    std::string appID, name;
    app.GetAppID(appID);
    app.GetDisplayName(name);
    std::list<VantuUpdaterAMissingComponent> components;
    app.GetMissingComponents(components);
    std::string list;
    for (const VantuUpdaterAMissingComponent& component : components) {
      std::string category, componentName;
      FileSystemVersion version(FileSystemVersion::kInvalidVersion);
      component.Getcategory(category);
      component.Getname(componentName);
      component.Getversion(version);
      list +=
          (list.empty() ? "" : ", ") + category + ":" + componentName + ":" + version.ToString();
    }
    log.Write(why + ": would fetch for " + appID + " (" + name + "): " + list);
    handled.insert(appID);
  }
  store.DeleteVantuUpdaterMissingCompsAppIf([&handled](const VantuUpdaterMissingCompsApp& app) {
    std::string appID;
    return app.GetAppID(appID) && handled.count(appID) > 0;
  });
  if (!handled.empty() && !store.SaveMissingCompsApps())
    log.Write(why + ": cannot remove the handled requests");
}

std::list<VantuUpdaterRegisteredApp> RegisteredApps() {
  std::list<VantuUpdaterRegisteredApp> apps;
  VantuUpdaterRegistrationManager store;
  store.GetRegisteredApps(apps);
  return apps;
}

// A check looks each registered application up in the catalogue, records the date (which the
// library's scheduled checks count from) and consumes the launch request.
void CheckForUpdates(UpdaterLog& log, bool scheduled) {
  const std::string kind = scheduled ? "scheduled check" : "manual check";
  VantuUpdaterPrefs* prefs = VantuUpdaterPrefs::GetVantuUpdaterPrefs();
  std::string launch;
  prefs->Launch.Get(launch);
  const std::string launchApp = Variable(Utils::kEnvStartAppID);
  log.Write(kind + " started" + (launchApp.empty() ? "" : " by " + launchApp) +
            (launch.empty() ? "" : ", Launch preference \"" + launch + "\""));
  for (const VantuUpdaterRegisteredApp& app : RegisteredApps()) {
    std::string appID, version;
    app.GetappID(appID);
    log.Write(
        kind + ": " + appID + ": " +
        (FindCatalogUpdate(appID, version) ? "update " + version + " available" : "up to date"));
  }
  const std::string today =
      boost::gregorian::to_iso_extended_string(esd::Env::Default()->GetLocalDay());
  if (prefs->LockPrefs()) {
    prefs->LastDateCheck.Set(today);
    prefs->IsFirstRun.Set(false);
    prefs->Launch.Set("");
    prefs->UnlockPrefs();
    log.Write(kind + ": recorded LastDateCheck " + today);
  } else {
    log.Write(kind + ": preferences locked, LastDateCheck not recorded");
  }
}

// After the last unregistration: the availability answers of applications that are no longer
// registered have nobody to read them.
void CleanUp(UpdaterLog& log) {
  std::set<std::string> registered;
  for (const VantuUpdaterRegisteredApp& app : RegisteredApps()) {
    std::string appID;
    if (app.GetappID(appID)) registered.insert(appID);
  }
  log.Write("clean-up: " + std::to_string(registered.size()) + " application(s) registered");
  std::string cache;
  if (!Utils::GetVantuUpdaterCacheDataDir(cache)) return;
  const std::string requests = FileSystemUtils::AppendPathElement(cache, "UpdateAvailable");
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(requests, error)) {
    const std::string appID = entry.path().filename().string();
    if (registered.count(appID)) continue;
    FileSystemUtils::DeleteDirectory(entry.path().string(), true);
    log.Write("clean-up: removed the availability requests of " + appID);
  }
}

void RunPluginAction(UpdaterLog& log, const std::string& appID) {
  VantuUpdaterRegistrationManager store;
  std::unique_ptr<VantuUpdaterRegisteredApp> app;
  if (!store.GetRegisteredApplicationByAppID(appID, app)) {
    log.Write("plug-in action for " + appID + ": not registered, nothing to do");
    return;
  }
  std::string name, path;
  app->GetDisplayName(name);
  app->GetInstallPath(path);
  log.Write("plug-in action for " + appID + ": would run the action prepared for " + name + " in " +
            path);
}

int Run(UpdaterLog& log) {
  ExpressDownloadListener listener;
  const std::string notifyApp = Variable(Utils::kKeyUpdatesNotifyAppID);
  const std::string notifyFile = Variable(Utils::kKeyUpdatesNotifyOutfile);
  const std::string actionApp = Variable(Utils::kKeyUpdatesDoActionAppID);
  const std::string mode = Variable(Utils::kEnvStartMode);
  int listenMs = 0;
  if (!notifyApp.empty() && !notifyFile.empty()) {
    AnswerAvailability(log, notifyApp, notifyFile);
  } else if (!actionApp.empty()) {
    RunPluginAction(log, actionApp);
  } else if (mode == "3") {
    FetchMissingComponents(log, "download");
    if (listener.IsListening()) {
      log.Write("listening for express downloads");
      listenMs = kExpressListenMs;
    }
  } else if (mode == "5") {
    CleanUp(log);
  } else {
    CheckForUpdates(log, mode == "1");
  }
  // Requests that arrived while we worked were meant for us: the host saw us running.
  while (listener.Wait(listenMs)) FetchMissingComponents(log, "express download");
  return 0;
}

}  // namespace

int main() {
  DetachStandardStreams();
  const std::string root = InstalledRoot();
  InstalledRootEnv env(root);
  std::unique_ptr<esd::ScopedEnv> scope;
  if (root != "/") scope.reset(new esd::ScopedEnv(&env));

  std::string logPath = Variable(Utils::kKeyLogFile);
  try {
    if (logPath.empty()) VantuUpdaterPrefs::GetVantuUpdaterPrefs()->logFile.Get(logPath);
  } catch (const std::exception&) {
    logPath = VantuUpdaterPrefs::GetDefaultLogFileLocation();
  }
  UpdaterLog log(logPath);
  log.Write("started" + (root == "/" ? std::string() : " for the machine at " + root));
  int status = 1;
  try {
    status = Run(log);
  } catch (const std::exception& error) {
    log.Write(std::string("stopped by an error: ") + error.what());
  }
  log.Write("done");
  return status;
}
