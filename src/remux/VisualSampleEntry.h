#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tarn {

/// Offsets in an `stsd` and in a visual sample entry (ISO/IEC 14496-12 8.5.2, 12.1.3), in bytes.
inline constexpr size_t stsdCountInBox = 12;    ///< entry_count, behind header, version and flags
inline constexpr size_t stsdEntriesInBox = 16;  ///< the first entry
inline constexpr size_t sampleEntryTypeInBox = 4;
inline constexpr size_t visualSampleEntryWidthInBox = 32;  ///< 16 bits; the height, as wide, follows
inline constexpr size_t visualSampleEntryFixedSize = 86;   ///< header and fields; the children follow

/// Writes a four-character code into the data_format of the `frma` of a `sinf` box (ISO/IEC 14496-12 8.12.2) and
/// returns the one that it had; nothing when there is none.
std::optional<std::string> replaceDataFormat(std::span<uint8_t> sinf, std::string_view format);

}  // namespace tarn
