#pragma once

#include <tarn/transfer.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/JSObject.h"

namespace tarn {

/// Why these options cannot be taken, in words for people that hold nothing of the contents; nothing if they can.
/// Refused are headers that the engine sets itself or that are none (RFC 9110 5.5), line ends and NUL anywhere, cookies
/// in another format, and what is too large to be kept.
std::optional<std::string> whyRefused(const TransferOptions& options);

/// The cookies, a line each, without comments.
std::vector<std::string> cookieLines(std::string_view cookies);

/// The text without the cookies that no host of this URL gets (RFC 6265 5.1.3). Each line keeps its number.
std::string cookiesFor(std::string_view url, std::string_view cookies);

/// The options as they are stored and sent: keys are named as the members, and what is not set is left out.
JSObject objectOf(const TransferOptions& options);
/// Values of another type count as not set.
TransferOptions transferOptions(const JSObject& object);

/// How far a transfer is, for pages and commands.
JSObject objectOf(const TransferState& state);

}  // namespace tarn
