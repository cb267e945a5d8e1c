#pragma once

#include <tarn/export.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarn {

/// How a video is asked for, beside its URL: contents alone, never paths. Headers, cookies and the referrer go to the
/// origin of the URL alone (scheme, host and port), and after a redirect never from https to http. They are kept with
/// the download, for its owner alone, and never logged.
struct TransferOptions {
  std::vector<std::string> headers = {};        ///< each "Name: value"
  std::string cookies = {};                     ///< in the Netscape format, a cookie a line
  std::optional<std::string> referer = {};      ///< the page that leads to the video
  std::optional<std::string> userAgent = {};    ///< else tarn's own
  std::optional<uint64_t> bytesPerSecond = {};  ///< at most
  std::optional<int> retries = {};              ///< in a row without a new byte; else 5

  /// Whether all of it is the same.
  bool operator==(const TransferOptions&) const = default;
};

/// How far the transfer of a download is.
struct TransferState {
  /// Another try that is due, since the last one failed.
  struct Retry {
    int number = 0;                   ///< of the try that comes, from 1
    int most = 0;                     ///< tries in a row without a new byte
    std::chrono::milliseconds in{0};  ///< until it begins
    std::string why = {};             ///< the last one failed, in words without a stop
  };

  uint64_t received = 0;                  ///< bytes
  std::optional<uint64_t> expected = {};  ///< bytes, once the server has told
  std::optional<Retry> retry = {};        ///< if it waits for another try
  bool isPaused = false;                  ///< until Engine::resume()
};

}  // namespace tarn
