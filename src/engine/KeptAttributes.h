#pragma once

#include <string>
#include <vector>

#include "platform/FileManager.h"

namespace tarn {

/// Gives `target` the owner, the mode, the extended attributes and the time of the last change of `source`; the result
/// of a repair is still the same recording. Returns what the system did not permit, one phrase each, as "owner
/// (Operation not permitted)". Throws PosixError if one of them cannot be opened.
std::vector<std::string> keepAttributes(const Path& source, const Path& target);

}  // namespace tarn
