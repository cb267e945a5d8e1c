#include "media/AACBlock.h"

#include <array>
#include <string>

#include "media/detail/AACTables.h"
#include "platform/Error.h"

namespace tarn {
namespace {

enum Element : uint8_t { single = 0, pair = 1, lowFrequency = 3, data = 4, program = 5, fill = 6, end = 7 };

constexpr unsigned shortWindows = 8;
constexpr unsigned mostBands = 51;
constexpr uint32_t eightShort = 2;  // window_sequence

// Codebooks of section_data that are none of the spectrum (4.6.3.3).
constexpr uint8_t zeroBook = 0;
constexpr uint8_t escapeBook = 11;
constexpr uint8_t reservedBook = 12;
constexpr uint8_t noiseBook = 13;

/// The bits of a packet. Past the end there are zeros; who reads there learns it from `isPastEnd`.
class Bits {
 public:
  explicit Bits(ByteView bytes) : bytes_(bytes) {}

  size_t position() const { return position_; }
  bool isPastEnd() const { return position_ > bytes_.size() * 8; }
  void skip(size_t count) { position_ += count; }
  void align() { position_ = (position_ + 7) / 8 * 8; }

  /// Up to 19 bits, without a step over them.
  uint32_t peek(unsigned count) const {
    uint32_t word = 0;
    for (size_t i = 0, at = position_ / 8; i < 4; ++i, ++at) word = word << 8 | (at < bytes_.size() ? bytes_[at] : 0U);
    return word << position_ % 8 >> (32 - count);
  }
  uint32_t read(unsigned count) {
    const uint32_t value = peek(count);
    position_ += count;
    return value;
  }
  bool readFlag() { return read(1) != 0; }

  /// The number of the next word of a code.
  size_t readWord(const AACCode& code) {
    const uint32_t window = peek(19);
    uint32_t first = 0;  // word of this length
    size_t wordsAhead = 0;
    for (unsigned length = 1; length <= 19; ++length) {
      const uint32_t words = code.wordsOfLength[length - 1];
      const uint32_t bits = window >> (19 - length);
      if (bits < first + words) {
        skip(length);
        return wordsAhead + (bits - first);
      }
      wordsAhead += words;
      first = (first + words) << 1;
    }
    return 0;  // not reached: the codes are complete
  }

 private:
  ByteView bytes_;
  size_t position_ = 0;
};

/// ics_info (4.4.2.1): the windows of a channel, or of two that share them.
struct Windows {
  bool isShort = false;
  unsigned bands = 0;  ///< max_sfb
  unsigned groups = 1;
  std::array<uint8_t, shortWindows> inGroup{1};  ///< windows in each
};

/// Reads one packet; each step says whether its values are allowed.
class BlockParser {
 public:
  BlockParser(ByteView bytes, const AACBandLayout& bands) : bits_(bytes), layout_(bands) {}

  std::optional<AACBlock> read() {
    AACBlock block;
    while (!bits_.isPastEnd()) {
      const auto type = static_cast<uint8_t>(bits_.read(3));
      if (type == Element::end) {
        bits_.align();
        if (bits_.isPastEnd() || block.elements.empty()) return std::nullopt;
        block.size = bits_.position() / 8;
        return block;
      }
      if (type == single || type == pair || type == lowFrequency) {
        block.elements.push_back(static_cast<uint8_t>(uint32_t{type} << 4 | bits_.peek(4)));
      }
      if (!readElement(type)) return std::nullopt;
    }
    return std::nullopt;
  }

 private:
  bool readElement(uint8_t type) {
    switch (type) {
      case single:
      case lowFrequency:
        bits_.skip(4);  // element_instance_tag
        return readChannel(nullptr);
      case pair:
        bits_.skip(4);
        return readPair();
      case data:
        readData();
        return true;
      case program:
        readProgram();
        return true;
      case fill:
        bits_.skip(8 * readCount(4));
        return true;
      default:
        return false;
    }
  }

