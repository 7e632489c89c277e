#ifndef ROZCTL_COMMANDLINE_H
#define ROZCTL_COMMANDLINE_H

#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace rozctl {

// A mistake in how rozctl was called: the caller prints the message and the command's usage
// and exits with 2.
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& message) : std::runtime_error(message) {}
};

// The arguments of one command split into options and positional arguments. Options may come
// anywhere; "--" ends them. `flags` take no value ("--register"), `valueOptions` take the next
// argument ("--lang en_US"). An unknown option, a missing value or a repeated option throws
// UsageError.
class CommandLine {
 public:
  CommandLine(const std::vector<std::string>& args, const std::set<std::string>& flags,
              const std::set<std::string>& valueOptions);

  bool Has(const std::string& option) const { return mOptions.count(option) > 0; }
  // The option's value, or `fallback` when it was not given.
  std::string Value(const std::string& option, const std::string& fallback) const;
  const std::vector<std::string>& Positional() const { return mPositional; }

  // Throws UsageError unless between `least` and `most` positional arguments were given.
  void ExpectPositional(size_t least, size_t most) const;

 private:
  std::map<std::string, std::string> mOptions;
  std::vector<std::string> mPositional;
};

// Whole-number argument in 0..max, for request numbers and types; throws UsageError naming
// `what` for anything else.
unsigned long ParseNumber(const std::string& text, const std::string& what, unsigned long max);

}  // namespace rozctl

#endif
