#include "app/Manual.h"

#include <fmt/format.h>

#include <cctype>
#include <stdexcept>
#include <utility>

#include "app/CommandLine.h"

namespace tarn {
namespace {

/// What scdoc would take for its own is escaped.
std::string plain(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    const bool isMark = std::string_view("\\_*#[]|<>~`").find(c) != std::string_view::npos;
    if (isMark || (escaped.empty() && std::ispunct(static_cast<unsigned char>(c)) != 0)) escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string sentence(const std::string& text) {
  return plain(text) + (text.ends_with('.') || text.ends_with('?') ? "" : ".");
}

std::string bold(const std::string& text) {
  return "*" + plain(text) + "*";
}
std::string underlined(const std::string& text) {
  return "_" + plain(text) + "_";
}

/// A term, and in the paragraph below it what it means.
std::string entry(const std::string& term, const std::string& meaning) {
  return term + "\n\t" + meaning + "\n\n";
}

std::string optionEntry(const CommandOption& option) {
  std::string term;
  for (const std::string& name : option.names) term += (term.empty() ? "" : ", ") + bold(name);
  if (option.value != CommandOption::Value::none) term += " " + underlined(option.placeholder);
  return entry(term, sentence(option.description));
}

std::string groupText(const OptionGroup& group) {
  std::string text;
  if (!group.description.empty()) text += sentence(group.description);
  if (group.needsOne) text += " One of these must be there:";
  if (!text.empty()) text += "\n\n";
  for (const CommandOption& option : group.options) {
    if (option.names.back() != "--help") text += optionEntry(option);
  }
  return text;
}

std::string argumentText(const CommandOption& argument) {
  const std::string name = underlined(argument.placeholder) + (argument.isMany ? "..." : "");
  return argument.isRequired ? " " + name : " \\[" + name + "\\]";
}

std::string commandText(const CommandFacts& command) {
  std::string text =
      fmt::format("## {}\n\n{} \\[{}\\]", command.name, bold("tarn " + command.name), underlined("OPTIONS"));
  if (!command.commands.empty()) text += " \\[" + underlined("COMMAND") + "\\]";
  for (const CommandOption& argument : command.arguments) text += argumentText(argument);
  text += "\n\n" + sentence(command.description) + "\n\n";
  for (const CommandOption& argument : command.arguments) {
    text += entry(underlined(argument.placeholder), sentence(argument.description));
  }
  for (const OptionGroup& group : command.groups) text += groupText(group);
  if (!command.footer.empty()) text += plain(command.footer) + "\n\n";
  for (const CommandFacts& below : command.commands) text += commandText(below);
  return text;
}

std::string globalOptions(const CommandFacts& root) {
  std::string text;
  for (const CommandOption& option : root.options()) text += optionEntry(option);
  return text;
}

std::string allCommands(const CommandFacts& root) {
  std::string text;
  for (const CommandFacts& command : root.commands) text += commandText(command);
  return text;
}

std::string exitStatus() {
  std::string text;
  for (const auto& [code, words] : exitCodes) text += entry(bold(std::to_string(code)), sentence(words));
  return text;
}

}  // namespace

std::string manual(const CommandFacts& root, std::string_view frame) {
  std::string page(frame);
  for (const auto& [mark, text] : {std::pair<std::string_view, std::string>("\n@OPTIONS@\n", globalOptions(root)),
                                   {"\n@COMMANDS@\n", allCommands(root)},
                                   {"\n@EXIT STATUS@\n", exitStatus()}}) {
    const size_t at = page.find(mark);
    if (at == std::string::npos)
      throw std::runtime_error(fmt::format("The frame of the manual lacks the line {}.", mark));
    page.replace(at + 1, mark.size() - 1, text);
  }
  return page;
}

}  // namespace tarn
