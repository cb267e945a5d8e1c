#include "platform/host/PhotoChange.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "platform/PhotoAuthorization.h"
#include "platform/SafeName.h"

namespace tarn {
class PhotoChange::AssetRequest : public PHAssetChangeRequest {
 public:
  /// Without a source the request stands for an asset that exists already, which stays as it is.
  AssetRequest(AssetRecord asset, std::optional<Path> source) : asset_(std::move(asset)), source_(std::move(source)) {}

  void setCreationDate(Date date) override {
    if (source_) asset_.creationDate = date;
  }

  void setFilename(const std::string& filename) override {
    if (source_) asset_.filename = safeName(filename, NameKind::file);
  }

  std::optional<PHObjectPlaceholder> placeholderForCreatedAsset() override {
    return PHObjectPlaceholder{asset_.identifier};
  }

  AssetRecord& asset() { return asset_; }
  const std::optional<Path>& source() const { return source_; }

 private:
  AssetRecord asset_;
  const std::optional<Path> source_;
};

PhotoChange::PhotoChange(FileManager& fileManager, PhotoFiles& files, PhotoCatalogue& catalogue,
                         const MediaCheck& mediaCheck)
    : fileManager_(fileManager), files_(files), catalogue_(catalogue), mediaCheck_(mediaCheck) {}

PhotoChange::~PhotoChange() = default;

PHAssetChangeRequest* PhotoChange::creationRequestForAssetFromVideo(const Path& fileURL) {
  const auto facts = fileManager_.attributes(fileURL);
  if (!facts || facts->isDirectory) return nullptr;
  for (const auto& request : requests_) {
    if (request->asset().source == *facts) return request.get();
  }
  for (AssetRecord& asset : catalogue_.assetsFromInode(facts->inode)) {
    if (!files_.isSourceOf(*facts, asset)) continue;
    return requests_.emplace_back(std::make_unique<AssetRequest>(std::move(asset), std::nullopt)).get();
  }
  AssetRecord asset{.identifier = makeUUID(),
                    .filename = safeName(fileURL.filename().native(), NameKind::file),
                    .creationDate = dateFromNanoseconds(facts->modificationTime),
                    .size = facts->size,
                    .source = *facts};
  return requests_.emplace_back(std::make_unique<AssetRequest>(std::move(asset), fileURL)).get();
}

std::optional<PHObjectPlaceholder> PhotoChange::creationRequestForAssetCollection(const std::string& title) {
  std::set<std::string> taken = catalogue_.folders();
  taken.merge(files_.namesNoFolderCanHave());
  for (const AlbumRecord& album : albums_) taken.insert(album.folder);
  const std::string folder = uniqueName(safeName(title, NameKind::directory), NameKind::directory, taken);
  albums_.push_back({makeUUID(), title, folder});
  return PHObjectPlaceholder{albums_.back().identifier};
}

bool PhotoChange::addAssets(const std::string& collectionIdentifier, const std::vector<PHObjectPlaceholder>& assets) {
  const auto album = findAlbum(collectionIdentifier);
  if (!album) return false;
  for (const PHObjectPlaceholder& placeholder : assets) {
    const auto asset = findAsset(placeholder.localIdentifier);
    if (!asset) throw PHPhotosError(PHPhotosError::invalidChange, "No asset " + placeholder.localIdentifier);
    if (isAdded(album->identifier, asset->identifier)) continue;
    if (catalogue_.holdsEntry(album->identifier, asset->identifier)) continue;
    additions_.push_back({album->identifier, asset->identifier});
  }
  return true;
}

void PhotoChange::apply() {
  for (const auto& request : requests_) {
    if (!request->source() || !mediaCheck_) continue;
    const auto refusal = mediaCheck_(*request->source(), request->asset().filename);
    if (refusal) throw PHPhotosError(PHPhotosError::invalidResource, *refusal);
  }
  std::vector<AssetRecord> assets;
  for (const auto& request : requests_) {
    if (!request->source()) continue;
    request->asset().size = files_.takeAsset(*request->source(), request->asset().identifier);
    assets.push_back(request->asset());
  }
  const auto entries = makeEntries();
  placeEntries(entries);
  catalogue_.add(assets, albums_, entries);
}

std::optional<AlbumRecord> PhotoChange::findAlbum(const std::string& identifier) {
  for (const AlbumRecord& album : albums_) {
    if (album.identifier == identifier) return album;
  }
  return catalogue_.album(identifier);
}

std::optional<AssetRecord> PhotoChange::findAsset(const std::string& identifier) {
  for (const auto& request : requests_) {
    if (request->asset().identifier == identifier) return request->asset();
  }
  return catalogue_.asset(identifier);
}

bool PhotoChange::isAdded(const std::string& album, const std::string& asset) const {
  return std::any_of(additions_.begin(), additions_.end(),
                     [&](const Addition& addition) { return addition.album == album && addition.asset == asset; });
}

std::vector<EntryRecord> PhotoChange::makeEntries() {
  std::map<std::string, std::set<std::string>> taken;  // by album
  std::vector<EntryRecord> entries;
  for (const Addition& addition : additions_) {
    auto [names, isNew] = taken.try_emplace(addition.album);
    if (isNew) {
      names->second = catalogue_.entryNames(addition.album);
      names->second.merge(files_.namesInFolder(findAlbum(addition.album).value().folder));
    }
    // Asked for now, since the block may have set the file's name after it added the asset.
    const std::string wanted = findAsset(addition.asset).value().filename;
    const std::string name = uniqueName(wanted, NameKind::file, names->second);
    names->second.insert(name);
    entries.push_back({addition.album, addition.asset, name});
  }
  return entries;
}

void PhotoChange::placeEntries(const std::vector<EntryRecord>& entries) {
  if (entries.empty()) return;
  std::vector<PhotoFiles::StagedFile> staged;
  std::vector<IntendedLink> links;
  for (const EntryRecord& entry : entries) {
    staged.push_back(files_.stage(entry.asset, findAlbum(entry.album).value().folder, entry.name));
    links.push_back(staged.back().link);
  }
  catalogue_.intend(links);
  for (const auto& file : staged) files_.place(file);
}

}  // namespace tarn
