#include "platform/host/PhotoChange.h"

#include <algorithm>
#include <utility>

#include "platform/PhotoAuthorization.h"
#include "platform/SafeName.h"

namespace tarn {

class PhotoChange::AssetRequest : public PHAssetChangeRequest {
 public:
  enum class Kind {
    made,     ///< for a new asset
    known,    ///< stands for an asset that was made before, which stays as it is
    changed,  ///< for an asset that was made before
  };

  AssetRequest(AssetRecord asset, Kind kind, Path source = {})
      : asset_(std::move(asset)), kind_(kind), source_(std::move(source)) {}

  void setCreationDate(Date date) override {
    if (kind_ != Kind::known) asset_.creationDate = date;
  }

  void setFilename(const std::string& filename) override {
    if (kind_ != Kind::known) asset_.filename = safeName(filename, NameKind::file);
  }

  std::optional<PHObjectPlaceholder> placeholderForCreatedAsset() override {
    return PHObjectPlaceholder{asset_.identifier};
  }

  AssetRecord& asset() { return asset_; }
  Kind kind() const { return kind_; }
  const Path& source() const { return source_; }

 private:
  AssetRecord asset_;
  const Kind kind_;
  const Path source_;
};

PhotoChange::PhotoChange(FileManager& fileManager, PhotoFiles& files, PhotoCatalogue& catalogue,
                         const MediaCheck& mediaCheck)
    : fileManager_(fileManager), files_(files), catalogue_(catalogue), mediaCheck_(mediaCheck) {}

PhotoChange::~PhotoChange() = default;

PHAssetChangeRequest* PhotoChange::creationRequestForAssetFromVideo(const Path& fileURL) {
  const auto facts = fileManager_.attributes(fileURL);
  if (!facts || facts->isDirectory) return nullptr;
  for (const auto& request : requests_) {
    if (request->kind() != AssetRequest::Kind::changed && request->asset().source == *facts) return request.get();
  }
  for (AssetRecord& asset : catalogue_.assetsFromInode(facts->inode)) {
    if (!files_.isSourceOf(*facts, asset)) continue;
    return requests_.emplace_back(std::make_unique<AssetRequest>(std::move(asset), AssetRequest::Kind::known)).get();
  }
  AssetRecord asset{.identifier = makeUUID(),
                    .filename = safeName(fileURL.filename().native(), NameKind::file),
                    .creationDate = dateFromNanoseconds(facts->modificationTime),
                    .size = facts->size,
                    .source = *facts};
  return requests_.emplace_back(std::make_unique<AssetRequest>(std::move(asset), AssetRequest::Kind::made, fileURL))
      .get();
}

std::optional<PHObjectPlaceholder> PhotoChange::creationRequestForAssetCollection(const std::string& title) {
  std::set<std::string> taken = catalogue_.folders();
  taken.merge(files_.namesNoFolderCanHave());
  for (const AlbumRecord& album : change_.newAlbums) taken.insert(album.folder);
  const std::string folder = uniqueName(safeName(title, NameKind::directory), NameKind::directory, taken);
  change_.newAlbums.push_back({makeUUID(), title, folder});
  return PHObjectPlaceholder{change_.newAlbums.back().identifier};
}

bool PhotoChange::addAssets(const std::string& collectionIdentifier, const std::vector<PHObjectPlaceholder>& assets) {
  const auto album = findAlbum(collectionIdentifier);
  if (!album) return false;
  for (const PHObjectPlaceholder& placeholder : assets) {
    const Place place{album->identifier, assetOf(placeholder).identifier};
    if (catalogue_.isDeleted(place.asset)) {
      throw PHPhotosError(PHPhotosError::invalidChange, "Asset " + place.asset + " is deleted");
    }
    const bool isIn = entryAt(place) && std::ranges::count(removals_, place) == 0;
    if (!isIn && std::ranges::count(additions_, place) == 0) additions_.push_back(place);
  }
  return true;
}

bool PhotoChange::removeAssets(const std::string& collectionIdentifier,
                               const std::vector<PHObjectPlaceholder>& assets) {
  const auto album = findAlbum(collectionIdentifier);
  if (!album) return false;
  for (const PHObjectPlaceholder& placeholder : assets) {
    const Place place{album->identifier, placeholder.localIdentifier};
    std::erase(additions_, place);
    if (std::ranges::count(removals_, place) == 0) removals_.push_back(place);
  }
  return true;
}

PHAssetChangeRequest* PhotoChange::changeRequestForAsset(const std::string& localIdentifier) {
  auto asset = catalogue_.asset(localIdentifier);
  if (!asset || catalogue_.isDeleted(localIdentifier)) return nullptr;
  return requests_.emplace_back(std::make_unique<AssetRequest>(std::move(*asset), AssetRequest::Kind::changed)).get();
}

void PhotoChange::deleteAssets(const std::vector<PHObjectPlaceholder>& assets) {
  for (const PHObjectPlaceholder& asset : assets) {
    const std::string identifier = assetOf(asset).identifier;
    if (!catalogue_.isDeleted(identifier)) change_.deletedAssets.insert(identifier);
  }
}

void PhotoChange::recoverAssets(const std::vector<PHObjectPlaceholder>& assets) {
  for (const PHObjectPlaceholder& asset : assets) {
    const std::string identifier = assetOf(asset).identifier;
    const bool isNew = std::ranges::count(change_.recoveredAssets, identifier) == 0;
    if (isNew && catalogue_.isDeleted(identifier)) change_.recoveredAssets.push_back(identifier);
  }
}

void PhotoChange::expungeAssets(const std::vector<PHObjectPlaceholder>& assets) {
  for (const PHObjectPlaceholder& asset : assets) change_.expungedAssets.insert(assetOf(asset).identifier);
}

bool PhotoChange::apply(Date now) {
  takeNewAssets();
  makeEntries();
  placeEntries();
  change_.deletionDate = now;
  catalogue_.commit(change_);
  return !change_.goneLinks.empty() || !change_.expungedAssets.empty();
}

void PhotoChange::takeNewAssets() {
  const auto isNew = [](const auto& request) { return request->kind() == AssetRequest::Kind::made; };
  for (const auto& request : requests_) {
    if (!isNew(request) || !mediaCheck_) continue;
    const auto refusal = mediaCheck_(request->source(), request->asset().filename);
    if (refusal) throw PHPhotosError(PHPhotosError::invalidResource, *refusal);
  }
  for (const auto& request : requests_) {
    if (!isNew(request)) continue;
    request->asset().size = files_.takeAsset(request->source(), request->asset().identifier);
    change_.newAssets.push_back(request->asset());
  }
}

std::optional<AlbumRecord> PhotoChange::findAlbum(const std::string& identifier) {
  for (const AlbumRecord& album : change_.newAlbums) {
    if (album.identifier == identifier) return album;
  }
  return catalogue_.album(identifier);
}

std::optional<AssetRecord> PhotoChange::findAsset(const std::string& identifier) {
  for (const auto& request : requests_) {
    if (request->kind() != AssetRequest::Kind::known && request->asset().identifier == identifier) {
      return request->asset();
    }
  }
  return catalogue_.asset(identifier);
}

AssetRecord PhotoChange::assetOf(const PHObjectPlaceholder& placeholder) {
  const auto asset = findAsset(placeholder.localIdentifier);
  if (!asset) throw PHPhotosError(PHPhotosError::invalidChange, "No asset " + placeholder.localIdentifier);
  return *asset;
}

std::optional<EntryRecord> PhotoChange::entryAt(const Place& place) {
  const auto entries = catalogue_.entries(place.asset);
  const auto entry = std::ranges::find(entries, place.album, &EntryRecord::album);
  return entry == entries.end() ? std::nullopt : std::optional(*entry);
}

// Names are asked for now, since the block may have set one after it added the asset.
void PhotoChange::makeEntries() {
  for (const Place& place : removals_) {
    const bool isAddedAgain = std::ranges::count(additions_, place) > 0;
    if (const auto entry = isAddedAgain ? std::nullopt : entryAt(place)) addGone(*entry);
  }
  for (const auto* leaving : {&change_.deletedAssets, &change_.expungedAssets}) {
    for (const std::string& asset : *leaving) {
      for (const EntryRecord& entry : catalogue_.entries(asset)) addGone(entry);
    }
  }
  for (const auto& request : requests_) {
    if (request->kind() == AssetRequest::Kind::changed) renameEntries(request->asset());
  }
  for (const std::string& asset : change_.recoveredAssets) {
    for (const EntryRecord& entry : catalogue_.deletedEntries(asset)) addNew(entry.name, entry);
  }
  for (const Place& place : additions_) {
    const std::string name = findAsset(place.asset).value().filename;
    const auto entry = entryAt(place);
    entry ? addAgain(name, *entry) : addNew(name, {place.album, place.asset, {}});
  }
}

/// Puts an entry that is in its album after the others there. Its file stays, unless the asset has another name now.
void PhotoChange::addAgain(const std::string& wanted, const EntryRecord& entry) {
  const EntryRecord last{.album = entry.album, .asset = entry.asset, .name = entry.name};
  if (!keepsItsName(entry, wanted)) {
    addGone(entry);
    return addNew(wanted, last);
  }
  change_.goneEntries.push_back(entry);
  change_.newEntries.push_back(last);
}

/// Whether an entry would get the name that it has.
bool PhotoChange::keepsItsName(const EntryRecord& entry, const std::string& wanted) {
  std::set<std::string> taken = namesTaken(entry.album);
  taken.erase(entry.name);
  return uniqueName(wanted, NameKind::file, taken) == entry.name;
}

/// Gives an asset its new name in all albums in which it stays.
void PhotoChange::renameEntries(const AssetRecord& asset) {
  change_.changedAssets.push_back(asset);
  const auto before = catalogue_.asset(asset.identifier);
  if (before && before->filename == asset.filename) return;
  for (const EntryRecord& entry : catalogue_.entries(asset.identifier)) {
    const bool isGone = std::ranges::any_of(change_.goneEntries, [&](const EntryRecord& gone) {
      return gone.album == entry.album && gone.asset == entry.asset;
    });
    const bool isAddedAgain = std::ranges::count(additions_, Place{entry.album, entry.asset}) > 0;
    if (isGone || isAddedAgain || keepsItsName(entry, asset.filename)) continue;
    addGone(entry);
    addNew(asset.filename, entry);
  }
}

void PhotoChange::addGone(const EntryRecord& entry) {
  change_.goneEntries.push_back(entry);
  const auto link = files_.linkOf(entry.asset, findAlbum(entry.album).value().folder, entry.name);
  if (link) change_.goneLinks.push_back(*link);
}

/// Adds an entry under the name that is wanted, or one like it.
void PhotoChange::addNew(const std::string& wanted, EntryRecord entry) {
  std::set<std::string>& taken = namesTaken(entry.album);
  entry.name = uniqueName(wanted, NameKind::file, taken);
  taken.insert(entry.name);
  entriesToPlace_.push_back(entry);
  change_.newEntries.push_back(std::move(entry));
}

/// The names that no new entry of an album can have, those of its gone entries too: their files are still there.
std::set<std::string>& PhotoChange::namesTaken(const std::string& album) {
  const auto [names, isNew] = namesTaken_.try_emplace(album);
  if (isNew) {
    names->second = catalogue_.entryNames(album);
    names->second.merge(files_.namesInFolder(findAlbum(album).value().folder));
  }
  return names->second;
}

void PhotoChange::placeEntries() {
  if (entriesToPlace_.empty()) return;
  std::vector<PhotoFiles::StagedFile> staged;
  std::vector<IntendedLink> links;
  for (const EntryRecord& entry : entriesToPlace_) {
    staged.push_back(files_.stage(entry.asset, findAlbum(entry.album).value().folder, entry.name));
    links.push_back(staged.back().link);
  }
  catalogue_.intend(links);
  for (const auto& file : staged) files_.place(file);
}

}  // namespace tarn
