// One command per exported function: each passes its arguments through unchanged (the library
// does the checking) and prints the function's result code with its name.
#include <cinttypes>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "VantuUpdater/VantuUpdater.h"

namespace rozctl {

namespace {

const char* ResultName(int32_t code) {
  switch (code) {
    case kROZResultOK:
      return "kROZResultOK";
    case kROZResultMissingCompsStoreFailed:
      return "kROZResultMissingCompsStoreFailed";
    case kROZResultUpdaterUnavailable:
      return "kROZResultUpdaterUnavailable";
    case kROZResultInvalidArgument:
      return "kROZResultInvalidArgument";
    case kROZResultRegistryUnusable:
      return "kROZResultRegistryUnusable";
    case kROZResultRegistryNotUpdated:
      return "kROZResultRegistryNotUpdated";
    case kROZResultNotRegistered:
      return "kROZResultNotRegistered";
    case kROZResultUpdateCheckDisabled:
      return "kROZResultUpdateCheckDisabled";
    case kROZResultAnswerPending:
      return "kROZResultAnswerPending";
    case kROZResultAlreadyRequested:
      return "kROZResultAlreadyRequested";
    case kROZResultUpdaterRunning:
      return "kROZResultUpdaterRunning";
  }
  return "unknown result";
}

int Report(const char* function, int32_t code) {
  std::cout << function << ": " << code << " " << ResultName(code) << "\n";
  return code == kROZResultOK ? kExitOK : kExitFailed;
}

const unsigned char* Text(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.c_str());
}

int RunVersion(const std::vector<std::string>& args) {
  CommandLine(args, {}, {}).ExpectPositional(0, 0);
  const uint32_t packed = static_cast<uint32_t>(ROZGetVersion());
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08" PRIx32, packed);
  std::cout << "ROZGetVersion: " << static_cast<int32_t>(packed) << " (" << hex << ", version "
            << (packed >> 28) << "." << ((packed >> 24) & 0xF) << "." << ((packed >> 20) & 0xF)
            << "." << (packed & 0xFFFFF) << ")\n";
  return kExitOK;
}

int RunEnabled(const std::vector<std::string>& args) {
  CommandLine(args, {}, {}).ExpectPositional(0, 0);
  const int32_t enabled = ROZIsUpdateCheckEnabled();
  std::cout << "ROZIsUpdateCheckEnabled: " << enabled
            << (enabled ? " (update checks are enabled)\n" : " (update checks are disabled)\n");
  return enabled ? kExitOK : kExitFailed;
}

int RunRegister(const std::vector<std::string>& args) {
  const CommandLine line(args, {}, {});
  line.ExpectPositional(3, 3);
  const auto& p = line.Positional();
  return Report("ROZRegisterApplication",
                ROZRegisterApplication(p[0].c_str(), Text(p[1]), Text(p[2])));
}

int RunUnregister(const std::vector<std::string>& args) {
  const CommandLine line(args, {}, {});
  line.ExpectPositional(1, 1);
  return Report("ROZUnRegisterApplication", ROZUnRegisterApplication(line.Positional()[0].c_str()));
}

int RunAvailable(const std::vector<std::string>& args) {
  const CommandLine line(args, {"--register"}, {});
  line.ExpectPositional(4, 4);
  const auto& p = line.Positional();
  const unsigned long request = ParseNumber(p[3], "REQUEST", static_cast<unsigned long>(-1));
  bool available = false;
  const int32_t code = ROZIsUpdateAvailable(p[0].c_str(), Text(p[1]), Text(p[2]), request,
                                            &available, line.Has("--register"));
  const int status = Report("ROZIsUpdateAvailable", code);
  if (code == kROZResultOK) std::cout << "update available: " << (available ? "yes" : "no") << "\n";
  if (code == kROZResultAnswerPending)
    std::cout << "ask again with request number " << request << " for the updater's answer\n";
  return status;
}

int RunTrigger(const std::vector<std::string>& args) {
  const CommandLine line(args, {"--scheduled", "--register"}, {"--app", "--lang"});
  line.ExpectPositional(2, 2);
  const auto& p = line.Positional();
  const std::string appID = line.Value("--app", "");
  const std::string language = line.Value("--lang", "");
  return Report(
      "ROZTriggerUpdateCheck",
      ROZTriggerUpdateCheck(line.Has("--app") ? appID.c_str() : nullptr, Text(p[0]), Text(p[1]),
                            line.Has("--lang") ? language.c_str() : nullptr,
                            line.Has("--scheduled") ? kROZTriggerScheduled : kROZTriggerManual,
                            line.Has("--register")));
}

int RunPluginAction(const std::vector<std::string>& args) {
  const CommandLine line(args, {}, {});
  line.ExpectPositional(1, 1);
  return Report("ROZDoPluginAction", ROZDoPluginAction(line.Positional()[0].c_str()));
}

// CATEGORY:NAME:VERSION; the name may hold ":" itself, the category and version may not.
struct ComponentText {
  std::string category;
  std::string name;
  std::string version;
};

ComponentText ParseComponent(const std::string& text) {
  const size_t first = text.find(':');
  const size_t last = text.rfind(':');
  if (first == std::string::npos || first == last)
    throw UsageError("component '" + text + "' is not CATEGORY:NAME:VERSION");
  return {text.substr(0, first), text.substr(first + 1, last - first - 1), text.substr(last + 1)};
}

int RunDownloadMissing(const std::vector<std::string>& args) {
  const CommandLine line(args, {"--register"}, {"--lang", "--type"});
  line.ExpectPositional(3, static_cast<size_t>(-1));
  const auto& p = line.Positional();
  const int type = static_cast<int>(ParseNumber(line.Value("--type", "0"), "--type", 0x7FFFFFFF));
  std::vector<ComponentText> texts;
  for (size_t i = 3; i < p.size(); ++i) texts.push_back(ParseComponent(p[i]));
  std::vector<ROZMissingComponent> components;
  for (ComponentText& text : texts)
    components.push_back({&text.category[0], &text.name[0], &text.version[0]});
  std::vector<ROZMissingComponent*> pointers;
  for (ROZMissingComponent& component : components) pointers.push_back(&component);
  const ROZMissingComptList list{static_cast<uint32_t>(pointers.size()), pointers.data()};
  const std::string language = line.Value("--lang", "");
  return Report("ROZDownloadMissingComponents",
                ROZDownloadMissingComponents(p[0].c_str(), Text(p[1]), Text(p[2]),
                                             line.Has("--lang") ? language.c_str() : nullptr, &list,
                                             static_cast<ROZDownloadMissingCompType>(type),
                                             line.Has("--register")));
}

const char kResultHelp[] =
    "\n"
    "Prints the function's result code and its name. Exit status: 0 for kROZResultOK, 1 for\n"
    "any other result.";

}  // namespace

