#include "args.h"

#include <cstring>

#include "util.h"

namespace publish {

Args::Args(int argc, char** argv, int first, const std::vector<OptionRule>& rules) {
  for (int i = first; i < argc; ++i) {
    std::string word = argv[i];
    if (word.size() < 3 || word.compare(0, 2, "--") != 0) {
      if (!word.empty() && word[0] == '-' && word != "-") throw UsageError("unknown option " + word);
      positional_.push_back(word);
      continue;
    }
    std::string name = word;
    std::optional<std::string> value;
    std::size_t eq = word.find('=');
    if (eq != std::string::npos) {
      name = word.substr(0, eq);
      value = word.substr(eq + 1);
    }
    const OptionRule* rule = nullptr;
    for (const OptionRule& s : rules) {
      if (name == s.name) rule = &s;
    }
    if (rule == nullptr) throw UsageError("unknown option " + name);
    if (rule->takes_value && !value) {
      if (i + 1 >= argc) throw UsageError("option " + name + " needs a value");
      value = argv[++i];
    }
    if (!rule->takes_value && value) throw UsageError("option " + name + " takes no value");
    if (!rule->repeatable && values_.count(name) != 0) throw UsageError("option " + name + " is given twice");
    values_[name].push_back(value.value_or(""));
  }
}

std::optional<std::string> Args::get(const std::string& name) const {
  auto it = values_.find(name);
  if (it == values_.end()) return std::nullopt;
  return it->second.front();
}

std::string Args::required(const std::string& name) const {
  auto value = get(name);
  if (!value) throw UsageError("option " + name + " is required");
  return *value;
}

std::vector<std::string> Args::all(const std::string& name) const {
  auto it = values_.find(name);
  return it == values_.end() ? std::vector<std::string>{} : it->second;
}

bool wants_help(int argc, char** argv, int first) {
  for (int i = first; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) return true;
  }
  return false;
}

}  // namespace publish
