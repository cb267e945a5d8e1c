#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mp4/BoxHeader.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// How a walk treats what the standard leaves to the reader of damaged files (ISO/IEC 14496-12 4.2). Workers differ in
/// this and in nothing else.
struct BoxWalkPolicy {
  /// When a level ends, for a position p.
  enum class EndRule {
    beginsInside,     ///< goes on while p < end; the header itself may reach over the end
    headerInside,     ///< goes on while p + 8 <= end
    headerIsNotLast,  ///< goes on while p < end - 8
  };
  enum class SizeZero { endsWalk, reachesEndOfFile, reachesEndOfLevel };
  enum class SizeOne { endsWalk, reads64Bit };
  enum class SmallSize { endsWalk, isUsed };  ///< a size of 2 to 7
  enum class Type {
    asciiOrEnd,  ///< anything but ASCII ends the walk
    ascii,       ///< anything but ASCII reads as the empty text
    utf8,        ///< anything but UTF-8 reads as the empty text
    namedOrEnd,  ///< as utf8; anything but four characters after trimming white space ends the walk
  };
  enum class Overrun { isYielded, endsWalk };  ///< a box that ends past the end of its level

  EndRule end = EndRule::headerInside;
  SizeZero sizeZero = SizeZero::endsWalk;
  SizeOne sizeOne = SizeOne::endsWalk;
  SmallSize smallSize = SmallSize::endsWalk;
  Type type = Type::utf8;
  Overrun overrun = Overrun::isYielded;
  /// Boxes whose children are walked after them, where they hold at least 8 bytes; children end where their parent
  /// does.
  std::span<const std::string_view> containers = {};
};

namespace boxwalk {

inline constexpr std::string_view containerTypes[] = {"moov", "trak", "mdia", "minf", "stbl", "edts",
                                                      "mvex", "moof", "traf", "mfra", "udta", "sinf"};

using P = BoxWalkPolicy;

// clang-format off
//                                      end rule                     size 0                          size 1                  size 2..7               type                 overrun                containers
inline constexpr P topLevel            {P::EndRule::beginsInside,    P::SizeZero::reachesEndOfFile,  P::SizeOne::reads64Bit, P::SmallSize::isUsed,   P::Type::utf8,       P::Overrun::isYielded, {}};
inline constexpr P children            {P::EndRule::beginsInside,    P::SizeZero::reachesEndOfLevel, P::SizeOne::reads64Bit, P::SmallSize::isUsed,   P::Type::utf8,       P::Overrun::isYielded, {}};
inline constexpr P tracks              {P::EndRule::beginsInside,    P::SizeZero::reachesEndOfLevel, P::SizeOne::reads64Bit, P::SmallSize::endsWalk, P::Type::utf8,       P::Overrun::isYielded, {}};
inline constexpr P buffer              {P::EndRule::headerInside,    P::SizeZero::endsWalk,          P::SizeOne::endsWalk,   P::SmallSize::endsWalk, P::Type::asciiOrEnd, P::Overrun::isYielded, {}};
inline constexpr P bufferDeep          {P::EndRule::headerInside,    P::SizeZero::endsWalk,          P::SizeOne::endsWalk,   P::SmallSize::endsWalk, P::Type::asciiOrEnd, P::Overrun::isYielded, containerTypes};
inline constexpr P sampleEntryChildren {P::EndRule::headerInside,    P::SizeZero::endsWalk,          P::SizeOne::endsWalk,   P::SmallSize::endsWalk, P::Type::namedOrEnd, P::Overrun::endsWalk,  {}};
inline constexpr P openChildren        {P::EndRule::headerInside,    P::SizeZero::reachesEndOfLevel, P::SizeOne::reads64Bit, P::SmallSize::endsWalk, P::Type::utf8,       P::Overrun::isYielded, {}};
inline constexpr P openDeep            {P::EndRule::headerInside,    P::SizeZero::reachesEndOfLevel, P::SizeOne::reads64Bit, P::SmallSize::endsWalk, P::Type::utf8,       P::Overrun::isYielded, containerTypes};
inline constexpr P tableChildren       {P::EndRule::headerInside,    P::SizeZero::reachesEndOfLevel, P::SizeOne::reads64Bit, P::SmallSize::endsWalk, P::Type::utf8,       P::Overrun::endsWalk,  {}};
inline constexpr P clonedChildren      {P::EndRule::headerIsNotLast, P::SizeZero::endsWalk,          P::SizeOne::endsWalk,   P::SmallSize::endsWalk, P::Type::ascii,      P::Overrun::endsWalk,  {}};
inline constexpr P protectionChildren  {P::EndRule::headerIsNotLast, P::SizeZero::endsWalk,          P::SizeOne::endsWalk,   P::SmallSize::endsWalk, P::Type::utf8,       P::Overrun::isYielded, {}};
inline constexpr P topLevelScan        {P::EndRule::beginsInside,    P::SizeZero::reachesEndOfFile,  P::SizeOne::reads64Bit, P::SmallSize::endsWalk, P::Type::utf8,       P::Overrun::isYielded, {}};
inline constexpr P movieBuffer         {P::EndRule::headerInside,    P::SizeZero::endsWalk,          P::SizeOne::endsWalk,   P::SmallSize::endsWalk, P::Type::utf8,       P::Overrun::isYielded, {}};
// clang-format on

}  // namespace boxwalk

/// Why a walk gave no further header.
struct BoxWalkStop {
  enum class Reason {
    endOfLevel,  ///< the end rule
    unreadable,  ///< a short read or a read error
    badSize,     ///< a size that the policy, progress or the 64-bit range rules out
    badType,     ///< a type that the policy rules out
    overrun,     ///< a box that reaches over the end, where the policy rules that out
  };
  Reason reason = Reason::endOfLevel;
  uint64_t offset = 0;  ///< where the next header would have begun
  uint64_t size = 0;    ///< as the header has it, for the last three
  std::string type;     ///< as decoded, for the last three
};

/// Walks boxes of a file, one level, from `start` on; a box may begin anywhere before `limit`. Each step reads one
/// header and moves the file's position. Never throws for what the file holds or for a failing read. The policy must
/// outlive the walker, here and below.
class FileBoxWalker {
 public:
  FileBoxWalker(FileHandle& file, uint64_t start, uint64_t limit, const BoxWalkPolicy& policy)
      : file_(file), position_(start), limit_(limit), policy_(policy) {}

  std::optional<BoxHeader> next();
  const BoxWalkStop& stop() const { return stop_; }

 private:
  FileHandle& file_;
  uint64_t position_;
  uint64_t limit_;
  const BoxWalkPolicy& policy_;
  BoxWalkStop stop_;
};

/// Walks boxes of a buffer that must outlive it, from `start` to `end` (capped at the buffer's end), in pre-order
/// through the policy's containers. Damage ends its level alone; the walk goes on after the container.
class BufferBoxWalker {
 public:
  BufferBoxWalker(ByteView data, size_t start, size_t end, const BoxWalkPolicy& policy);

  std::optional<BoxHeader> next();
  /// How the outermost level ended.
  const BoxWalkStop& stop() const { return stop_; }

 private:
  struct Level {
    uint64_t position;
    uint64_t end;
  };

  ByteView data_;
  const BoxWalkPolicy& policy_;
  std::vector<Level> levels_;  // not recursion: a damaged file may nest to any depth
  BoxWalkStop stop_;
};

}  // namespace tarn
