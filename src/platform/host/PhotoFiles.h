#pragma once

#include <set>
#include <string>

#include "platform/FileManager.h"
#include "platform/host/PhotoCatalogue.h"

namespace tarn {

/// The files of the photo library, all on one file system:
///
///     <root>/.assets/<identifier>      each asset's file; whatever has no row there is a leftover
///     <root>/<folder>/<name>           a second name of it for each album; the user's own files may be there too
///
/// Not thread-safe.
class PhotoFiles {
 public:
  PhotoFiles(FileManager& files, Path root);

  void makeDirectories();

  Path assetPath(const std::string& identifier) const { return assets_ / identifier; }
  Path pathInAlbum(const std::string& folder, const std::string& name) const { return root_ / folder / name; }

  /// Where people find an asset: in the folder of an album, or its own file if it is in none, or if somebody has taken
  /// it out of the folder.
  Path placeOf(const PlacedAsset& placed);

  /// Names that an album's folder cannot have: those of other things than directories.
  std::set<std::string> namesNoFolderCanHave();

  /// Names in an album's folder, which need not exist.
  std::set<std::string> namesInFolder(const std::string& folder);

  /// Whether `source` is the file that the asset was made from. An asset that is a second name of its source is known
  /// by that, whatever has become of the source's change time, which linking moves; a copied one by all that was
  /// recorded. An asset whose file is gone was made from nothing.
  bool isSourceOf(const FileAttributes& source, const AssetRecord& asset);

  /// Makes the asset's file: a second name of `source` where the file system allows, else a copy. File and name are on
  /// stable storage when this returns. Returns the file's size in bytes.
  uint64_t takeAsset(const Path& source, const std::string& identifier);

  /// Prepares a file for an album in .assets, under a name of its own, so that what will get a name in the album's
  /// folder is known beforehand.
  struct StagedFile {
    Path path;
    IntendedLink link;
  };
  StagedFile stage(const std::string& assetIdentifier, const std::string& folder, const std::string& name);

  /// Gives the file its name in the album's folder, durably.
  void place(const StagedFile& staged);

  /// What stands for an asset in an album's folder. Nothing if nothing does, or a file that somebody else has put
  /// there: one of other bytes.
  std::optional<IntendedLink> linkOf(const std::string& assetIdentifier, const std::string& folder,
                                     const std::string& name);

  /// Removes from an album's folder what a change put there that was not finished, or left there. A file under that
  /// name that is not the one written down is the user's, and stays.
  void removeAbandoned(const IntendedLink& link);

  /// Removes from .assets all that none of the identifiers names.
  void removeAssetsExcept(const std::set<std::string>& identifiers);

 private:
  bool haveSameBytes(const Path& one, const Path& other);
  void linkOrCopy(const Path& from, const Path& to);

  FileManager& files_;
  const Path root_;
  const Path assets_;
};

}  // namespace tarn
