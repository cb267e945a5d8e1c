#include "app/CommandTree.h"

#include <CLI/CLI.hpp>
#include <set>

namespace tarn {
namespace {

/// "TEXT:{a,b}" is a text that is one of the two.
std::vector<std::string> choicesIn(const std::string& type) {
  const size_t begin = type.find(":{");
  const size_t end = type.find('}');
  if (begin == std::string::npos || end == std::string::npos) return {};
  return CLI::detail::split(type.substr(begin + 2, end - begin - 2), ',');
}

/// In an order of their own: that of the set differs from run to run.
std::set<std::string> namesOf(const std::set<CLI::Option*>& options) {
  std::set<std::string> names;
  for (const CLI::Option* option : options) names.insert(option->get_name());
  return names;
}

CommandOption optionOf(const CLI::Option& option) {
  CommandOption facts;
  for (const std::string& name : option.get_snames()) facts.names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) facts.names.push_back("--" + name);
  facts.description = option.get_description();
  if (const std::string usual = option.get_default_str(); !usual.empty()) facts.description += " (else " + usual + ")";
  for (const std::string& name : namesOf(option.get_needs())) facts.description += "; needs " + name;
  for (const std::string& name : namesOf(option.get_excludes())) facts.description += "; excludes " + name;
  facts.isRequired = option.get_required();
  facts.isMany = option.get_items_expected_max() >= CLI::detail::expected_max_vector_size;
  if (option.get_items_expected_max() == 0) return facts;
  const std::string type = option.get_type_name();
  const std::string kind = type.substr(0, type.find(':'));
  const std::string& what = kind.empty() ? option.get_name(true) : kind;
  facts.choices = choicesIn(type);
  facts.placeholder = facts.names.empty() ? option.get_name(true) : kind;
  facts.value = what == "FILE"  ? CommandOption::Value::file
                : what == "DIR" ? CommandOption::Value::directory
                                : CommandOption::Value::text;
  return facts;
}

void add(CommandFacts& facts, const CLI::App& app, const std::string& group) {
  facts.groups.push_back({.description = group, .needsOne = !group.empty() && app.get_require_option_min() > 0});
  for (const CLI::Option* option : app.get_options()) {
    if (!group.empty() && option == app.get_help_ptr()) continue;  // the command has it already
    (option->nonpositional() ? facts.groups.back().options : facts.arguments).push_back(optionOf(*option));
  }
}

CommandFacts factsBelow(const CLI::App& app, const std::string& name) {
  CommandFacts facts{.name = name, .description = app.get_description(), .footer = app.get_footer()};
  add(facts, app, "");
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (command->get_name().empty()) {
      add(facts, *command, command->get_description());
    } else {
      facts.commands.push_back(factsBelow(*command, name + (name.empty() ? "" : " ") + command->get_name()));
    }
  }
  return facts;
}

}  // namespace

std::vector<CommandOption> CommandFacts::options() const {
  std::vector<CommandOption> all;
  for (const OptionGroup& group : groups) all.insert(all.end(), group.options.begin(), group.options.end());
  return all;
}

CommandFacts factsOf(const CLI::App& root) {
  return factsBelow(root, "");
}

}  // namespace tarn
