#ifndef TESTS_SUPPORT_RUNPROGRAM_H
#define TESTS_SUPPORT_RUNPROGRAM_H

#include <map>
#include <string>
#include <vector>

namespace testing_support {

struct ProgramResult {
  int exitStatus = -1;  // -1 when it did not exit normally or did not end in time
  std::string out;
  std::string err;
};

struct RunOptions {
  // Changes to this process's environment for the program.
  std::map<std::string, std::string> setVariables;
  std::vector<std::string> unsetVariables;
  // Supplementary groups: inherited, {0} (an administrator for the library) or none. Needs root.
  enum class Groups { kInherited, kAdministrator, kNone };
  Groups groups = Groups::kInherited;
  int timeoutMs = 60000;  // then it is killed
};

// Runs argv[0] (a path) with standard input from /dev/null and collects both output streams.
ProgramResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options = {});

// Whether RunOptions::groups can be chosen here (only root may).
bool CanChooseGroups();

}  // namespace testing_support

#endif
