#pragma once

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/NSURLSession.h"
#include "platform/PhotoAuthorization.h"

namespace tarn::test {

/// Counts the calls of several services together and picks the one that fails, or it and all later ones. To sweep over
/// a piece of work: arm with call 1, 2, 3, ... until fired() stays false. For one thread.
class FaultyCalls {
 public:
  void arm(uint64_t call, bool isLasting) {
    failing_ = call;
    isLasting_ = isLasting;
    calls_ = 0;
  }
  void disarm() { failing_.reset(); }
  /// True when the fault that was armed last has happened.
  bool fired() const { return failing_ && calls_ >= *failing_; }

  /// Counts a call; true when it is to fail.
  bool nextFails() {
    ++calls_;
    return fired() && (isLasting_ || calls_ == *failing_);
  }
  /// The same for a call that fails with an exception.
  void throwIfNextFails() {
    if (nextFails()) throw PosixError(EIO, "fault of a test");
  }

 private:
  std::optional<uint64_t> failing_;
  bool isLasting_ = false;
  uint64_t calls_ = 0;
};

/// A photo library whose every call may fail, in each way in which it may: an exception, a refusal, nothing found.
class FaultyPhotoLibrary : public PHPhotoLibrary {
 public:
  FaultyPhotoLibrary(PHPhotoLibrary& base, FaultyCalls& calls) : base_(base), calls_(calls) {}

  PHAuthorizationStatus authorizationStatus(PHAccessLevel level) override {
    return calls_.nextFails() ? PHAuthorizationStatus::denied : base_.authorizationStatus(level);
  }
  void requestAuthorization(PHAccessLevel level, AuthorizationHandler handler) override {
    base_.requestAuthorization(level, [this, handler](PHAuthorizationStatus answer) {
      handler(calls_.nextFails() ? PHAuthorizationStatus::denied : answer);
    });
  }
  void performChangesAndWait(const std::function<void(PHChangeBlock&)>& block) override {
    calls_.throwIfNextFails();
    base_.performChangesAndWait([&](PHChangeBlock& base) {
      Change change(base, calls_);
      block(change);
      calls_.throwIfNextFails();  // in the place of the commit
    });
  }
  std::vector<PHAssetCollection> fetchAssetCollections(const std::optional<std::string>& title) override {
    calls_.throwIfNextFails();
    return base_.fetchAssetCollections(title);
  }
  std::optional<PHAssetCollection> fetchAssetCollection(const std::string& localIdentifier) override {
    calls_.throwIfNextFails();
    return calls_.nextFails() ? std::nullopt : base_.fetchAssetCollection(localIdentifier);
  }
  std::vector<PHAsset> fetchAssets(const PHAssetCollection& collection,
                                   const std::optional<std::string>& localIdentifier) override {
    calls_.throwIfNextFails();
    return base_.fetchAssets(collection, localIdentifier);
  }
  std::vector<PHAsset> fetchAllAssets() override {
    calls_.throwIfNextFails();
    return base_.fetchAllAssets();
  }
  // The engine asks for none of these.
  std::optional<PHAsset> fetchAsset(const std::string& asset) override { return base_.fetchAsset(asset); }
  std::vector<PHAssetCollection> fetchAssetCollectionsContaining(const std::string& asset) override {
    return base_.fetchAssetCollectionsContaining(asset);
  }
  std::vector<PHAsset> fetchDeletedAssets() override { return base_.fetchDeletedAssets(); }
  std::vector<std::pair<PHAssetCollection, std::vector<PHAsset>>> fetchContents(
      const std::optional<std::string>& title) override {
    return base_.fetchContents(title);
  }

 private:
  /// A request that makes no asset.
  struct IdleRequest : PHAssetChangeRequest {
    void setCreationDate(Date) override {}
    void setFilename(const std::string&) override {}
    std::optional<PHObjectPlaceholder> placeholderForCreatedAsset() override { return std::nullopt; }
  };

  class Change : public PHChangeBlock {
   public:
    Change(PHChangeBlock& base, FaultyCalls& calls) : base_(base), calls_(calls) {}

