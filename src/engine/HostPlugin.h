#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/HistoryActions.h"
#include "platform/Capacitor.h"
#include "platform/PHPhotoLibrary.h"

namespace tarn {

class Host;

/// What only the host of an engine knows, as methods of a plug-in, for the other commands of a home. Of some a page
/// hears by way of HTTP.
///
/// - saveVideo {id, takesServersName, transfer, ...}: the bridge's, under an id of the caller's choice if that is free.
///   The URL may have blanks. `filename` may stand in for the name that the server gives. `transfer` has the members of
///   TransferOptions.
/// - getOutcome {id}: how a download has ended in this process. Of a failure: `failure` in words, `advice` (a
///   sentence), `isRefused`, `mayTryAgain`, `maySaveAsItCame`. Of a saved video: `assetId`, `isPartly`, `leftAlone`
///   (what was left as it was or is lost, and why). What does not apply is absent.
/// - getAsset {album, assetId}: the `path` of an asset, absent when there is none. Without an album, in any. With
///   {filename, since} in place of its identifier, the newest of this name made since then (whole seconds since 1970).
/// - getStoredWork {}: `runs`, `records` and `transfers`, ids of downloads; `hasTransfers`, `isProcessing`; `problems`
///   in words, and `notices` of what harms no download.
/// - getHistory {limit}: `entries`, as jsonOf() has them, the newest first; `problem`, in words, if
///   there is one; `log`, the path of the log. All entries without a limit.
/// - clearHistory {id}: removes a download that has ended from the history; without an id all of them.
/// - getTransfers {}: `transfers`, of the downloads that wait or download, by their ids: `received` bytes, `expected`
///   of them where the server has told, `paused`, and while another try is due `retry`: its `number`, how many there
///   are at `most`, the `seconds` until it comes, and `why` the last one failed.
/// - changeDownload {id, action}: "pause" stops a transfer and keeps what it has fetched, "resume" lets it go on,
///   "cancel" stops a download and drops what it has fetched; "retry" asks once more for one that failed or was
///   cancelled, "retryAsItCame" without any repair, and answers with the `id` of the new download, which takes the
///   place of the old one in the history.
/// - importLocal {path, filename, album}: has a file of this machine, which is moved away, repaired and put into an
///   album like a download that has arrived; `id` of that.
/// - takeUpStoredRun {}: has the next stored run taken up, if none is active.
/// - getLibrary {album?}: `albums` of {title, assets: [{assetId, filename, size, created, path}]}, without empty ones;
///   `removed`, the assets that can be restored, if no album is given.
/// - changeAsset {assetId, action, filename?, album?}: "remove", "erase", "restore", "rename" to a filename or "move"
///   to an album. Answers with the asset as getLibrary tells it, or with nothing if it is removed.
/// - showAsset {assetId}: opens the folder of an asset on this machine's desktop. Without one the words name the path.
/// - getPage {}: the `address` of the page that this process serves, which lets a browser in; absent if it serves none.
/// - getPoster {assetId}: the `path` of a JPEG of it, absent if none can be made. It may take some seconds.
///
/// The event `changed` {what} follows each change that was asked for here: "downloads", "history" or "library".
class HostPlugin : public CAPPlugin {
 public:
  /// The host must outlive the plug-in.
  explicit HostPlugin(Host& host) : host_(host), actions_(host) {}

  static const std::string& name();

  /// What getPage tells from now on. From any thread.
  void setPage(const std::string& address);

  const std::string& identifier() const override { return name(); }
  const std::string& jsName() const override { return name(); }
  const std::vector<CAPPluginMethod>& pluginMethods() const override;

 protected:
  Handler handler(const std::string& method) override;

 private:
  void saveVideo(const CAPPluginCallPointer& call);
  void getOutcome(const CAPPluginCallPointer& call);
  void getAsset(const CAPPluginCallPointer& call);
  void getStoredWork(const CAPPluginCallPointer& call);
  void getHistory(const CAPPluginCallPointer& call);
  void clearHistory(const CAPPluginCallPointer& call);
  void getTransfers(const CAPPluginCallPointer& call);
  void changeDownload(const CAPPluginCallPointer& call);
  void importLocal(const CAPPluginCallPointer& call);
  void takeUpStoredRun(const CAPPluginCallPointer& call);
  void getLibrary(const CAPPluginCallPointer& call);
  void changeAsset(const CAPPluginCallPointer& call);
  void showAsset(const CAPPluginCallPointer& call);
  void getPage(const CAPPluginCallPointer& call);
  void getPoster(const CAPPluginCallPointer& call);

  void pause(int64_t id, const CAPPluginCallPointer& call);
  void resume(int64_t id, const CAPPluginCallPointer& call);
  void cancel(int64_t id, const CAPPluginCallPointer& call);
  void retry(int64_t id, const CAPPluginCallPointer& call);
  void retryAsItCame(int64_t id, const CAPPluginCallPointer& call);

  /// The same call; if it is resolved, listeners hear what has changed.
  CAPPluginCallPointer tellingOf(std::string_view what, const CAPPluginCallPointer& call);

  /// The asset of the call's `assetId`.
  std::optional<PHAsset> assetNamed(const CAPPluginCall& call);

  Host& host_;
  HistoryActions actions_;
  std::mutex mutex_;
  std::optional<std::string> page_;  ///< its address
};

}  // namespace tarn
