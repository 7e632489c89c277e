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
  // Variables set (or, with an empty value and unset listed, removed) in the program's
  // environment on top of this process's.
  std::map<std::string, std::string> setVariables;
  std::vector<std::string> unsetVariables;
  // Runs the program with the supplementary group list {0} ("root"), which makes it an
  // administrator for the library. Needs root; see CanRunAsAdministrator.
  bool asAdministrator = false;
  int timeoutMs = 60000;
};

// Runs argv[0] (a path, no PATH search) with the arguments, collects both output streams and
// waits for it. A program still running after the time-out is killed.
ProgramResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options = {});

// Whether RunOptions::asAdministrator can work here: only root may set its groups.
bool CanRunAsAdministrator();

}  // namespace testing_support

#endif
