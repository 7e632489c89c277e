// rozctl: calls the Vantu Updater library's exported functions from the command line and shows
// the files, settings and locks they work with. For integrators who want to see what their host
// application's calls do, and for administrators who need to look at (or repair) a machine.
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "SandboxEnv.h"
#include "xplat/ScopedEnv.h"

namespace rozctl {

namespace {

const char kUsage[] = "usage: rozctl [--root DIR] COMMAND [ARGS...]  (rozctl --help lists them)";

void PrintOverview() {
  std::cout << "usage: rozctl [--root DIR] COMMAND [ARGS...]\n"
               "       rozctl COMMAND --help\n"
               "\n"
               "Calls the Vantu Updater library and shows the files, settings and locks it uses.\n"
               "\n"
               "Commands:\n";
  for (const Command& command : AllCommands()) {
    std::string name = command.name;
    name.resize(18, ' ');
    std::cout << "  " << name << command.summary << "\n";
  }
  std::cout << "\n"
               "Options:\n"
               "  --root DIR   work on a sandboxed machine: DIR stands for /, DIR/home is the\n"
               "               user's home (XDG_* folder variables are ignored) and DIR/run the\n"
               "               user's runtime folder; nothing outside DIR is written. DIR is\n"
               "               created when missing.\n"
               "  --help       this overview; 'rozctl COMMAND --help' describes one command\n"
               "\n"
               "Exit status: 0 success, 1 the call failed or the answer was no, 2 bad usage.\n";
}

void PrintCommandHelp(const Command& command) {
  std::cout << "usage: rozctl [--root DIR] " << command.usage << "\n\n" << command.help << "\n";
}

const Command* FindCommand(const std::string& name) {
  for (const Command& command : AllCommands())
    if (name == command.name) return &command;
  return nullptr;
}

bool AsksForHelp(const std::vector<std::string>& args) {
  for (const std::string& arg : args) {
    if (arg == "--") return false;
    if (arg == "--help" || arg == "-h") return true;
  }
  return false;
}

int Main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::string root;
  size_t at = 0;
  while (at < args.size() && args[at].size() > 1 && args[at][0] == '-') {
    if (args[at] == "--help" || args[at] == "-h") {
      PrintOverview();
      return kExitOK;
    }
    std::string error = "unknown option " + args[at];
    if (args[at] == "--root") {
      error = "--root needs a folder other than /";
      // The real machine is what rozctl works on without --root; "/" would only move the home.
      if (at + 1 < args.size() && !args[at + 1].empty() && AbsolutePath(args[at + 1]) != "/") {
        root = AbsolutePath(args[at + 1]);
        at += 2;
        continue;
      }
    }
    std::cerr << "rozctl: " << error << "\n" << kUsage << "\n";
    return kExitUsage;
  }
  if (at == args.size()) {
    std::cerr << "rozctl: no command given\n" << kUsage << "\n";
    return kExitUsage;
  }
  const Command* command = FindCommand(args[at]);
  if (command == nullptr) {
    std::cerr << "rozctl: unknown command '" << args[at] << "'\n" << kUsage << "\n";
    return kExitUsage;
  }
  const std::vector<std::string> commandArgs(args.begin() + static_cast<long>(at) + 1, args.end());
  if (AsksForHelp(commandArgs)) {
    PrintCommandHelp(*command);
    return kExitOK;
  }

  std::unique_ptr<SandboxEnv> sandbox;
  std::unique_ptr<esd::ScopedEnv> scope;
  if (!root.empty()) {
    sandbox.reset(new SandboxEnv(root));
    std::string error;
    if (!sandbox->Activate(error)) {
      std::cerr << "rozctl: " << error << "\n";
      return kExitFailed;
    }
    scope.reset(new esd::ScopedEnv(sandbox.get()));
  }

  try {
    return command->run(commandArgs);
  } catch (const UsageError& error) {
    std::cerr << "rozctl " << command->name << ": " << error.what() << "\n"
              << "usage: rozctl [--root DIR] " << command->usage << "\n";
    return kExitUsage;
  } catch (const std::exception& error) {
    std::cerr << "rozctl " << command->name << ": " << error.what() << "\n";
    return kExitFailed;
  }
}

}  // namespace

const std::vector<Command>& AllCommands() {
  static const std::vector<Command> all = [] {
    std::vector<Command> commands;
    for (const auto* group : {&ExportCommands(), &InspectionCommands(), &LockCommands()})
      commands.insert(commands.end(), group->begin(), group->end());
    return commands;
  }();
  return all;
}

}  // namespace rozctl

int main(int argc, char** argv) { return rozctl::Main(argc, argv); }
