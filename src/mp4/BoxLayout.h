#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace tarn::layout {

// Where the fields of boxes are (ISO/IEC 14496-12), for readers and writers alike. Offsets count from the box's first
// byte, entry fields from the entry's first byte; boxes have 8-byte headers.

/// A big-endian field: place and width in bytes.
struct Field {
  size_t offset;
  size_t width;

  constexpr size_t end() const { return offset + width; }
};

inline constexpr Field boxSize{0, 4};
inline constexpr Field boxType{4, 4};
inline constexpr size_t boxHeaderSize = 8;
inline constexpr Field longBoxSize{8, 8};  ///< present if the size field is 1 (4.2)
inline constexpr size_t longBoxHeaderSize = 16;

inline constexpr Field version{8, 1};
inline constexpr Field versionAndFlags{8, 4};
inline constexpr uint64_t versionWord(uint8_t boxVersion) {
  return uint64_t{boxVersion} << 24;
}

inline constexpr size_t fullBoxHeaderSize = 12;

/// elst, ctts, stts, stss, stco, stsd: a full box that holds a count and then the entries.
inline constexpr Field entryCount{12, 4};
inline constexpr size_t tableHeaderSize = 16;

/// stsz and stz2 (8.7.3): the count of samples comes after another field.
inline constexpr Field sampleCount{16, 4};

/// elst entry (8.6.6.2).
struct EditRow {
  size_t size;
  Field duration;
  Field mediaTime;
  Field mediaRate;
};
inline constexpr EditRow editRow32{12, {0, 4}, {4, 4}, {8, 4}};
inline constexpr EditRow editRow64{20, {0, 8}, {8, 8}, {16, 4}};
inline constexpr const EditRow& editEntry(bool is64Bit) {
  return is64Bit ? editRow64 : editRow32;
}
inline constexpr int64_t emptyEdit = -1;        ///< as a media time: nothing is shown
inline constexpr int32_t normalRate = 0x10000;  ///< 1 in 16.16 fixed point

/// ctts and stts entry (8.6.1): this many samples with this offset or delta.
inline constexpr size_t runEntrySize = 8;
inline constexpr Field runSampleCount{0, 4};
inline constexpr Field runValue{4, 4};

/// stss entry (8.6.2).
inline constexpr size_t syncEntrySize = 4;
inline constexpr Field syncSampleNumber{0, 4};

/// stco entry (8.7.5), the place of a chunk in the file; a co64 has 64 bits.
inline constexpr Field chunkOffset32{0, 4};

/// mdhd (8.4.2) and mvhd (8.2.2) agree as far as these fields go.
struct TimeHeader {
  Field timescale;
  Field duration;
};
inline constexpr TimeHeader timeHeader32{{20, 4}, {24, 4}};
inline constexpr TimeHeader timeHeader64{{28, 4}, {32, 8}};
inline constexpr const TimeHeader& timeHeader(bool is64Bit) {
  return is64Bit ? timeHeader64 : timeHeader32;
}

/// mvhd (8.2.2).
inline constexpr Field nextTrackID32{104, 4};
inline constexpr Field nextTrackID64{116, 4};

/// tkhd (8.3.2).
inline constexpr Field trackID32{20, 4};
inline constexpr Field trackID64{28, 4};
inline constexpr Field trackDuration32{28, 4};
inline constexpr Field trackDuration64{36, 8};
inline constexpr const Field& trackDuration(bool is64Bit) {
  return is64Bit ? trackDuration64 : trackDuration32;
}

inline constexpr Field trackMatrix32{48, 36};
inline constexpr Field trackMatrix64{60, 36};
inline constexpr uint32_t trackEnabledFlag = 1;

/// sgpd (8.9.3). What follows the grouping type depends on the version.
inline constexpr Field groupingType{12, 4};
struct GroupDescriptionHeader {
  Field defaultLength;  ///< not there in version 0
  Field entryCount;
};
inline constexpr GroupDescriptionHeader groupDescriptionHeader(unsigned boxVersion) {
  if (boxVersion == 0) return {{}, {16, 4}};
  return {{16, 4}, {boxVersion == 1 ? size_t{20} : size_t{24}, 4}};
}

/// hdlr (8.4.3).
inline constexpr Field handlerType{16, 4};

/// stsd (8.5.2): the format of the first sample entry.
inline constexpr Field sampleEntryFormat{20, 4};

/// VisualSampleEntry (12.1.3); its children follow.
inline constexpr Field pictureSize{32, 4};  ///< the width in the upper half, the height in the lower
inline constexpr size_t visualEntrySize = 86;

/// AudioSampleEntry (12.2.3); QuickTime's versions 1 and 2 are longer, and 2 has rate and channels elsewhere. The
/// children follow.
inline constexpr Field audioEntryVersion{16, 2};
inline constexpr Field audioChannels{24, 2};
inline constexpr Field audioRate{32, 2};  ///< the whole part of a 16.16 number
inline constexpr size_t audioEntrySize = 36;
inline constexpr size_t audioEntrySizeVersion1 = 52;
inline constexpr Field audioRateVersion2{40, 8};  ///< 64-bit floating point
inline constexpr Field audioChannelsVersion2{48, 4};
inline constexpr size_t audioEntrySizeVersion2 = 72;

/// The field of a box or entry that begins at `base`. The caller has tested that the bytes are there.
inline uint64_t load(const uint8_t* base, const Field& field) {
  uint64_t value = 0;
  for (size_t i = 0; i < field.width; ++i) value = value << 8 | base[field.offset + i];
  return value;
}

inline uint32_t load32(const uint8_t* base, const Field& field) {
  return static_cast<uint32_t>(load(base, field));
}

/// The same for a field in two's complement. Either is 0 for a field that a version does not have.
inline int64_t loadSigned(const uint8_t* base, const Field& field) {
  if (field.width == 0) return 0;
  auto unused = 8 * (sizeof(uint64_t) - field.width);
  return static_cast<int64_t>(load(base, field) << unused) >> unused;
}

/// The field of a box that begins at `base`; nothing if its bytes are not all in the data.
inline std::optional<uint64_t> loadWithin(std::span<const uint8_t> data, const Field& field, size_t base = 0) {
  if (base > data.size() || data.size() - base < field.end()) return std::nullopt;
  return load(data.data() + base, field);
}

/// Writes the low bits of `value` that the field holds.
inline void store(uint8_t* base, const Field& field, uint64_t value) {
  for (size_t i = field.width; i-- > 0; value >>= 8) base[field.offset + i] = static_cast<uint8_t>(value);
}

constexpr uint32_t fourCC(const char (&code)[5]) {
  uint32_t value = 0;
  for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<uint8_t>(code[i]);
  return value;
}

}  // namespace tarn::layout
