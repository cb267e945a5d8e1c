#pragma once

#include <tarn/transfer.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/JSObject.h"

namespace tarn {

/// What a page asks for: one video, its place, and what to leave out of the repair. It stays the same from the call to
/// the first record of the run: a task carries it, the waiting line, and the transfer's note over a restart.
struct DownloadRequest {
  std::string url;                           ///< as the page gave it
  std::optional<std::string> album = {};     ///< Photos album to save into
  std::optional<std::string> filename = {};  ///< in Documents and in the album
  bool skipVideoFix = false;                 ///< the file stays as it comes
  bool skipAudioFix = false;                 ///< sound and timing stay as they come
  bool takesServersName = false;             ///< `filename` is for a server that gives none
  TransferOptions transfer = {};

  bool operator==(const DownloadRequest&) const = default;

  /// Takes over what the stored list of tasks does not keep.
  void takeFlagsOf(const DownloadRequest& noted) {
    skipVideoFix = noted.skipVideoFix;
    skipAudioFix = noted.skipAudioFix;
    takesServersName = noted.takesServersName;
  }
};

/// A download as the record of its transfer keeps it over a restart, since the stored list of tasks has no place for
/// all of the request.
struct NotedDownload {
  int64_t id = 0;  ///< of the download
  DownloadRequest request;
  bool isPaused = false;  ///< it waits for its user

  /// The text that is stored with the transfer: a JSON object. The transfer keeps the request's options itself.
  std::string text() const;
  /// The same with the options of the transfer, which are secrets.
  std::string fullText() const;
  /// Returns nothing if the text is no note. A note may lack `url`, `album` and `filename`, as those of older versions
  /// do; these are then empty.
  static std::optional<NotedDownload> parse(const std::string& text);

  bool operator==(const NotedDownload&) const = default;

 private:
  JSObject object() const;
};

}  // namespace tarn
