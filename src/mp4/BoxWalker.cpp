#include "mp4/BoxWalker.h"

#include <algorithm>
#include <array>
#include <utility>

#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "platform/Checked.h"
#include "platform/Error.h"

namespace tarn {
namespace {

using Policy = BoxWalkPolicy;
using Reason = BoxWalkStop::Reason;

constexpr uint64_t shortHeader = layout::boxHeaderSize;
constexpr uint64_t longHeader = layout::longBoxHeaderSize;

bool goesOn(uint64_t position, uint64_t end, Policy::EndRule rule) {
  if (position >= end) return false;
  switch (rule) {
    case Policy::EndRule::beginsInside:
      return true;
    case Policy::EndRule::headerInside:
      return end - position >= shortHeader;
    case Policy::EndRule::headerIsNotLast:
      return end - position > shortHeader;
  }
  return false;
}

std::string decodeType(ByteView bytes, Policy::Type rule) {
  bool isASCII = rule == Policy::Type::asciiOrEnd || rule == Policy::Type::ascii;
  return isASCII ? decodeASCII(bytes).value_or("") : decodeUTF8(bytes);
}

bool isAcceptable(std::string_view type, Policy::Type rule) {
  switch (rule) {
    case Policy::Type::asciiOrEnd:
      return !type.empty();
    case Policy::Type::ascii:
    case Policy::Type::utf8:
      return true;
    case Policy::Type::namedOrEnd: {
      // Four bytes are four characters when none is a part of a longer sequence and none is trimmed away.
      constexpr std::string_view whiteSpace = " \t\n\v\f\r";
      return type.size() == 4 && decodeASCII(bytesOf(type)) &&
             whiteSpace.find(type.front()) == std::string_view::npos &&
             whiteSpace.find(type.back()) == std::string_view::npos;
    }
  }
  return false;
}

struct FileSource {
  FileHandle& file;

  bool read(uint64_t at, std::span<uint8_t, 8> target) {
    try {
      file.seek(at);
      return file.readInto(target) == target.size();
    } catch (const PosixError&) {
      return false;
    }
  }

  std::optional<uint64_t> end() {
    try {
      return file.seekToEnd();
    } catch (const PosixError&) {
      return std::nullopt;
    }
  }
};

struct BufferSource {
  ByteView data;

  bool read(uint64_t at, std::span<uint8_t, 8> target) {
    if (at > data.size() || data.size() - at < target.size()) return false;
    std::ranges::copy(data.subspan(at, target.size()), target.begin());
    return true;
  }

  std::optional<uint64_t> end() { return data.size(); }
};

/// One box header, and what the policy says to it. `levelEnd` is after `position`.
template <typename Source>
class HeaderStep {
 public:
  HeaderStep(Source source, uint64_t position, uint64_t levelEnd, const Policy& policy)
      : source_(source), levelEnd_(levelEnd), policy_(policy) {
    header_.offset = position;
  }

  std::optional<BoxHeader> take(BoxWalkStop& stop) {
    if (auto reason = whatEndsTheWalk()) {
      stop = {*reason, header_.offset, header_.size, header_.type};
      return std::nullopt;
    }
    return std::move(header_);
  }

 private:
  std::optional<Reason> whatEndsTheWalk() {
    std::array<uint8_t, 8> bytes;
    if (!goesOn(header_.offset, levelEnd_, policy_.end)) return Reason::endOfLevel;
    if (!source_.read(header_.offset, bytes)) return Reason::unreadable;
    std::span<const uint8_t, 8> fields(bytes);
    header_.size = loadUInt32(fields.first<4>());
    header_.type = decodeType(fields.last<4>(), policy_.type);
    if (auto reason = resolveSize()) return reason;
    if (!isAcceptable(header_.type, policy_.type)) return Reason::badType;
    auto end = checkedAdd(header_.offset, header_.size);
    if (!end) return Reason::badSize;
    if (*end > levelEnd_ && policy_.overrun == Policy::Overrun::endsWalk) return Reason::overrun;
    return std::nullopt;
  }

  /// Turns the size field into the box's size.
  std::optional<Reason> resolveSize() {
    uint64_t smallest = policy_.smallSize == Policy::SmallSize::isUsed ? 1 : shortHeader;
    if (header_.size == 0) {
      if (policy_.sizeZero == Policy::SizeZero::endsWalk) return Reason::badSize;
      bool toLevelEnd = policy_.sizeZero == Policy::SizeZero::reachesEndOfLevel;
      auto end = toLevelEnd ? std::optional(levelEnd_) : source_.end();
      if (!end || *end < header_.offset) return Reason::unreadable;
      header_.size = *end - header_.offset;
    } else if (header_.size == 1) {
      if (policy_.sizeOne == Policy::SizeOne::endsWalk) return Reason::badSize;
      auto at = checkedAdd(header_.offset, shortHeader);
      std::array<uint8_t, 8> bytes;
      if (!at || !source_.read(*at, bytes)) return Reason::unreadable;
      header_.size = loadUInt64(bytes);
      header_.headerSize = static_cast<int>(longHeader);
      smallest = longHeader;
    }
    return header_.size < smallest ? std::optional(Reason::badSize) : std::nullopt;
  }

  Source source_;
  uint64_t levelEnd_;
  const Policy& policy_;
  BoxHeader header_;
};

}  // namespace

std::optional<BoxHeader> FileBoxWalker::next() {
  auto header = HeaderStep(FileSource{file_}, position_, limit_, policy_).take(stop_);
  position_ = header ? header->end() : limit_;
  return header;
}

BufferBoxWalker::BufferBoxWalker(ByteView data, size_t start, size_t end, const BoxWalkPolicy& policy)
    : data_(data), policy_(policy), levels_{{start, std::min(end, data.size())}} {}

std::optional<BoxHeader> BufferBoxWalker::next() {
  while (!levels_.empty()) {
    Level& level = levels_.back();
    BoxWalkStop stop;
    auto header = HeaderStep(BufferSource{data_}, level.position, level.end, policy_).take(stop);
    if (!header) {
      if (levels_.size() == 1) stop_ = std::move(stop);
      levels_.pop_back();
      continue;
    }
    level.position = header->end();
    uint64_t contents = header->contentOffset();
    uint64_t end = std::min(header->end(), level.end);
    if (std::ranges::find(policy_.containers, header->type) != policy_.containers.end() &&
        end >= contents + shortHeader) {
      levels_.push_back({contents, end});
    }
    return header;
  }
  return std::nullopt;
}

}  // namespace tarn
