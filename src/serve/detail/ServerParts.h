#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <deque>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/Capacitor.h"
#include "platform/Log.h"
#include "serve/detail/PageHub.h"

// What the two servers of this room are made of. What is awaited has a name first: GNU C++ 12 compiles temporaries in a
// co_await expression wrongly.

namespace tarn {

/// Completes an await with the failure as a value, in place of an exception.
inline const auto quietly = boost::asio::as_tuple(boost::asio::use_awaitable);

/// The end of a coroutine that nobody awaits.
void logFailure(const std::exception_ptr& failure);

/// Calls a plug-in on a thread of the pool. Its own faults are rejections too. It must outlive the pool.
void callOn(boost::asio::thread_pool& pool, CAPPlugin& plugin, const CAPPluginCallPointer& call);

/// Brings work to the server's thread from any other, for as long as the server lives.
class Mailbox {
 public:
  explicit Mailbox(boost::asio::io_context& context) : context_(&context) {}

  template <typename Work>
  void post(Work work) {
    std::lock_guard guard(mutex_);
    if (context_) boost::asio::post(*context_, std::move(work));
  }

  /// Waits until the server's thread has done all that was posted. For other threads.
  void flush() {
    std::promise<void> done;
    const auto isDone = done.get_future();
    post([done = std::move(done)]() mutable { done.set_value(); });
    isDone.wait();
  }

  void close() {
    std::lock_guard guard(mutex_);
    context_ = nullptr;
  }

 private:
  std::mutex mutex_;
  boost::asio::io_context* context_;
};

/// The connections that are open, each with the way to cut it off.
using LiveConnections = std::list<std::function<void()>>;

/// An open connection among them.
class Live {
 public:
  Live(LiveConnections& all, std::function<void()> close)
      : all_(all), place_(all.insert(all.end(), std::move(close))) {}
  ~Live() { all_.erase(place_); }
  Live(const Live&) = delete;
  Live& operator=(const Live&) = delete;

  void closeBy(std::function<void()> close) { *place_ = std::move(close); }

 private:
  LiveConnections& all_;
  LiveConnections::iterator place_;
};

/// A connection with the messages that wait to be sent. Who does not read them is cut off.
class QueuedConnection : public PageConnection, public std::enable_shared_from_this<QueuedConnection> {
 public:
  void send(PageText text) final;
  void close() final;

 protected:
  virtual boost::asio::any_io_executor executor() = 0;
  /// Sends one message; false when it could not.
  virtual boost::asio::awaitable<bool> write(const PageText& text) = 0;
  virtual void closeSocket() = 0;

 private:
  static boost::asio::awaitable<void> writeAll(std::shared_ptr<QueuedConnection> self);

  std::deque<PageText> queue_;
  size_t queuedBytes_ = 0;
  bool isWriting_ = false;
};

/// Runs commands one at a time, on a thread of its own.
class CommandWorker {
 public:
  using Done = std::function<void(const std::string& page, const std::string& id, const CAPPluginCall::Answer&)>;

  /// `done` is called on the server's thread, for as long as the mailbox is open. The plug-ins must outlive the worker.
  CommandWorker(std::vector<CAPPlugin*> plugins, std::shared_ptr<Mailbox> mailbox, Done done)
      : plugins_(std::move(plugins)), mailbox_(std::move(mailbox)), done_(std::move(done)) {}
  /// Waits for the command that runs, and drops the others.
  ~CommandWorker();

  void run(const std::string& page, PageCommand command);

 private:
  const std::vector<CAPPlugin*> plugins_;
  const std::shared_ptr<Mailbox> mailbox_;
  const Done done_;
  boost::asio::thread_pool pool_{1};
};

}  // namespace tarn
