#ifndef TESTS_SUPPORT_RUNPROGRAM_H
#define TESTS_SUPPORT_RUNPROGRAM_H

#include <map>
#include <string>
#include <vector>

namespace testing_support {

// What a finished program printed and how it ended.
struct ProgramResult {
  int exitStatus = -1;  // -1 when it did not exit normally or did not end in time
  std::string out;
  std::string err;
};

struct RunOptions {
  // Variables set in, and removed from, the program's environment, which is otherwise this
  // process's.
  std::map<std::string, std::string> setVariables;
  std::vector<std::string> unsetVariables;
  // The program's supplementary groups: inherited, {0} ("root", which makes it an administrator
  // for the library), or none (not an administrator). Choosing needs root; see CanChooseGroups.
  enum class Groups { kInherited, kAdministrator, kNone };
  Groups groups = Groups::kInherited;
  int timeoutMs = 60000;
};

// Runs argv[0] (a path, no PATH search) with the arguments, collects both output streams and
// waits for it. A program still running after the time-out is killed.
ProgramResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options = {});

// Whether RunOptions::groups can be chosen here: only root may set its groups.
bool CanChooseGroups();

}  // namespace testing_support

#endif
