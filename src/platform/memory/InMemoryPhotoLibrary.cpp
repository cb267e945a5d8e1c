#include "platform/memory/InMemoryPhotoLibrary.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "platform/SafeName.h"

namespace tarn {
namespace {

template <typename Range, typename Predicate>
auto* find(Range& range, Predicate predicate) {
  const auto found = std::find_if(range.begin(), range.end(), predicate);
  return found == range.end() ? nullptr : &*found;
}

}  // namespace

/// A change at work on a copy of the content, which replaces the content when all has gone well.
class InMemoryPhotoLibrary::Change : public PHChangeBlock {
 public:
  Change(FileManager& files, Content content) : files_(files), content_(std::move(content)) {}

  PHAssetChangeRequest* creationRequestForAssetFromVideo(const Path& fileURL) override {
    const auto facts = files_.attributes(fileURL);
    if (!facts || facts->isDirectory) return nullptr;
    if (const auto* known = find(content_.assets, [&](const Asset& asset) { return isSource(*facts, asset); })) {
      return add(known->asset.localIdentifier, false);
    }
    PHAsset asset{.localIdentifier = makeUUID(),
                  .filename = safeName(fileURL.filename().native(), NameKind::file),
                  .creationDate = dateFromNanoseconds(facts->modificationTime),
                  .size = facts->size,
                  .path = {}};
    content_.assets.push_back({asset, *facts});
    return add(asset.localIdentifier, true);
  }

  std::optional<PHObjectPlaceholder> creationRequestForAssetCollection(const std::string& title) override {
    content_.albums.push_back({{makeUUID(), title}, {}});
    return PHObjectPlaceholder{content_.albums.back().collection.localIdentifier};
  }

  bool addAssets(const std::string& collectionIdentifier, const std::vector<PHObjectPlaceholder>& assets) override {
    auto* const album = find(content_.albums, [&](const Album& candidate) {
      return candidate.collection.localIdentifier == collectionIdentifier;
    });
    if (!album) return false;
    for (const PHObjectPlaceholder& placeholder : assets) {
      const std::string& identifier = placeholder.localIdentifier;
      if (assetOf(identifier).isDeleted) {
        throw PHPhotosError(PHPhotosError::invalidChange, "Asset " + identifier + " is deleted");
      }
      if (!album->holds(identifier)) album->assets.push_back(identifier);
    }
    return true;
  }

  bool removeAssets(const std::string& collectionIdentifier, const std::vector<PHObjectPlaceholder>& assets) override {
    auto* const album = find(content_.albums, [&](const Album& candidate) {
      return candidate.collection.localIdentifier == collectionIdentifier;
    });
    if (!album) return false;
    for (const PHObjectPlaceholder& placeholder : assets) std::erase(album->assets, placeholder.localIdentifier);
    return true;
  }

  PHAssetChangeRequest* changeRequestForAsset(const std::string& localIdentifier) override {
    const Asset* const asset = findAsset(localIdentifier);
    return asset && !asset->isDeleted ? add(localIdentifier, true) : nullptr;
  }

  void deleteAssets(const std::vector<PHObjectPlaceholder>& assets) override {
    for (const PHObjectPlaceholder& asset : assets) assetOf(asset.localIdentifier).isDeleted = true;
  }
  void recoverAssets(const std::vector<PHObjectPlaceholder>& assets) override {
    for (const PHObjectPlaceholder& asset : assets) assetOf(asset.localIdentifier).isDeleted = false;
  }
  void expungeAssets(const std::vector<PHObjectPlaceholder>& assets) override {
    for (const PHObjectPlaceholder& asset : assets) {
      assetOf(asset.localIdentifier);
      for (Album& album : content_.albums) std::erase(album.assets, asset.localIdentifier);
      std::erase_if(content_.assets,
                    [&](const Asset& each) { return each.asset.localIdentifier == asset.localIdentifier; });
    }
  }

  Content takeContent() { return std::move(content_); }

 private:
  class Request : public PHAssetChangeRequest {
   public:
    Request(Change& change, std::string identifier, bool mayChange)
        : change_(change), identifier_(std::move(identifier)), mayChange_(mayChange) {}

    void setCreationDate(Date date) override {
      if (mayChange_) change_.findAsset(identifier_)->asset.creationDate = date;
    }
    void setFilename(const std::string& filename) override {
      if (mayChange_) change_.findAsset(identifier_)->asset.filename = safeName(filename, NameKind::file);
    }
    std::optional<PHObjectPlaceholder> placeholderForCreatedAsset() override {
      return PHObjectPlaceholder{identifier_};
    }

   private:
    Change& change_;
    const std::string identifier_;
    const bool mayChange_;
  };

  static bool isSource(const FileAttributes& facts, const Asset& asset) {
    return !asset.isDeleted && facts.device == asset.source.device && facts.inode == asset.source.inode &&
           facts.size == asset.source.size && facts.changeTime == asset.source.changeTime;
  }

  Asset* findAsset(const std::string& identifier) {
    return find(content_.assets, [&](const Asset& asset) { return asset.asset.localIdentifier == identifier; });
  }

  Asset& assetOf(const std::string& identifier) {
    Asset* const asset = findAsset(identifier);
    if (!asset) throw PHPhotosError(PHPhotosError::invalidChange, "No asset " + identifier);
    return *asset;
  }

