#pragma once

#include <string>
#include <string_view>

#include "platform/FileManager.h"

namespace tarn {

/// The secret of a home: 32 random bytes as 64 hexadecimal digits, in `<home>/token`, which only its owner may read. It
/// is made at the first call, whole or not at all, and stays, so that open pages outlive the process. A file that
/// others can read, or that holds anything else, is replaced. The caller owns the home. Throws PosixError.
std::string homeToken(const Path& home);

/// Writes a secret into a file that only its owner may read, whole or not at all; what was there is replaced. Throws
/// PosixError.
void storeSecret(const Path& path, const std::string& secret);

/// `count` random bytes as hexadecimal digits. Throws PosixError.
std::string randomHex(size_t count);

/// What the pages of a home prove that the home has served them: made from its token, which it does not tell. A page
/// keeps it in its script, where no other origin can read it, and never sends it.
std::string pageKey(const std::string& homeToken);

/// The proof of a page of `origin` to a challenge: their HMAC under the page's key, as hexadecimal digits.
std::string pageProof(const std::string& pageKey, const std::string& challenge, const std::string& origin);

/// Whether the two are equal, in a time that depends on the length of `given` alone.
bool isSameSecret(std::string_view secret, std::string_view given);

}  // namespace tarn
