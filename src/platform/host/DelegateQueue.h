#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "platform/Dispatch.h"
#include "platform/NSURLSession.h"

namespace tarn {

/// Carries calls to a session's delegate: one at a time, in the order of posting, until it is closed. A delegate that
/// is gone is not called. Thread-safe. Calls are kept on a dispatch queue, which may outlive the session: a call that
/// has not begun at close() never begins.
class DelegateQueue : public std::enable_shared_from_this<DelegateQueue> {
 public:
  using Call = std::function<void(NSURLSessionDownloadDelegate&)>;

  DelegateQueue(std::shared_ptr<DispatchQueue> queue, std::weak_ptr<NSURLSessionDownloadDelegate> delegate);

  void post(Call call);

  /// Returns when no call runs any more; at once when it is itself called from within a call.
  void close();

 private:
  void run(const Call& call);

  const std::shared_ptr<DispatchQueue> queue_;
  const std::weak_ptr<NSURLSessionDownloadDelegate> delegate_;
  std::mutex mutex_;
  std::condition_variable ended_;
  bool closed_ = false;
  std::optional<std::thread::id> caller_;  ///< thread of the call that runs
};

}  // namespace tarn
