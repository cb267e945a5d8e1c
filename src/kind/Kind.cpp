#include "kind/Kind.h"

#include <fmt/format.h>

#include <algorithm>

#include "kind/detail/MagicWords.h"
#include "kind/detail/MovieKind.h"
#include "kind/detail/Signatures.h"
#include "kind/detail/TextKind.h"
#include "platform/ReadWatch.h"
#include "platform/UTF8.h"

namespace tarn {
namespace {

constexpr size_t headSize = 64 << 10;
constexpr size_t longestName = 120;

Kind unknownKind(ByteView head) {
  if (std::ranges::all_of(head, [](uint8_t byte) { return byte == 0; })) {
    return {Kind::What::unknown, "nothing but zeros where it begins", "download it again"};
  }
  const std::string words = magicWords(head);
  return {Kind::What::unknown, words.empty() ? "no video" : fmt::format("no video ({})", words),
          Kind::adviseVideoItself};
}

Kind kindOfFile(FileHandle& file) {
  const Bytes head = file.read(headSize);
  if (head.empty()) return {Kind::What::empty, "empty", "download it again"};
  if (const auto movie = movieKind(file, head)) return *movie;
  if (const auto known = kindBySignature(head)) return *known;
  if (const auto text = textKind(textOf(head))) return *text;
  return unknownKind(head);
}

}  // namespace

bool Kind::isMedia() const {
  return what == What::plainMovie || what == What::fragmentedMovie || what == What::audio ||
         what == What::otherContainer;
}

std::string Kind::sentence(std::string_view name, NamedBy namedBy) const {
  const std::string plain = plainLine(name, longestName);
  if (advice.empty()) return fmt::format("{} is {}", plain, words);
  const bool hasNoAddress = namedBy == NamedBy::path && advice == adviseVideoItself;
  return fmt::format("{} is {}: {}", plain, words, hasNoAddress ? "give the video itself" : advice);
}

Kind kindOf(FileManager& files, const Path& path) {
  return readWatched(ReadWatch(files.open(path, OpenMode::reading)), kindOfFile);
}

std::optional<std::string> whyNoPlayerShows(FileManager& files, const Path& path, std::string_view name,
                                            NamedBy namedBy) {
  const Kind kind = kindOf(files, path);
  if (kind.isMedia()) return std::nullopt;
  return kind.sentence(name, namedBy);
}

}  // namespace tarn
