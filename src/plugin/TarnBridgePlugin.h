#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "download/DownloadManager.h"
#include "platform/Capacitor.h"
#include "platform/PHPhotoLibrary.h"
#include "platform/Platform.h"
#include "platform/UIApplication.h"
#include "plugin/detail/ProgressWatcher.h"

namespace tarn {

/// The plug-in: the only thing that a page touches. Its commands check their parameters and call the engine; its events
/// tell of progress and endings. Made with create(), then load() once. Thread-safe: commands come on any thread, the
/// engine's calls and the application's on the main queue, samples of progress on the global background queue.
class TarnBridge : public CAPPlugin,
                   public DownloadManagerDelegate,
                   public UIApplicationObserver,
                   public std::enable_shared_from_this<TarnBridge> {
 public:
  /// The platform, the steps and the listener, if there is one, must outlive the plug-in.
  static std::shared_ptr<TarnBridge> create(const Platform& platform, const ProcessingSteps& steps,
                                            DownloadListener* listener = nullptr);
  ~TarnBridge() override;

  const std::string& identifier() const override;
  const std::string& jsName() const override;
  const std::vector<CAPPluginMethod>& pluginMethods() const override;

  /// Hears the application's life from now on, posts the periodic cleanup and resumes the oldest checkpoint. Throws
  /// PosixError when the stored downloads cannot be read.
  void load() override;

  /// The engine, made at the first use. Throws PosixError like load().
  DownloadManager& downloadManager();

  Path getDocumentsDirectory();

  /// What a call of saveVideo asks for; nothing if it lacks something, and was rejected for that.
  static std::optional<DownloadRequest> requestOf(const CAPPluginCallPointer& call);

  /// Has a file of this machine repaired and saved as if it had been downloaded, for the host; it is moved away. Null
  /// when new downloads are blocked.
  DownloadTaskPointer takeIn(const Path& file, const DownloadRequest& request);

  /// Begins a download as saveVideo does, and answers the call like it. It gets `id`, if that is free and above 0.
  void save(const DownloadRequest& request, std::optional<int64_t> id, const CAPPluginCallPointer& call);

  void appDidEnterBackground() override;
  void appWillEnterForeground() override;
  void appWillTerminate() override;

  void downloadDidFinish(const DownloadTaskPointer& download, const Path& location) override;
  void downloadDidFailed(const DownloadTaskPointer& download) override;
  void processingProgressUpdated(int64_t id, double progress, const std::string& stage) override;

 protected:
  Handler handler(const std::string& method) override;

 private:
  TarnBridge(const Platform& platform, const ProcessingSteps& steps, DownloadListener* listener);

  void getActiveDownloads(const CAPPluginCallPointer& call);
  void saveVideo(const CAPPluginCallPointer& call);
  void cancel(const CAPPluginCallPointer& call);
  void cancelAllDownloads(const CAPPluginCallPointer& call);
  void clearAllStates(const CAPPluginCallPointer& call);
  void setDownloadLimit(const CAPPluginCallPointer& call);
  void getDownloadLimit(const CAPPluginCallPointer& call);

  void checkAuthorization(const std::function<void()>& allowed, const std::function<void()>& notAllowed);
  void startSaving(const DownloadRequest& request, std::optional<int64_t> id, const CAPPluginCallPointer& call);
  void handleDownloadComplete(const DownloadTaskPointer& download);
  void checkAndUpdateDownloadStates();
  bool sendProgress();

  Platform platform_;
  ProcessingSteps steps_;
  DownloadListener* const listener_;
  std::mutex downloadManagerMutex_;  ///< held while the engine is made, before all of its locks
  std::shared_ptr<DownloadManager> downloadManager_;
  std::unique_ptr<ProgressWatcher> watcher_;
};

}  // namespace tarn
