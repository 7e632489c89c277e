#include "CommandLine.h"

#include <cerrno>
#include <cstdlib>

namespace rozctl {

CommandLine::CommandLine(const std::vector<std::string>& args, const std::set<std::string>& flags,
                         const std::set<std::string>& valueOptions) {
  bool optionsEnded = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
      mPositional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    if (mOptions.count(arg)) throw UsageError("option " + arg + " given twice");
    if (flags.count(arg)) {
      mOptions[arg] = "";
    } else if (valueOptions.count(arg)) {
      if (i + 1 == args.size()) throw UsageError("option " + arg + " needs a value");
      mOptions[arg] = args[++i];
    } else {
      throw UsageError("unknown option " + arg);
    }
  }
}

std::string CommandLine::Value(const std::string& option, const std::string& fallback) const {
  auto found = mOptions.find(option);
  return found == mOptions.end() ? fallback : found->second;
}

void CommandLine::ExpectPositional(size_t least, size_t most) const {
  const size_t given = mPositional.size();
  if (given >= least && given <= most) return;
  std::string expected = std::to_string(least);
  if (most != least)
    expected += most == static_cast<size_t>(-1) ? " or more" : " to " + std::to_string(most);
  throw UsageError("expected " + expected + " argument" + (most == 1 && least == 1 ? "" : "s") +
                   ", got " + std::to_string(given));
}

unsigned long ParseNumber(const std::string& text, const std::string& what, unsigned long max) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
    throw UsageError(what + " must be a whole number, not '" + text + "'");
  errno = 0;
  const unsigned long value = std::strtoul(text.c_str(), nullptr, 10);
  if (errno == ERANGE || value > max) throw UsageError(what + " is too large: " + text);
  return value;
}

}  // namespace rozctl
