#pragma once

#include <string>

#include "app/CommandTree.h"

namespace tarn {

/// The scripts that complete the words of a command line of `tarn`: its commands, their options, values that are a
/// choice, files and directories.
std::string bashCompletion(const CommandFacts& root);
std::string zshCompletion(const CommandFacts& root);
std::string fishCompletion(const CommandFacts& root);

}  // namespace tarn
