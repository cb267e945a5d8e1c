#include "app/EngineClient.h"

#include <future>
#include <memory>
#include <thread>
#include <utility>

namespace tarn {

EngineClient::EngineClient(CAPPlugin& plugin) : plugin_(plugin) {
  plugin_.setEventListener([this](const std::string& name, const JSObject& data) {
    std::lock_guard guard(mutex_);
    events_.push_back({name, data});
    changed_.notify_all();
  });
}

EngineClient::~EngineClient() {
  plugin_.setEventListener({});
}

CAPPluginCall::Answer EngineClient::call(const std::string& method, JSObject options) {
  auto answer = std::make_shared<std::promise<CAPPluginCall::Answer>>();
  auto future = answer->get_future();
  plugin_.call(std::make_shared<CAPPluginCall>(
      method, std::move(options), [answer](const CAPPluginCall::Answer& given) { answer->set_value(given); }));
  return future.get();
}

std::optional<EngineClient::Event> EngineClient::nextEvent(std::optional<std::chrono::milliseconds> timeout) {
  std::unique_lock guard(mutex_);
  auto isReady = [this] { return isInterrupted_ || !events_.empty(); };
  if (timeout) {
    changed_.wait_for(guard, *timeout, isReady);
  } else {
    changed_.wait(guard, isReady);
  }
  if (isInterrupted_ || events_.empty()) return std::nullopt;
  Event event = std::move(events_.front());
  events_.pop_front();
  return event;
}

void EngineClient::waitUntilGone(int64_t id) {
  const std::string key = std::to_string(id);
  for (int looks = 0; looks < 2000 && call("getActiveDownloads").data.find(key); ++looks) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

void EngineClient::interrupt() {
  std::lock_guard guard(mutex_);
  isInterrupted_ = true;
  changed_.notify_all();
}

bool EngineClient::isInterrupted() const {
  std::lock_guard guard(mutex_);
  return isInterrupted_;
}

}  // namespace tarn
