#include "app/LibraryExport.h"

#include <fmt/format.h>

#include "platform/Error.h"

namespace tarn {
namespace {

constexpr uint64_t pieceSize = 10 << 20;

/// False if it was stopped.
bool copyTo(FileManager& files, const Path& from, const Path& made, const std::function<bool()>& isStopped) {
  const auto source = files.open(from, OpenMode::reading);
  const auto target = files.open(made, OpenMode::exclusive);
  while (source->copyRange(*target, pieceSize) == pieceSize) {
    if (isStopped()) return false;
  }
  target->synchronize();
  target->close();
  return !isStopped();
}

Error inTheWay(const Path& path) {
  return Error("Library", -1, fmt::format("{} exists already; --force replaces it", path.string()));
}

}  // namespace

bool exportFile(FileManager& files, const Path& from, const Path& to, bool mayReplace,
                const std::function<bool()>& isStopped) {
  const auto there = files.attributes(to);
  if (there && (there->isDirectory || !mayReplace)) throw inTheWay(to);
  const Path made = hiddenSibling(to);
  bool isWhole = false;
  try {
    isWhole = copyTo(files, from, made, isStopped);
    if (isWhole && mayReplace) files.replaceItem(to, made);
    if (isWhole && !mayReplace) files.moveItem(made, to);
  } catch (const Error&) {
    removeIfExists(files, made);
    if (!mayReplace && files.fileExists(to)) throw inTheWay(to);
    throw;
  }
  if (!isWhole) removeIfExists(files, made);
  return isWhole;
}

}  // namespace tarn