  /// A count in this many bits, which goes on in 8 more where all are set.
  size_t readCount(unsigned bits) {
    const uint32_t count = bits_.read(bits);
    const uint32_t most = (1U << bits) - 1;
    if (count < most) return count;
    return count + bits_.read(8) - (bits == 4 ? 1 : 0);
  }

  void readData() {
    bits_.skip(4);
    const bool isAligned = bits_.readFlag();
    const size_t count = readCount(8);
    if (isAligned) bits_.align();
    bits_.skip(8 * count);
  }

  /// program_config_element (4.4.1.1).
  void readProgram() {
    bits_.skip(4 + 2 + 4);  // tag, object type, rate
    size_t tagged = 0;
    for (unsigned i = 0; i < 3; ++i) tagged += bits_.read(4);  // front, side and back
    const uint32_t lowFrequencies = bits_.read(2);
    const uint32_t dataElements = bits_.read(3);
    const uint32_t coupled = bits_.read(4);
    for (unsigned length : {4U, 4U, 3U}) {  // mixdowns: mono, stereo, matrix
      if (bits_.readFlag()) bits_.skip(length);
    }
    bits_.skip(5 * tagged + size_t{4} * lowFrequencies + size_t{4} * dataElements + size_t{5} * coupled);
    bits_.align();
    bits_.skip(size_t{8} * bits_.read(8));  // the comment
  }

  bool readPair() {
    Windows windows;
    const bool isCommon = bits_.readFlag();
    if (isCommon) {
      if (!readWindows(windows)) return false;
      const uint32_t middleSide = bits_.read(2);
      if (middleSide == 3) return false;
      if (middleSide == 1) bits_.skip(size_t{windows.groups} * windows.bands);
    }
    const Windows* common = isCommon ? &windows : nullptr;
    return readChannel(common) && readChannel(common);
  }

  bool readWindows(Windows& windows) {
    if (bits_.readFlag()) return false;  // ics_reserved_bit
    windows.isShort = bits_.read(2) == eightShort;
    bits_.skip(1);  // window_shape
    if (!windows.isShort) {
      windows.bands = bits_.read(6);
      return !bits_.readFlag() && windows.bands <= countBands(layout_.longWindow);  // no prediction in AAC-LC
    }
    windows.bands = bits_.read(4);
    for (unsigned window = 1; window < shortWindows; ++window) {
      if (!bits_.readFlag()) windows.inGroup[windows.groups++] = 0;
      ++windows.inGroup[windows.groups - 1];
    }
    return windows.bands <= countBands(layout_.shortWindow);
  }

  static unsigned countBands(std::span<const AACBandRun> runs) {
    unsigned count = 0;
    for (const AACBandRun& run : runs) count += run.count;
    return count;
  }

  /// individual_channel_stream (4.4.2.7).
  bool readChannel(const Windows* common) {
    const uint32_t gain = bits_.read(8);
    Windows windows;
    if (common != nullptr) {
      windows = *common;
    } else if (!readWindows(windows)) {
      return false;
    }
    if (!readSections(windows) || !readScaleFactors(windows, static_cast<int>(gain))) return false;
    if (bits_.readFlag() && !readPulses(windows)) return false;
    if (bits_.readFlag() && !readNoiseShaping(windows)) return false;
    if (bits_.readFlag()) return false;  // gain control is not in AAC-LC
    readSpectrum(windows);
    return !bits_.isPastEnd();
  }

  bool readSections(const Windows& windows) {
    const unsigned width = windows.isShort ? 3 : 5;
    const uint32_t goesOn = (1U << width) - 1;
    for (unsigned group = 0; group < windows.groups; ++group) {
      for (unsigned band = 0; band < windows.bands;) {
        const auto book = static_cast<uint8_t>(bits_.read(4));
        if (book == reservedBook) return false;
        unsigned length = 0;
        uint32_t part = goesOn;
        while (part == goesOn && length <= windows.bands) length += part = bits_.read(width);
        if (length == 0 || band + length > windows.bands || bits_.isPastEnd()) return false;
        for (; length > 0; --length) books_[group][band++] = book;
      }
    }
    return true;
  }

