#include "platform/host/PhotoFiles.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "platform/Error.h"

namespace tarn {
namespace {

/// Failures by which a file system says that it does not make second names, or not this one.
bool refusesLinks(const PosixError& error) {
  constexpr std::array codes = {EXDEV, EPERM, EMLINK, EOPNOTSUPP, ENOSYS};
  return std::find(codes.begin(), codes.end(), error.code()) != codes.end();
}

bool sameFile(const FileAttributes& a, const FileAttributes& b) {
  return a.device == b.device && a.inode == b.inode;
}

}  // namespace

PhotoFiles::PhotoFiles(FileManager& files, Path root)
    : files_(files), root_(std::move(root)), assets_(root_ / ".assets") {}

void PhotoFiles::makeDirectories() {
  files_.createDirectory(assets_);
}

Path PhotoFiles::placeOf(const PlacedAsset& placed) {
  if (!placed.folder.empty()) {
    Path path = pathInAlbum(placed.folder, placed.name);
    if (files_.fileExists(path)) return path;
  }
  return assetPath(placed.asset.identifier);
}

std::set<std::string> PhotoFiles::namesNoFolderCanHave() {
  std::set<std::string> names;
  for (std::string& name : files_.contentsOfDirectory(root_)) {
    const auto facts = files_.attributes(root_ / name);
    if (!facts || !facts->isDirectory) names.insert(std::move(name));
  }
  return names;
}

std::set<std::string> PhotoFiles::namesInFolder(const std::string& folder) {
  if (!files_.fileExists(root_ / folder)) return {};
  const auto names = files_.contentsOfDirectory(root_ / folder);
  return {names.begin(), names.end()};
}

bool PhotoFiles::isSourceOf(const FileAttributes& source, const AssetRecord& asset) {
  const auto own = files_.attributes(assetPath(asset.identifier));
  if (!own) return false;
  return sameFile(source, *own) || (sameFile(source, asset.source) && source.size == asset.source.size &&
                                    source.changeTime == asset.source.changeTime);
}

uint64_t PhotoFiles::takeAsset(const Path& source, const std::string& identifier) {
  const Path target = assetPath(identifier);
  linkOrCopy(source, target);
  // A second name shares bytes that nobody may have flushed yet.
  const auto file = files_.open(target, OpenMode::reading);
  file->synchronize();
  const uint64_t size = file->seekToEnd();
  file->close();
  files_.synchronizeDirectory(assets_);
  return size;
}

PhotoFiles::StagedFile PhotoFiles::stage(const std::string& assetIdentifier, const std::string& folder,
                                         const std::string& name) {
  StagedFile staged{assets_ / makeUUID(), {folder, name}};
  linkOrCopy(assetPath(assetIdentifier), staged.path);
  const auto facts = files_.attributes(staged.path);
  if (!facts) throw PosixError(ENOENT, "stage " + staged.path.native());
  staged.link.device = facts->device;
  staged.link.inode = facts->inode;
  return staged;
}

void PhotoFiles::place(const StagedFile& staged) {
  const Path folder = root_ / staged.link.folder;
  files_.createDirectory(folder);
  files_.moveItem(staged.path, folder / staged.link.name);
  files_.synchronizeDirectory(folder);
}

std::optional<IntendedLink> PhotoFiles::linkOf(const std::string& assetIdentifier, const std::string& folder,
                                               const std::string& name) {
  const Path path = pathInAlbum(folder, name);
  const auto facts = files_.attributes(path);
  const auto own = files_.attributes(assetPath(assetIdentifier));
  if (!facts || !own || facts->isDirectory) return std::nullopt;
  // Where the file system makes no second names, it is a copy.
  const bool isOurs =
      sameFile(*facts, *own) || (facts->size == own->size && haveSameBytes(path, assetPath(assetIdentifier)));
  if (!isOurs) return std::nullopt;
  return IntendedLink{folder, name, facts->device, facts->inode};
}

bool PhotoFiles::haveSameBytes(const Path& one, const Path& other) {
  constexpr size_t pieceSize = 1 << 20;
  const auto first = files_.open(one, OpenMode::reading);
  const auto second = files_.open(other, OpenMode::reading);
  for (;;) {
    const Bytes piece = first->read(pieceSize);
    if (piece != second->read(pieceSize)) return false;
    if (piece.empty()) return true;
  }
}

void PhotoFiles::removeAbandoned(const IntendedLink& link) {
  const Path path = pathInAlbum(link.folder, link.name);
  const auto facts = files_.attributes(path);
  if (!facts || facts->device != link.device || facts->inode != link.inode) return;
  files_.removeItem(path);
  files_.synchronizeDirectory(root_ / link.folder);
}

void PhotoFiles::removeAssetsExcept(const std::set<std::string>& identifiers) {
  for (const std::string& name : files_.contentsOfDirectory(assets_)) {
    if (!identifiers.contains(name)) files_.removeItem(assets_ / name);
  }
}

void PhotoFiles::linkOrCopy(const Path& from, const Path& to) {
  try {
    files_.linkItem(from, to);
  } catch (const PosixError& error) {
    if (!refusesLinks(error)) throw;
    files_.copyItem(from, to);
  }
}

}  // namespace tarn
