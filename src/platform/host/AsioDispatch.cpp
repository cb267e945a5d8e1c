#include "platform/host/AsioDispatch.h"

#include <pthread.h>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <condition_variable>
#include <future>
#include <list>
#include <mutex>
#include <utility>

namespace tarn {
namespace asio = boost::asio;

namespace {

constexpr size_t poolThreads = 8;

void runToEnd(const DispatchQueue::Work& work) noexcept {
  work();
}

}  // namespace

/// The threads, and the count of work that their end has to wait for.
class AsioDispatch::Core {
 public:
  // Executors belong to the core, since a strand must not outlive its pool. The references live as long as the core.
  const asio::any_io_executor& addPoolExecutor() { return add(pool_.get_executor()); }

  const asio::any_io_executor& addStrand() { return add(asio::make_strand(pool_)); }

  const asio::any_io_executor& addThread(const std::string& label) {
    std::unique_lock lock(mutex_);
    asio::thread_pool& thread = threads_.emplace_back(1);
    lock.unlock();
    // The kernel keeps 15 bytes of a thread's name.
    asio::post(thread, [name = label.substr(0, 15)] { pthread_setname_np(pthread_self(), name.c_str()); });
    return add(thread.get_executor());
  }

  /// Counts work that is about to run; false if it must be dropped.
  bool begin() {
    std::lock_guard guard(mutex_);
    if (stopping_) return false;
    ++active_;
    return true;
  }

  /// Counts work that somebody is about to wait for. While anything runs this is granted during the shutdown too: the
  /// one who waits may itself be running work, which would never end otherwise.
  bool beginAwaited() {
    std::lock_guard guard(mutex_);
    if (stopping_ && active_ == 0) return false;
    ++active_;
    return true;
  }

  void end() {
    std::lock_guard guard(mutex_);
    if (--active_ == 0) idle_.notify_all();
  }

  void stop() {
    {
      std::unique_lock lock(mutex_);
      stopping_ = true;
      idle_.wait(lock, [this] { return active_ == 0; });
    }
    pool_.stop();
    for (auto& thread : threads_) thread.stop();
    pool_.join();
    for (auto& thread : threads_) thread.join();
  }

 private:
  const asio::any_io_executor& add(asio::any_io_executor executor) {
    std::lock_guard guard(mutex_);
    return executors_.emplace_back(std::move(executor));
  }

  std::mutex mutex_;
  std::condition_variable idle_;
  bool stopping_ = false;
  size_t active_ = 0;

  asio::thread_pool pool_{poolThreads};
  std::list<asio::thread_pool> threads_;
  std::list<asio::any_io_executor> executors_;
};

class AsioDispatch::Queue : public DispatchQueue {
 public:
  Queue(const std::shared_ptr<Core>& core, const asio::any_io_executor& executor) : core_(core), executor_(executor) {}

  void async(Work work) override {
    const auto core = core_.lock();
    if (!core) return;
    asio::post(executor_, [core = core_, work = std::move(work)] { run(core, work); });
  }

  void sync(const Work& work) override {
    const auto core = core_.lock();
    if (!core || !core->beginAwaited()) return;
    // Shared, because the waiter may wake up and leave while set_value() is still at its last steps.
    const auto done = std::make_shared<std::promise<void>>();
    asio::post(executor_, [&work, done] {
      runToEnd(work);
      done->set_value();
    });
    done->get_future().wait();
    core->end();
  }

  void asyncAfter(std::chrono::nanoseconds delay, Work work) override {
    const auto core = core_.lock();
    if (!core) return;
    const auto timer = std::make_shared<asio::steady_timer>(executor_, delay);
    timer->async_wait([core = core_, timer, work = std::move(work)](const boost::system::error_code& failure) {
      if (!failure) run(core, work);
    });
  }

 private:
  static void run(const std::weak_ptr<Core>& weakCore, const Work& work) {
    const auto core = weakCore.lock();
    if (!core || !core->begin()) return;
    runToEnd(work);
    core->end();
  }

  const std::weak_ptr<Core> core_;
  const asio::any_io_executor& executor_;  // only while the core is locked
};

AsioDispatch::AsioDispatch() : core_(std::make_shared<Core>()) {
  main_ = std::make_shared<Queue>(core_, core_->addThread("main"));
  global_ = std::make_shared<Queue>(core_, core_->addPoolExecutor());
}

AsioDispatch::~AsioDispatch() {
  stop();
}

void AsioDispatch::stop() {
  core_->stop();
}

DispatchQueue& AsioDispatch::mainQueue() {
  return *main_;
}

DispatchQueue& AsioDispatch::globalQueue(QualityOfService) {
  return *global_;
}

std::shared_ptr<DispatchQueue> AsioDispatch::makeSerialQueue(std::string label, bool ownThread) {
  if (ownThread) return std::make_shared<Queue>(core_, core_->addThread(label));
  return std::make_shared<Queue>(core_, core_->addStrand());
}

}  // namespace tarn
