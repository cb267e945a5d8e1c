#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tarn {

/// An option, or an argument without a name of its own, as its users see it.
struct CommandOption {
  enum class Value { none, text, file, directory };

  std::vector<std::string> names = {};  ///< with their dashes, short ones first; of an argument none
  std::string placeholder = {};         ///< what stands for the value: "FILE"; empty for a flag
  std::string description = {};         ///< without a stop at its end
  Value value = Value::none;
  std::vector<std::string> choices = {};  ///< the only values; empty when others may be
  bool isRequired = false;
  bool isMany = false;  ///< any number of values
};

struct OptionGroup {
  std::string description = {};  ///< of the options that stand together; the command's own have none
  bool needsOne = false;         ///< one of them must be there
  std::vector<CommandOption> options = {};
};

/// A command with what may stand after it. Of the outermost, `tarn` itself, the options may stand after all commands.
struct CommandFacts {
  std::string name = {};  ///< "library remove"; that of the outermost is empty
  std::string description = {};
  std::string footer = {};
  std::vector<CommandOption> arguments = {};
  std::vector<OptionGroup> groups = {};
  std::vector<CommandFacts> commands = {};

  std::vector<CommandOption> options() const;
};

/// The commands below `root`, and itself.
CommandFacts factsOf(const CLI::App& root);

}  // namespace tarn
