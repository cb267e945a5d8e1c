#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Dispatch.h"
#include "platform/FileManager.h"
#include "platform/NSURLSession.h"

namespace tarn {

class TransferStore;

struct CurlURLSessionOptions {
  std::chrono::milliseconds initialPause{500};     ///< before the first retry; doubles with each one without progress
  std::chrono::milliseconds maximumPause{30'000};  ///< the longest pause
  int maximumTries = 6;                            ///< tries in a row without progress; also times of starting over
  std::chrono::milliseconds stallTime{30'000};     ///< silence of a server, connecting included, that ends a try
  std::chrono::milliseconds idleTime{10'000};      ///< of no transfer at all, after which kept connections are closed
  std::chrono::milliseconds reportInterval{100};   ///< between two didWriteData of one task
  std::string userAgent;                           ///< empty: "tarn/<version>"
  std::chrono::seconds keepsOptions = std::chrono::days(30);  ///< headers and cookies of a stored transfer
};

/// Sessions over libcurl. Each has one thread for all of its transfers, which sleeps while nothing is to be done, and a
/// serial delegate queue with a thread of its own, where whole files are also flushed before they are handed over.
/// A transfer lives in `transfersDirectory` from its making to its end, and is resumed from there. What fails for the
/// time being (connection, time-out, stall, a status of 5xx, 408 or 429, a short body) is tried again; any other
/// failure is the transfer's end. Proxies come from the environment, certificates from the system.
class CurlURLSessionService : public NSURLSessionService {
 public:
  /// `files` and `dispatch` must outlive the service and its sessions.
  CurlURLSessionService(FileManager& files, Dispatch& dispatch, Path transfersDirectory,
                        CurlURLSessionOptions options = {});

  /// Throws PosixError when the directory cannot be read, and URLError for an identifier that has a session.
  std::unique_ptr<NSURLSession> makeBackgroundSession(const std::string& identifier,
                                                      std::weak_ptr<NSURLSessionDownloadDelegate> delegate) override;

  std::vector<std::string> storedTaskDescriptions() override;

 private:
  FileManager& files_;
  Dispatch& dispatch_;
  const CurlURLSessionOptions options_;
  const std::shared_ptr<TransferStore> store_;
  std::mutex mutex_;
  std::map<std::string, std::weak_ptr<const std::string>> identifiers_;  ///< each lives as long as its session
};

}  // namespace tarn