    PHAssetChangeRequest* creationRequestForAssetFromVideo(const Path& fileURL) override {
      if (calls_.nextFails()) return nullptr;
      return calls_.nextFails() ? &idle_ : base_.creationRequestForAssetFromVideo(fileURL);
    }
    std::optional<PHObjectPlaceholder> creationRequestForAssetCollection(const std::string& title) override {
      return calls_.nextFails() ? std::nullopt : base_.creationRequestForAssetCollection(title);
    }
    bool addAssets(const std::string& collectionIdentifier, const std::vector<PHObjectPlaceholder>& assets) override {
      return !calls_.nextFails() && base_.addAssets(collectionIdentifier, assets);
    }
    bool removeAssets(const std::string& collection, const std::vector<PHObjectPlaceholder>& assets) override {
      return base_.removeAssets(collection, assets);
    }
    PHAssetChangeRequest* changeRequestForAsset(const std::string& asset) override {
      return base_.changeRequestForAsset(asset);
    }
    void deleteAssets(const std::vector<PHObjectPlaceholder>& assets) override { base_.deleteAssets(assets); }
    void recoverAssets(const std::vector<PHObjectPlaceholder>& assets) override { base_.recoverAssets(assets); }
    void expungeAssets(const std::vector<PHObjectPlaceholder>& assets) override { base_.expungeAssets(assets); }

   private:
    PHChangeBlock& base_;
    FaultyCalls& calls_;
    IdleRequest idle_;
  };

  PHPhotoLibrary& base_;
  FaultyCalls& calls_;
};

/// Another service's transfers, and a look at each that is made.
class ForwardingURLSessionService : public NSURLSessionService {
 public:
  explicit ForwardingURLSessionService(NSURLSessionService& base) : base_(base) {}

  std::unique_ptr<NSURLSession> makeBackgroundSession(const std::string& identifier,
                                                      std::weak_ptr<NSURLSessionDownloadDelegate> delegate) override {
    return std::make_unique<Session>(base_.makeBackgroundSession(identifier, std::move(delegate)), *this);
  }
  std::vector<std::string> storedTaskDescriptions() override { return base_.storedTaskDescriptions(); }

 private:
  virtual void transferIsToBeMade() {}
  virtual void transferIsMade() {}

  class Session : public NSURLSession {
   public:
    Session(std::unique_ptr<NSURLSession> base, ForwardingURLSessionService& service)
        : base_(std::move(base)), service_(service) {}

    std::shared_ptr<NSURLSessionDownloadTask> downloadTask(const std::string& url, const std::string& taskDescription,
                                                           const TransferOptions& options) override {
      service_.transferIsToBeMade();
      auto task = base_->downloadTask(url, taskDescription, options);
      service_.transferIsMade();
      return task;
    }
    std::vector<std::shared_ptr<NSURLSessionDownloadTask>> allTasks() override { return base_->allTasks(); }

   private:
    const std::unique_ptr<NSURLSession> base_;
    ForwardingURLSessionService& service_;
  };

  NSURLSessionService& base_;
};

/// Transfers whose every call that may fail does. What becomes of a transfer on its way is up to who fires its events.
class FaultyURLSessionService : public ForwardingURLSessionService {
 public:
  FaultyURLSessionService(NSURLSessionService& base, FaultyCalls& calls)
      : ForwardingURLSessionService(base), calls_(calls) {}

  std::unique_ptr<NSURLSession> makeBackgroundSession(const std::string& identifier,
                                                      std::weak_ptr<NSURLSessionDownloadDelegate> delegate) override {
    calls_.throwIfNextFails();
    return ForwardingURLSessionService::makeBackgroundSession(identifier, std::move(delegate));
  }
  std::vector<std::string> storedTaskDescriptions() override {
    calls_.throwIfNextFails();
    return ForwardingURLSessionService::storedTaskDescriptions();
  }

 private:
  void transferIsToBeMade() override { calls_.throwIfNextFails(); }
  void transferIsMade() override { calls_.throwIfNextFails(); }  // the flush of its record failed, and the record stays

  FaultyCalls& calls_;
};

}  // namespace tarn::test
