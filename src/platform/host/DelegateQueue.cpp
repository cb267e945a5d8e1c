#include "platform/host/DelegateQueue.h"

#include <utility>

namespace tarn {

DelegateQueue::DelegateQueue(std::shared_ptr<DispatchQueue> queue, std::weak_ptr<NSURLSessionDownloadDelegate> delegate)
    : queue_(std::move(queue)), delegate_(std::move(delegate)) {}

void DelegateQueue::post(Call call) {
  queue_->async([self = shared_from_this(), call = std::move(call)] { self->run(call); });
}

void DelegateQueue::run(const Call& call) {
  {
    std::lock_guard guard(mutex_);
    if (closed_) return;
    caller_ = std::this_thread::get_id();
  }
  // The delegate may hold the session and be held by nobody else any more: then both end in this scope.
  if (const auto delegate = delegate_.lock()) call(*delegate);
  {
    std::lock_guard guard(mutex_);
    caller_.reset();
  }
  ended_.notify_all();
}

void DelegateQueue::close() {
  std::unique_lock lock(mutex_);
  closed_ = true;
  ended_.wait(lock, [this] { return !caller_ || caller_ == std::this_thread::get_id(); });
}

}  // namespace tarn
