#pragma once
// The option reader shared by the commands: "--name value" or "--name=value", flags
// without a value, options that may be repeated, and positional words.
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace publish {

struct OptionRule {
  const char* name;  // with its leading "--"
  bool takes_value;
  bool repeatable;
};

class Args {
 public:
  // Reads argv[first..argc); throws UsageError for an unknown option, a missing value or a
  // repeated single option.
  Args(int argc, char** argv, int first, const std::vector<OptionRule>& rules);

  bool has(const std::string& name) const { return values_.count(name) != 0; }
  std::optional<std::string> get(const std::string& name) const;
  std::string required(const std::string& name) const;
  std::vector<std::string> all(const std::string& name) const;
  const std::vector<std::string>& positional() const { return positional_; }

 private:
  std::map<std::string, std::vector<std::string>> values_;
  std::vector<std::string> positional_;
};

// True when any word after the command asks for help.
bool wants_help(int argc, char** argv, int first);

}  // namespace publish
