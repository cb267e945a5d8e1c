#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tarn {

/// Writes a four-character code into the data_format of the `frma` of a `sinf` box (ISO/IEC 14496-12 8.12.2) and
/// returns the one that it had; nothing if there is none.
std::optional<std::string> replaceDataFormat(std::span<uint8_t> sinf, std::string_view format);

}  // namespace tarn
