#pragma once

#include <string>
#include <string_view>

#include "platform/FileManager.h"

namespace tarn {

/// The secret of a home: 32 random bytes as 64 hexadecimal digits, in `<home>/token`, which only its owner may read. It
/// is made at the first call, whole or not at all, and stays, so that open pages outlive the process. A file that
/// others can read, or that holds anything else, is replaced. The caller owns the home. Throws PosixError.
std::string homeToken(const Path& home);

/// Whether the two are equal, in a time that depends on the length of `given` alone.
bool isSameSecret(std::string_view secret, std::string_view given);

}  // namespace tarn
