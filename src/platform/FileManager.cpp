#include "platform/FileManager.h"

#include <fmt/format.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <limits>

#include "platform/Error.h"
#include "platform/TempFile.h"
#include "platform/URL.h"

namespace tarn {
namespace {

constexpr std::string_view siblingPrefix = ".";
constexpr std::string_view siblingSuffix = ".tmp";
constexpr std::string_view fileScheme = "file://";
constexpr uint64_t readPiece = 1 << 18;  // bytes

bool isHiddenSibling(std::string_view name) {
  if (!name.starts_with(siblingPrefix) || !name.ends_with(siblingSuffix)) return false;
  name.remove_prefix(siblingPrefix.size());
  name.remove_suffix(std::min(siblingSuffix.size(), name.size()));
  return isUUID(name);
}

bool standsForItselfInPath(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~' || c == '/';
}

}  // namespace

Path absolutePath(const Path& path) {
  std::error_code failure;
  Path absolute = std::filesystem::absolute(path, failure);
  if (failure) throw PosixError(failure.value(), fmt::format("The path \"{}\"", path.string()));
  return absolute;
}

std::string makeUUID() {
  std::array<uint8_t, 16> b{};
  if (RAND_bytes(b.data(), static_cast<int>(b.size())) != 1) throw Error("OpenSSL", -1, "no random bytes");
  b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return fmt::format("{:02X}-{:02X}-{:02X}-{:02X}-{:02X}", fmt::join(b.begin(), b.begin() + 4, ""),
                     fmt::join(b.begin() + 4, b.begin() + 6, ""), fmt::join(b.begin() + 6, b.begin() + 8, ""),
                     fmt::join(b.begin() + 8, b.begin() + 10, ""), fmt::join(b.begin() + 10, b.end(), ""));
}

bool isUUID(std::string_view text) {
  if (text.size() != uuidLength) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    const bool digit = (text[i] >= '0' && text[i] <= '9') || (text[i] >= 'A' && text[i] <= 'F');
    if (dash ? text[i] != '-' : !digit) return false;
  }
  return true;
}

Path hiddenSibling(const Path& target) {
  return target.parent_path() / fmt::format("{}{}{}", siblingPrefix, makeUUID(), siblingSuffix);
}

size_t removeAbandonedSiblings(FileManager& files, const Path& directory) noexcept {
  size_t removed = 0;
  try {
    for (const std::string& name : files.contentsOfDirectory(directory)) {
      if (isHiddenSibling(name) && removeIfExists(files, directory / name)) ++removed;
    }
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): what cannot be listed cannot be cleaned
  }
  return removed;
}

uint64_t copyByReading(FileHandle& source, FileHandle& target, uint64_t count) {
  Bytes piece(std::min(count, readPiece));
  uint64_t copied = 0;
  while (copied < count) {
    // Writes that begin with a page of the target take half the time of those that begin within one.
    const uint64_t toBoundary = readPiece - target.offset() % readPiece;
    const std::span<uint8_t> wanted =
        std::span(piece).first(std::min({uint64_t{piece.size()}, count - copied, toBoundary}));
    const size_t got = source.readInto(wanted);
    target.write(wanted.first(got));
    copied += got;
    if (got < wanted.size()) break;
  }
  return copied;
}

bool removeIfExists(FileManager& files, const Path& path) noexcept {
  try {
    files.removeItem(path);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

Bytes readFile(FileManager& files, const Path& path) {
  return files.open(path, OpenMode::reading)->read(std::numeric_limits<size_t>::max());
}

void writeFileAtomically(FileManager& files, const Path& target, ByteView bytes) {
  TempFile sibling(files, hiddenSibling(target));
  const auto handle = files.open(sibling.path(), OpenMode::exclusivePrivate);
  handle->write(bytes);
  handle->close();
  files.replaceItem(target, sibling.path());
  sibling.keep();
}

std::string fileURLText(const Path& path) {
  std::string text(fileScheme);
  for (const char c : path.native()) {
    if (standsForItselfInPath(c)) {
      text += c;
    } else {
      text += fmt::format("%{:02X}", static_cast<uint8_t>(c));
    }
  }
  return text;
}

std::optional<Path> pathFromFileURL(std::string_view text) {
  if (!text.starts_with(fileScheme)) return std::nullopt;
  text.remove_prefix(fileScheme.size());
  if (!text.starts_with('/') || text.find_first_of("?#") != std::string_view::npos) return std::nullopt;
  const auto path = percentDecode(text);
  if (!path || path->find('\0') != std::string::npos) return std::nullopt;
  return Path(*path);
}

}  // namespace tarn
