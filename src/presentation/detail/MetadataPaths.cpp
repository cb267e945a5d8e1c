#include "presentation/detail/MetadataPaths.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

#include "mp4/BoxWalker.h"

namespace tarn {
namespace {

/// In a file with more boxes than this, only the metadata up to here are looked at.
constexpr uint32_t mostBoxes = 1 << 16;

constexpr std::string_view containers[] = {"moov", "trak", "udta", "meta", "ilst"};

/// Media, what tells where or when they are shown, room that holds nothing, and the encoder's name.
constexpr std::string_view leftOut[] = {"mdat", "moof", "mfra", "sidx", "edts", "tkhd",
                                        "mdia", "free", "skip", "wide", "hdlr", "©too"};

bool isIn(std::string_view type, std::span<const std::string_view> types) {
  return std::ranges::find(types, type) != types.end();
}

class PathCollector {
 public:
  explicit PathCollector(FileHandle& file) : file_(file) {}

  /// The boxes of a level, and of the levels below; `prefix` ends in a slash, but for the top level.
  void walk(uint64_t start, uint64_t end, const BoxWalkPolicy& policy, const std::string& prefix) {
    FileBoxWalker walker(file_, start, end, policy);
    while (boxes_++ < mostBoxes) {
      auto box = walker.next();
      if (!box) return;
      std::string type = typeOf(*box);
      if (isIn(type, leftOut)) continue;
      if (!isIn(type, containers)) {
        paths.push_back(prefix + type);
        continue;
      }
      // Containers nest in the order of `containers` alone, so that the depth has a bound.
      if (prefix.find(type) != std::string::npos) continue;
      uint64_t contents = box->contentOffset();
      if (type == "meta") contents += metaHeaderSize(contents);
      walk(contents, std::min(box->end(), end), boxwalk::openChildren, prefix + type + "/");
    }
  }

  std::vector<std::string> paths;

 private:
  std::array<uint8_t, 8> bytesAt(uint64_t offset) {
    std::array<uint8_t, 8> bytes{};
    file_.seek(offset);
    file_.readInto(bytes);
    return bytes;
  }

  /// Four characters; the copyright sign begins many a type, in an encoding that is not UTF-8. Else the bytes in
  /// hexadecimal.
  std::string typeOf(const BoxHeader& box) {
    if (std::ranges::all_of(box.type, [](char c) { return c >= ' ' && c <= '~'; }) && !box.type.empty())
      return box.type;
    auto bytes = bytesAt(box.offset);
    auto tail = textOf(ByteView(bytes).subspan(5, 3));
    if (bytes[4] == 0xA9 && std::ranges::all_of(tail, [](char c) { return c >= ' ' && c <= '~'; })) {
      return "©" + std::string(tail);
    }
    return fmt::format("{:02x}{:02x}{:02x}{:02x}", bytes[4], bytes[5], bytes[6], bytes[7]);
  }

  /// QuickTime's `meta` has no version and flags: its first child follows at once.
  uint64_t metaHeaderSize(uint64_t contents) {
    auto bytes = bytesAt(contents);
    return textOf(ByteView(bytes).subspan(4, 4)) == "hdlr" ? 0 : 4;
  }

  FileHandle& file_;
  uint32_t boxes_ = 0;
};

}  // namespace

std::vector<std::string> metadataPaths(FileHandle& file) {
  PathCollector collector(file);
  collector.walk(0, file.seekToEnd(), boxwalk::topLevelScan, "");
  std::ranges::sort(collector.paths);
  return std::move(collector.paths);
}

}  // namespace tarn