const std::vector<Command>& ExportCommands() {
  static const std::string registerHelp =
      std::string(
          "Calls ROZRegisterApplication: records the application in the machine-wide\n"
          "register of host applications, or replaces its entry.\n") +
      kResultHelp;
  static const std::string unregisterHelp =
      std::string(
          "Calls ROZUnRegisterApplication: removes the application's entry and its\n"
          "cached update answer; when no application remains registered the updater is\n"
          "started to clean up.\n") +
      kResultHelp;
  static const std::string availableHelp =
      std::string(
          "Calls ROZIsUpdateAvailable. The first call for a REQUEST number starts the updater\n"
          "and answers kROZResultAnswerPending; once the updater has written its answer, the\n"
          "next call with the same number gives kROZResultOK and whether an update is\n"
          "available.\n"
          "\n"
          "  --register   register the application first (or refresh its entry)\n") +
      kResultHelp;
  static const std::string triggerHelp =
      std::string(
          "Calls ROZTriggerUpdateCheck: starts the updater to check for updates now.\n"
          "\n"
          "  --app APPID   the application asking; without it the check is for all of them\n"
          "                and nothing is registered\n"
          "  --scheduled   a scheduled check, which starts nothing when automatic checks are\n"
          "                off or the check period has not passed (default: a manual check)\n"
          "  --lang CODE   the language for the updater, such as en_US\n"
          "  --register    register the application first\n") +
      kResultHelp;
  static const std::string pluginHelp =
      std::string(
          "Calls ROZDoPluginAction: starts the updater to run the action it prepared\n"
          "for the registered application. Refused while the updater runs.\n") +
      kResultHelp;
  static const std::string downloadHelp =
      std::string(
          "Calls ROZDownloadMissingComponents: records each COMPONENT, written\n"
          "CATEGORY:NAME:VERSION (for example fonts:Serif:1.0), as missing for the\n"
          "application, then signals a running updater or starts one to fetch them.\n"
          "\n"
          "  --type N      the request's type, recorded with it (default 0)\n"
          "  --lang CODE   the language for the updater, such as en_US\n"
          "  --register    register the application first\n") +
      kResultHelp;
  static const std::vector<Command> commands = {
      {"version", "version", "print the library's packed version (ROZGetVersion)",
       "Calls ROZGetVersion and prints the packed number, in hexadecimal and unpacked.\n"
       "\n"
       "Exit status: 0.",
       RunVersion},
      {"enabled", "enabled", "whether update checks are enabled (ROZIsUpdateCheckEnabled)",
       "Calls ROZIsUpdateCheckEnabled: checks are enabled for an administrator (a member of\n"
       "admin, sudo, wheel or root) unless the administrator policy disables them.\n"
       "\n"
       "Exit status: 0 when enabled, 1 when not.",
       RunEnabled},
      {"register", "register APPID DISPLAY-NAME INSTALL-PATH",
       "register an application (ROZRegisterApplication)", registerHelp.c_str(), RunRegister},
      {"unregister", "unregister APPID", "unregister an application (ROZUnRegisterApplication)",
       unregisterHelp.c_str(), RunUnregister},
      {"available", "available [--register] APPID DISPLAY-NAME INSTALL-PATH REQUEST",
       "ask whether an update is available (ROZIsUpdateAvailable)", availableHelp.c_str(),
       RunAvailable},
      {"trigger",
       "trigger [--app APPID] [--scheduled] [--lang CODE] [--register] DISPLAY-NAME "
       "INSTALL-PATH",
       "start an update check (ROZTriggerUpdateCheck)", triggerHelp.c_str(), RunTrigger},
      {"plugin-action", "plugin-action APPID",
       "run the updater's prepared action (ROZDoPluginAction)", pluginHelp.c_str(),
       RunPluginAction},
      {"download-missing",
       "download-missing [--type N] [--lang CODE] [--register] APPID DISPLAY-NAME INSTALL-PATH "
       "[COMPONENT...]",
       "request missing components (ROZDownloadMissingComponents)", downloadHelp.c_str(),
       RunDownloadMissing},
  };
  return commands;
}

}  // namespace rozctl
