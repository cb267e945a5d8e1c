#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "mp4/MP4SampleTableParser.h"
#include "parameters/NALCodec.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// The bytes of one sample, read from its front in pieces: a request that the last piece does not cover reads
/// `readAhead` bytes, or as many as asked for when these are more. The file belongs to somebody else and must outlive
/// it; its position is moved.
class SampleFront {
 public:
  /// A page of the disk, which holds the parameter sets and messages of most sync samples and their first slice header.
  static constexpr size_t readAhead = 4096;

  SampleFront(FileHandle& file, const SampleInfo& sample) : file_(file), sampleOffset_(sample.fileOffset) {}
  SampleFront(const SampleFront&) = delete;
  SampleFront& operator=(const SampleFront&) = delete;

  /// Up to `count` bytes at a position in the sample; fewer mean the end of the file or a failed read. A sample's end
  /// is no limit. The view is good until the next call.
  ByteView at(uint64_t position, size_t count);

 private:
  ByteView load(uint64_t offset, size_t count);

  FileHandle& file_;
  uint64_t sampleOffset_;
  uint64_t pieceStart_ = 0;  // in the sample
  ByteView piece_;           // of the buffer or of the long piece
  std::array<uint8_t, readAhead> buffer_;
  Bytes longPiece_;
};

/// How a walk over a sample's NAL units behaves.
struct NALWalkRules {
  const NALCodec& codec;
  bool stopsAtSlice;  ///< parameter sets after the first slice are not looked for
  bool logsDamage;
};

/// Walks the length-prefixed NAL units at the front of one sample (ISO/IEC 14496-15 4.3.2) and gives its parameter
/// sets. What is not a parameter set is stepped over, not read. Damage ends the walk and is no failure.
class ParameterSetWalk {
 public:
  /// A unit that begins this far into the sample, or further, is not seen.
  static constexpr uint32_t searchLimit = 0x40000;
  /// A NAL length from this on counts as damage.
  static constexpr uint32_t invalidLength = 0xA00000;

  struct Unit {
    Bytes bytes;                 ///< as stored, header and emulation prevention bytes included
    bool isBehindSlice = false;  ///< a slice of the sample is before it
  };

  /// `nalLengthSize` is 1, 2 or 4 bytes; with any other there is no unit. The walk begins at `position` in the sample.
  /// The file must outlive it.
  ParameterSetWalk(FileHandle& file, const SampleInfo& sample, int nalLengthSize, const NALWalkRules& rules,
                   uint32_t position = 0);

  /// The next parameter set; nothing at the end of the walk.
  std::optional<Unit> next();

  /// Where the walk stands in the sample. A walk that has stopped at a slice can be gone on with from there.
  uint32_t position() const { return static_cast<uint32_t>(position_); }

 private:
  std::optional<uint32_t> readLength();
  std::nullopt_t end();

  SampleFront front_;
  NALWalkRules rules_;
  uint32_t limit_;
  uint64_t lengthSize_;
  uint64_t position_;
  bool isBehindSlice_ = false;
};

}  // namespace tarn