  PHAssetChangeRequest* add(std::string identifier, bool mayChange) {
    return requests_.emplace_back(std::make_unique<Request>(*this, std::move(identifier), mayChange)).get();
  }

  FileManager& files_;
  Content content_;
  std::vector<std::unique_ptr<Request>> requests_;
};

PHAuthorizationStatus InMemoryPhotoLibrary::authorizationStatus(PHAccessLevel) {
  return authorization_.status();
}

void InMemoryPhotoLibrary::requestAuthorization(PHAccessLevel, AuthorizationHandler handler) {
  authorization_.request(dispatch_, std::move(handler));
}

void InMemoryPhotoLibrary::performChangesAndWait(const std::function<void(PHChangeBlock&)>& block) {
  authorization_.require();
  std::lock_guard guard(mutex_);
  Change change(files_, content_);
  block(change);
  content_ = change.takeContent();
}

std::vector<PHAssetCollection> InMemoryPhotoLibrary::fetchAssetCollections(const std::optional<std::string>& title) {
  std::lock_guard guard(mutex_);
  std::vector<PHAssetCollection> collections;
  for (const Album& album : content_.albums) {
    if (!title || album.collection.title == *title) collections.push_back(album.collection);
  }
  return collections;
}

std::optional<PHAssetCollection> InMemoryPhotoLibrary::fetchAssetCollection(const std::string& localIdentifier) {
  std::lock_guard guard(mutex_);
  const auto* album = find(
      content_.albums, [&](const Album& candidate) { return candidate.collection.localIdentifier == localIdentifier; });
  if (!album) return std::nullopt;
  return album->collection;
}

std::vector<PHAsset> InMemoryPhotoLibrary::fetchAssets(const PHAssetCollection& collection,
                                                       const std::optional<std::string>& localIdentifier) {
  std::lock_guard guard(mutex_);
  const auto* album = find(content_.albums, [&](const Album& candidate) {
    return candidate.collection.localIdentifier == collection.localIdentifier;
  });
  return album ? assetsUnlocked(*album, localIdentifier) : std::vector<PHAsset>();
}

std::vector<PHAsset> InMemoryPhotoLibrary::assetsUnlocked(const Album& album,
                                                          const std::optional<std::string>& localIdentifier) const {
  std::vector<PHAsset> assets;
  for (const std::string& identifier : album.assets) {
    if (localIdentifier && identifier != *localIdentifier) continue;
    const auto* asset =
        find(content_.assets, [&](const Asset& each) { return each.asset.localIdentifier == identifier; });
    if (!asset->isDeleted) assets.push_back(placed(*asset, &album));
  }
  return assets;
}

std::vector<std::pair<PHAssetCollection, std::vector<PHAsset>>> InMemoryPhotoLibrary::fetchContents(
    const std::optional<std::string>& title) {
  std::lock_guard guard(mutex_);
  std::vector<std::pair<PHAssetCollection, std::vector<PHAsset>>> contents;
  for (const Album& album : content_.albums) {
    if (!title || album.collection.title == *title) {
      contents.emplace_back(album.collection, assetsUnlocked(album, std::nullopt));
    }
  }
  return contents;
}

std::vector<PHAssetCollection> InMemoryPhotoLibrary::fetchAssetCollectionsContaining(
    const std::string& assetIdentifier) {
  std::lock_guard guard(mutex_);
  std::vector<PHAssetCollection> collections;
  const auto* asset =
      find(content_.assets, [&](const Asset& each) { return each.asset.localIdentifier == assetIdentifier; });
  if (!asset || asset->isDeleted) return collections;
  for (const Album& album : content_.albums) {
    if (album.holds(assetIdentifier)) collections.push_back(album.collection);
  }
  return collections;
}

std::optional<PHAsset> InMemoryPhotoLibrary::fetchAsset(const std::string& localIdentifier) {
  auto assets = fetchAllAssets();
  const auto found = std::ranges::find(assets, localIdentifier, &PHAsset::localIdentifier);
  return found == assets.end() ? std::nullopt : std::optional(std::move(*found));
}

std::vector<PHAsset> InMemoryPhotoLibrary::fetchAllAssets() {
  std::lock_guard guard(mutex_);
  std::vector<PHAsset> assets;
  for (const Asset& asset : content_.assets) {
    if (asset.isDeleted) continue;
    assets.push_back(placed(
        asset, find(content_.albums, [&](const Album& each) { return each.holds(asset.asset.localIdentifier); })));
  }
  return assets;
}

std::vector<PHAsset> InMemoryPhotoLibrary::fetchDeletedAssets() {
  std::lock_guard guard(mutex_);
  std::vector<PHAsset> assets;
  for (const Asset& asset : content_.assets) {
    if (asset.isDeleted) assets.push_back(placed(asset, nullptr));
  }
  return assets;
}

bool InMemoryPhotoLibrary::Album::holds(const std::string& asset) const {
  return std::count(assets.begin(), assets.end(), asset) > 0;
}

PHAsset InMemoryPhotoLibrary::placed(const Asset& asset, const Album* album) const {
  PHAsset answer = asset.asset;
  answer.path = album ? Path(album->collection.title) / answer.filename : Path(answer.filename);
  return answer;
}

}  // namespace tarn
