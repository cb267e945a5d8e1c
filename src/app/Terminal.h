#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tarn {

/// How many columns the terminal of standard output or standard error has (STDOUT_FILENO, STDERR_FILENO); else what
/// COLUMNS says, else 80.
size_t terminalColumns(int stream);

/// The columns that a UTF-8 text takes: two for each wide character, none for one that joins the one ahead.
size_t columnsOf(std::string_view text);

/// The start of a UTF-8 text that fits; "..." ends one that was cut.
std::string cutToColumns(std::string_view text, size_t columns);

}  // namespace tarn
