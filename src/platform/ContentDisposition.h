#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarn {

/// The file name that a Content-Disposition field gives (RFC 6266): of `filename*` (RFC 8187, UTF-8 or ISO-8859-1) if
/// there is one that can be read, else of `filename`. The last part of a path alone, on one line, without control
/// characters and marks that turn the direction of writing. Nothing if no name is left, or dots alone.
std::optional<std::string> filenameOfDisposition(std::string_view field);

}  // namespace tarn