  bool readScaleFactors(const Windows& windows, int gain) {
    constexpr int mostGain = 255;
    bool hasNoise = false;
    for (unsigned group = 0; group < windows.groups; ++group) {
      for (unsigned band = 0; band < windows.bands; ++band) {
        const uint8_t book = books_[group][band];
        if (book == zeroBook) continue;
        if (book == noiseBook && !hasNoise) {
          hasNoise = true;
          bits_.skip(9);
          continue;
        }
        const int step = scaleFactorSteps[bits_.readWord(scaleFactorCode)];
        if (book > escapeBook) continue;  // noise and intensity count for themselves
        gain += step;
        if (gain < 0 || gain > mostGain) return false;
      }
    }
    return true;
  }

  bool readPulses(const Windows& windows) {
    if (windows.isShort) return false;
    const uint32_t pulses = bits_.read(2) + 1;
    if (bits_.read(6) >= countBands(layout_.longWindow)) return false;
    bits_.skip(size_t{9} * pulses);
    return true;
  }

  /// tns_data (4.4.2.7).
  bool readNoiseShaping(const Windows& windows) {
    const unsigned mostOrder = windows.isShort ? 7 : 12;
    for (unsigned window = 0; window < (windows.isShort ? shortWindows : 1); ++window) {
      uint32_t filters = bits_.read(windows.isShort ? 1 : 2);
      if (filters == 0) continue;
      const uint32_t resolution = bits_.read(1) + 3;
      for (; filters > 0; --filters) {
        bits_.skip(windows.isShort ? 4 : 6);
        const uint32_t order = bits_.read(windows.isShort ? 3 : 5);
        if (order > mostOrder) return false;
        if (order == 0) continue;
        bits_.skip(1);  // direction
        const uint32_t isCompressed = bits_.read(1);
        bits_.skip(size_t{order} * (resolution - isCompressed));
      }
    }
    return true;
  }

  void readSpectrum(const Windows& windows) {
    const auto runs = windows.isShort ? layout_.shortWindow : layout_.longWindow;
    for (unsigned group = 0; group < windows.groups; ++group) {
      unsigned band = 0;
      for (const AACBandRun& run : runs) {
        for (unsigned i = 0; i < run.count && band < windows.bands; ++i, ++band) {
          const uint8_t book = books_[group][band];
          if (book != zeroBook && book <= escapeBook) readLines(book, run.width * windows.inGroup[group]);
        }
      }
    }
  }

  void readLines(uint8_t book, unsigned lines) {
    const unsigned linesInWord = book <= 4 ? 4 : 2;
    const AACCode& code = spectralCode(book);
    for (unsigned line = 0; line < lines && !bits_.isPastEnd(); line += linesInWord) {
      const size_t word = bits_.readWord(code);
      if (!code.behind.empty()) readBehind(code.behind[word]);
    }
  }

  void readBehind(char what) {
    if (what <= '4') return bits_.skip(static_cast<size_t>(what - '0'));
    bits_.skip(what == 'a' ? 1 : 2);
    for (int escapes = what == 'c' ? 2 : 1; escapes > 0; --escapes) {
      unsigned longer = 0;
      while (bits_.readFlag() && longer < 32) ++longer;
      bits_.skip(longer + 4);
    }
  }

  Bits bits_;
  const AACBandLayout& layout_;
  std::array<std::array<uint8_t, mostBands>, shortWindows> books_{};  // of each group and band
};

}  // namespace

AACBlockReader::AACBlockReader(uint32_t sampleRate) : bands_(bandsOf(sampleRate)) {
  if (bands_ == nullptr) throw Error("AACBlock", -1, "There is no AAC at a rate of " + std::to_string(sampleRate));
}

std::optional<AACBlock> AACBlockReader::read(ByteView bytes) const {
  return BlockParser(bytes, *bands_).read();
}

}  // namespace tarn
