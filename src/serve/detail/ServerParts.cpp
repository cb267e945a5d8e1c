#include "serve/detail/ServerParts.h"

#include <algorithm>

#include "platform/Error.h"

namespace tarn {

namespace asio = boost::asio;

namespace {

constexpr size_t largestQueue = 1024;  // messages that wait for one page; more than a replay has
constexpr size_t largestQueueBytes = 8 << 20;

static_assert(largestQueue > PageHub::ringCapacity && largestQueueBytes > ReplayRing::mostBytes);

}  // namespace

void logFailure(const std::exception_ptr& failure) {
  if (failure) log("A page's connection failed: {}", describe(failure));
}

void QueuedConnection::send(PageText text) {
  const bool isTooMuch = !queue_.empty() && queuedBytes_ + text->size() > largestQueueBytes;
  if (isTooMuch || queue_.size() == largestQueue) return close();
  queuedBytes_ += text->size();
  queue_.push_back(std::move(text));
  if (std::exchange(isWriting_, true)) return;
  asio::co_spawn(executor(), writeAll(shared_from_this()), logFailure);
}

void QueuedConnection::close() {
  queue_.clear();
  queuedBytes_ = 0;
  closeSocket();
}

asio::awaitable<void> QueuedConnection::writeAll(std::shared_ptr<QueuedConnection> self) {
  while (!self->queue_.empty()) {
    const PageText text = std::move(self->queue_.front());
    self->queue_.pop_front();
    self->queuedBytes_ -= text->size();
    auto writing = self->write(text);
    const bool isWritten = co_await std::move(writing);
    if (!isWritten) self->close();
  }
  self->isWriting_ = false;
}

void callOn(asio::thread_pool& pool, CAPPlugin& plugin, const CAPPluginCallPointer& call) {
  asio::post(pool, [&plugin, call] {
    try {
      plugin.call(call);
    } catch (const std::exception& failure) {
      log("{} failed: {}", call->method(), failure.what());
      call->reject("The command failed");
    }
  });
}

CommandWorker::~CommandWorker() {
  pool_.stop();
  pool_.join();
}

void CommandWorker::run(const std::string& page, PageCommand command) {
  const auto plugin = std::ranges::find(plugins_, command.plugin, &CAPPlugin::jsName);
  auto answer = [mailbox = mailbox_, done = done_, page, id = command.id](const CAPPluginCall::Answer& given) {
    mailbox->post([done, page, id, given] { done(page, id, given); });
  };
  auto call = std::make_shared<CAPPluginCall>(std::move(command.method), std::move(command.options), std::move(answer));
  if (plugin == plugins_.end()) return call->reject("not implemented");
  callOn(pool_, **plugin, call);
  asio::post(pool_, [mailbox = mailbox_] { mailbox->flush(); });  // answers do not pile up
}

}  // namespace tarn
