#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/JSObject.h"

// All that a command prints goes through here. Names and titles from outside may hold control characters and marks that
// turn the direction of writing: they are escaped, so that no terminal acts on them.

namespace tarn {

/// The number of the form that all JSON lines have.
inline constexpr int jsonSchema = 1;

/// Sends the log to standard error with `verbose`, else nowhere; an engine keeps its own.
void sendLog(bool verbose);

/// From now on only results and failures are printed.
void setQuiet(bool isQuiet);
bool isQuiet();

/// Writes one JSON object as a line to standard output, with the number of the schema as its first member.
void printJSON(const JSObject& object);

/// Writes a line to standard output; a line end in it is escaped too.
void printLine(const std::string& line);

/// Writes text of one line or more, whose line ends are its own, to standard output.
void printText(const std::string& text);

/// Writes the path of a result as a line to standard output: to a terminal escaped, to a script as it is.
void printPath(const std::filesystem::path& path);

/// Throws PosixError if something that was printed so far has not reached standard output: its disk is full.
void requireWritten();

/// Writes a line that is neither a result nor a failure to standard error, unless the command is quiet.
void printNote(const std::string& line);

/// Writes a line that tells of a failure to standard error, its URLs without their secrets.
void printFailure(const std::string& line);

/// The text as a word of a shell's command line.
std::string shellQuoted(std::string_view text);

/// Whether standard output or standard error (STDOUT_FILENO, STDERR_FILENO) is a terminal.
bool isTerminal(int stream);

/// Whether colours may go there: to a terminal that knows them, unless NO_COLOR is set.
bool takesColours(int stream);

}  // namespace tarn
