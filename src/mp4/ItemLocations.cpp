#include "mp4/ItemLocations.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "platform/Checked.h"

namespace tarn {
namespace {

using layout::Field;

/// What a `meta` has before its children: version and flags, but in files of the older format, where a child's size
/// stands there.
size_t metaHeaderSize(const BoxHeader& meta, uint32_t firstWord) {
  return static_cast<size_t>(meta.headerSize) + (firstWord == 0 ? layout::versionAndFlags.width : 0);
}

/// An `iloc` from its first byte to its last.
class ItemTable {
 public:
  ItemTable(std::span<uint8_t> contents, std::span<const MediaMove> moves) : bytes_(contents), moves_(moves) {}

  bool move() {
    const uint64_t version = take(1);
    take(3);
    const uint64_t sizes = take(2);
    offsetWidth_ = sizes >> 12 & 15, lengthWidth_ = sizes >> 8 & 15, baseWidth_ = sizes >> 4 & 15;
    if (version > 0) indexWidth_ = sizes & 15;
    if (version > 2 || std::max({offsetWidth_, lengthWidth_, baseWidth_, indexWidth_}) > 8) return true;
    const size_t wide = version < 2 ? 2 : 4;
    const uint64_t count = take(wide);
    for (uint64_t i = 0; i < count && !hasEnded_; ++i) {
      if (!moveItem(wide, version > 0)) return false;
    }
    return true;
  }

 private:
  bool moveItem(size_t idWidth, bool hasMethod) {
    take(idWidth);
    const uint64_t method = hasMethod ? take(2) & 15 : 0;
    const uint64_t dataReference = take(2);
    const Field base = takeField(baseWidth_);
    const uint64_t count = take(2);
    const Extents extents{position_, offsetWidth_ + lengthWidth_ + indexWidth_, count};
    if (hasEnded_ || extents.stride * count > bytes_.size() - position_) {
      hasEnded_ = true;
      return true;
    }
    position_ += extents.stride * count;
    const bool isInThisFile = method == 0 && dataReference == 0;
    return !isInThisFile || count == 0 || moveExtents(base, extents);
  }

  struct Extents {
    size_t begin;
    size_t stride;
    uint64_t count;
  };

  bool moveExtents(const Field& base, const Extents& extents) {
    const uint64_t baseOffset = layout::load(bytes_.data(), base);
    const auto offsetField = [&](uint64_t i) {
      return Field{extents.begin + i * extents.stride + indexWidth_, offsetWidth_};
    };
    // Extents without an offset all begin at the base.
    const uint64_t count = offsetWidth_ == 0 ? 1 : extents.count;
    std::optional<int64_t> common;
    bool isCommon = true;
    for (uint64_t i = 0; i < count; ++i) {
      const auto shift = shiftOf(baseOffset, layout::load(bytes_.data(), offsetField(i)));
      if (!shift) return false;
      isCommon = isCommon && (!common || *common == *shift);
      common = shift;
    }
    const bool countFromBase = baseOffset > 0 || offsetWidth_ == 0;
    if (isCommon && (*common == 0 || (countFromBase && add(base, *common)))) return true;
    for (uint64_t i = 0; i < count; ++i) {
      const auto shift = shiftOf(baseOffset, layout::load(bytes_.data(), offsetField(i)));
      if (!add(offsetField(i), *shift)) return false;
    }
    return true;
  }

  /// By how much an extent moves; nothing if it is in none of the moves.
  std::optional<int64_t> shiftOf(uint64_t base, uint64_t offset) const {
    const auto place = checkedAdd(base, offset);
    const auto moved = place ? newPlace(*place, moves_) : std::nullopt;
    return moved ? std::optional(static_cast<int64_t>(*moved - *place)) : std::nullopt;
  }

  /// False, and no change, where the sum does not fit the field.
  bool add(const Field& field, int64_t shift) {
    uint64_t sum;
    if (__builtin_add_overflow(layout::load(bytes_.data(), field), shift, &sum)) return false;
    if (field.width < 8 && sum >> 8 * field.width != 0) return false;
    layout::store(bytes_.data(), field, sum);
    return true;
  }

  Field takeField(size_t width) {
    if (bytes_.size() - position_ < width) {
      hasEnded_ = true;
      return {0, 0};
    }
    position_ += width;
    return {position_ - width, width};
  }

  uint64_t take(size_t width) { return layout::load(bytes_.data(), takeField(width)); }

  std::span<uint8_t> bytes_;
  std::span<const MediaMove> moves_;
  size_t position_ = 0;
  bool hasEnded_ = false;
  size_t offsetWidth_ = 0, lengthWidth_ = 0, baseWidth_ = 0, indexWidth_ = 0;
};

}  // namespace

bool moveItems(std::span<uint8_t> ilocContents, std::span<const MediaMove> moves) {
  return ItemTable(ilocContents, moves).move();
}

bool moveItemsInMoov(std::span<uint8_t> moov, std::span<const MediaMove> moves) {
  static constexpr std::string_view parents[] = {"moov", "trak", "udta"};
  static constexpr BoxWalkPolicy metaSearch = [] {
    BoxWalkPolicy policy = boxwalk::openChildren;
    policy.containers = parents;
    return policy;
  }();
  BufferBoxWalker walker(moov, 0, moov.size(), metaSearch);
  while (const auto meta = walker.next()) {
    if (meta->type != "meta" || meta->end() > moov.size()) continue;
    const auto firstWord = readUInt32(moov, meta->contentOffset());
    if (!firstWord) continue;
    BufferBoxWalker children(moov, meta->offset + metaHeaderSize(*meta, *firstWord), meta->end(),
                             boxwalk::openChildren);
    while (const auto iloc = children.next()) {
      if (iloc->type != "iloc" || iloc->end() > meta->end()) continue;
      const auto header = static_cast<size_t>(iloc->headerSize);
      if (!moveItems(moov.subspan(iloc->offset + header, iloc->size - header), moves)) return false;
    }
  }
  return true;
}

std::vector<BoxHeader> findItemLocations(FileHandle& file, const BoxHeader& meta) {
  std::vector<BoxHeader> found;
  std::array<uint8_t, 4> word{};
  file.seek(meta.contentOffset());
  if (file.readInto(word) < word.size()) return found;
  FileBoxWalker children(file, meta.offset + metaHeaderSize(meta, loadUInt32(word)), meta.end(), boxwalk::openChildren);
  while (auto box = children.next()) {
    if (box->type == "iloc" && box->end() <= meta.end()) found.push_back(*std::move(box));
  }
  return found;
}

}  // namespace tarn
