#include "app/Completion.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <vector>

#include "app/Output.h"

namespace tarn {
namespace {

using Value = CommandOption::Value;

std::string replaced(std::string text, std::string_view from, std::string_view to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

/// What may stand after a command: its own options, and those of `tarn` itself.
std::vector<CommandOption> optionsBehind(const CommandFacts& command, const CommandFacts& root) {
  std::vector<CommandOption> options = command.options();
  for (const CommandOption& option : root.options()) {
    const bool isThere = std::any_of(options.begin(), options.end(),
                                     [&](const CommandOption& own) { return own.names == option.names; });
    if (!isThere) options.push_back(option);
  }
  return options;
}

/// The last word of a name: "remove" of "library remove".
std::string ownName(const CommandFacts& command) {
  return command.name.substr(command.name.rfind(' ') + 1);
}

std::vector<std::string> commandNames(const CommandFacts& command) {
  std::vector<std::string> names;
  for (const CommandFacts& below : command.commands) names.push_back(ownName(below));
  return names;
}

std::string bashValue(const CommandOption& option) {
  if (!option.choices.empty()) return fmt::format("{}", fmt::join(option.choices, " "));
  return option.value == Value::file ? "<file>" : option.value == Value::directory ? "<directory>" : "<text>";
}

/// One branch for each command: what may stand after it, and what its options take.
void addBash(const CommandFacts& command, const CommandFacts& root, std::string& places, std::string& values) {
  std::vector<std::string> options;
  for (const CommandOption& option : optionsBehind(command, root)) {
    options.insert(options.end(), option.names.begin(), option.names.end());
  }
  std::vector<std::string> arguments;
  for (const CommandOption& argument : command.arguments) arguments.push_back(shellQuoted(bashValue(argument)));
  places += fmt::format("    {}) commands='{}' options='{}' arguments=({}) ;;\n", shellQuoted(command.name),
                        fmt::join(commandNames(command), " "), fmt::join(options, " "), fmt::join(arguments, " "));
  for (const CommandOption& option : command.options()) {
    if (option.value == Value::none) continue;
    const std::string place = command.name.empty() ? "*" : shellQuoted(command.name);
    std::vector<std::string> patterns;
    for (const std::string& name : option.names) patterns.push_back(fmt::format("{}' {}'", place, name));
    values += fmt::format("    {}) value={} ;;\n", fmt::join(patterns, "|"), shellQuoted(bashValue(option)));
  }
  for (const CommandFacts& below : command.commands) addBash(below, root, places, values);
}

constexpr const char* bashBody = R"(
_tarn() {
  local place= value= commands options word i
  local -a arguments
  local -i given=0
  COMPREPLY=()
  _tarn_place
  for ((i = 1; i < COMP_CWORD; ++i)); do
    word=${COMP_WORDS[i]}
    if [[ $word == '=' ]]; then
      continue
    elif [[ $value ]]; then
      value=
    elif [[ $word == -- ]]; then
      commands= options=
    elif [[ $options && $word == -?* ]]; then
      _tarn_value "$word"
    elif [[ " $commands " == *" $word "* ]]; then
      place=${place:+$place }$word given=0
      _tarn_place
    else
      given+=1
    fi
  done
  word=${COMP_WORDS[COMP_CWORD]}
  [[ $word == '=' ]] && word=
  if [[ ! $value && $word == -* && $options ]]; then
    COMPREPLY=($(compgen -W "$options" -- "$word"))
    return
  fi
  if [[ ! $value && $commands ]]; then
    COMPREPLY=($(compgen -W "$commands" -- "$word"))
    return
  fi
  if [[ ! $value && ${#arguments[@]} -gt 0 ]]; then
    ((given < ${#arguments[@]})) || given=${#arguments[@]}-1
    value=${arguments[given]}
  fi
  case $value in
    '<file>') compopt -o bashdefault -o default ;;
    '<directory>') compopt -o dirnames ;;
    '<text>' | '') ;;
    *) COMPREPLY=($(compgen -W "$value" -- "$word")) ;;
  esac
}
complete -F _tarn tarn
)";

std::string zshAction(const CommandOption& option) {
  if (!option.choices.empty()) return fmt::format("({})", fmt::join(option.choices, " "));
  return option.value == Value::file ? "_files" : option.value == Value::directory ? "_files -/" : " ";
}

/// The arguments of `_arguments` for an option: its names exclude each other unless it may be there many times.
std::string zshOption(const CommandOption& option) {
  const std::string help = replaced(replaced(replaced(option.description, "[", "\\["), "]", "\\]"), ":", "\\:");
  const std::string value =
      option.value == Value::none ? "" : fmt::format(":{}:{}", option.placeholder, zshAction(option));
  const std::string together = option.isMany ? "*" : fmt::format("({})", fmt::join(option.names, " "));
  std::string text;
  for (const std::string& name : option.names) {
    const char* const joined = option.value == Value::none ? "" : name.starts_with("--") ? "=" : "+";
    text += " \\\n    " + shellQuoted(fmt::format("{}{}{}[{}]{}", together, name, joined, help, value));
  }
  return text;
}

std::string zshFunction(const CommandFacts& command) {
  return command.name.empty() ? "_tarn" : "_tarn_" + replaced(command.name, " ", "_");
}

/// One function for each command, those below it first.
void addZsh(const CommandFacts& command, const CommandFacts& root, std::string& script) {
  for (const CommandFacts& below : command.commands) addZsh(below, root, script);
  std::string options;
  for (const CommandOption& option : optionsBehind(command, root)) options += zshOption(option);
  script += fmt::format("{}() {{\n", zshFunction(command));
  if (command.commands.empty()) {
    script += "  _arguments -s -S" + options;
    for (const CommandOption& argument : command.arguments) {
      script += " \\\n    " + shellQuoted(fmt::format("{}:{}:{}", argument.isMany ? "*" : "", argument.placeholder,
                                                      zshAction(argument)));
    }
    script += "\n}\n\n";
    return;
  }
  script += fmt::format(
      "  local context state state_descr line\n  typeset -A opt_args\n  _arguments -s -S -C{} \\\n"
      "    '1:command:->command' '*::word:->words'\n  case $state in\n    command)\n"
      "      local -a commands=(\n",
      options);
  for (const CommandFacts& below : command.commands) {
    script += fmt::format("        {}\n", shellQuoted(ownName(below) + ":" + replaced(below.description, ":", "\\:")));
  }
  script += "      )\n      _describe command commands ;;\n    words)\n      case $line[1] in\n";
  for (const CommandFacts& below : command.commands) {
    script += fmt::format("        {}) {} ;;\n", ownName(below), zshFunction(below));
  }
  script += "      esac ;;\n  esac\n}\n\n";
}

std::string fishValue(const CommandOption& option) {
  if (!option.choices.empty()) return fmt::format(" -x -a '{}'", fmt::join(option.choices, " "));
  switch (option.value) {
    case Value::none:
      return "";
    case Value::text:
      return " -x";
    case Value::file:
      return " -r -F";
    case Value::directory:
      return " -x -a '(__fish_complete_directories)'";
  }
  return "";
}

/// `place` is the test of fish for the place where the words of the command may stand.
void addFish(const CommandFacts& command, const std::string& place, std::string& script) {
  const std::string names = fmt::format("{}", fmt::join(commandNames(command), " "));
  const std::string begin = "complete -c tarn" + (place.empty() ? "" : fmt::format(" -n {}", shellQuoted(place)));
  for (const CommandOption& option : command.options()) {
    script += begin;
    for (const std::string& name : option.names) {
      script += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    script += fishValue(option) + " -d " + shellQuoted(option.description) + "\n";
  }
  for (const CommandOption& argument : command.arguments) {
    if (argument.value != Value::text || !argument.choices.empty())
      script += begin + replaced(fishValue(argument), " -r", "") + "\n";
  }
  const std::string none = (place.empty() ? "" : place + "; and ") + "not __fish_seen_subcommand_from " + names;
  for (const CommandFacts& below : command.commands) {
    script += fmt::format("complete -c tarn -n {} -a {} -d {}\n", shellQuoted(none), ownName(below),
                          shellQuoted(below.description));
  }
  for (const CommandFacts& below : command.commands) {
    addFish(below, (place.empty() ? "" : place + "; and ") + "__fish_seen_subcommand_from " + ownName(below), script);
  }
}

}  // namespace

std::string bashCompletion(const CommandFacts& root) {
  std::string places;
  std::string values;
  addBash(root, root, places, values);
  return fmt::format(
             "# What may stand after the command that $place names.\n_tarn_place() {{\n  case $place in\n{}"
             "  esac\n}}\n\n# What the option takes after that command.\n_tarn_value() {{\n"
             "  case \"$place $1\" in\n{}  esac\n}}\n",
             places, values) +
         bashBody;
}

std::string zshCompletion(const CommandFacts& root) {
  std::string script = "#compdef tarn\n\n";
  addZsh(root, root, script);
  return script + "if [[ $funcstack[1] == _tarn ]]; then _tarn \"$@\"; else compdef _tarn tarn; fi\n";
}

std::string fishCompletion(const CommandFacts& root) {
  std::string script = "complete -c tarn -f\n";
  addFish(root, "", script);
  return script;
}

}  // namespace tarn
