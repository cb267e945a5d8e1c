#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace tarn {

/// A Huffman code of ISO/IEC 14496-3 4.A.1. In each of them the words of one length follow each other, and a longer
/// word is greater than a shorter one, so that the number of words of each length says which bits are a word.
struct AACCode {
  std::array<uint8_t, 19> wordsOfLength;  ///< element i: those of i + 1 bits
  /// What follows each word, in the order of the words: '0' to '4' sign bits; 'a', 'b' and 'c': one sign bit and
  /// an escape, two and one, two and two. Empty if nothing comes after any.
  std::string_view behind = {};
};

/// The code of a spectral codebook, 1 to 11, and of the differences between scale factors.
const AACCode& spectralCode(unsigned codebook);
extern const AACCode scaleFactorCode;
/// What each word of the latter means, in the order of the words.
extern const std::array<int16_t, 121> scaleFactorSteps;

/// The widths of a spectrum's scale factor bands: this many bands that are so wide.
struct AACBandRun {
  uint8_t width;
  uint8_t count;
};

/// The bands of some rates (ISO/IEC 14496-3 4.5.4).
struct AACBandLayout {
  std::span<const AACBandRun> longWindow;   ///< of 1024 lines
  std::span<const AACBandRun> shortWindow;  ///< of 128 lines
};

/// Those of a rate in Hz; null for a rate that has none.
const AACBandLayout* bandsOf(uint32_t sampleRate);

}  // namespace tarn
