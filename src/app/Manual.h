#pragma once

#include <string>
#include <string_view>

#include "app/CommandTree.h"

namespace tarn {

/// The manual page of `tarn` in the language of scdoc(5): `frame`, with the lines @OPTIONS@, @COMMANDS@ and @EXIT
/// STATUS@ replaced by what the commands themselves and the table of exit codes say. Throws std::runtime_error when the
/// frame lacks one of them.
std::string manual(const CommandFacts& root, std::string_view frame);

}  // namespace tarn
