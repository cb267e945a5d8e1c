#pragma once

#include <string>

#include "platform/JSObject.h"

namespace tarn {

/// Sends the log to standard error with `verbose`, else nowhere; an engine keeps its own.
void sendLog(bool verbose);

/// Writes one JSON object as a line to standard output.
void printJSON(const JSObject& object);

/// Writes a line to standard output, and one that tells of a failure to standard error, its URLs without their secrets.
void printLine(const std::string& line);
void printFailure(const std::string& line);

}  // namespace tarn
