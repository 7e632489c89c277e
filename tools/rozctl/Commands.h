#ifndef ROZCTL_COMMANDS_H
#define ROZCTL_COMMANDS_H

#include <string>
#include <vector>

namespace rozctl {

// Exit statuses: the command did what was asked (a library call returned kROZResultOK), it
// could not or the answer was negative, or rozctl was called wrongly.
constexpr int kExitOK = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// One rozctl command. `run` gets the arguments after the command's name and returns the exit
// status; it throws UsageError for bad arguments.
struct Command {
  const char* name;
  const char* usage;  // the synopsis after "rozctl ", for example "unregister APPID"
  const char* summary;
  const char* help;  // what it does, its arguments and options, what its exit status means
  int (*run)(const std::vector<std::string>& args);
};

// Every command, in the order the overview lists them.
const std::vector<Command>& AllCommands();

// The commands of each group, defined beside their code.
const std::vector<Command>& ExportCommands();
const std::vector<Command>& InspectionCommands();
const std::vector<Command>& LockCommands();
const std::vector<Command>& DoctorCommands();

}  // namespace rozctl

#endif
