#include "api/InProcessClient.h"

#include <future>
#include <memory>
#include <utility>

namespace tarn {

InProcessClient::InProcessClient(Host& host, CAPPlugin::EventListener relay) : host_(host) {
  host_.plugin().setEventListener([this, relay = std::move(relay)](const std::string& name, const JSObject& data) {
    if (relay) relay(name, data);
    std::lock_guard guard(mutex_);
    if (isInterrupted_) return;
    events_.push_back({name, data});
    changed_.notify_all();
  });
}

InProcessClient::~InProcessClient() {
  host_.plugin().setEventListener({});
}

EngineClient::Answer InProcessClient::call(const std::string& plugin, const std::string& method, JSObject options) {
  auto answer = std::make_shared<std::promise<Answer>>();
  auto future = answer->get_future();
  CAPPlugin& target = plugin == HostPlugin::name() ? static_cast<CAPPlugin&>(host_.hostPlugin()) : host_.plugin();
  target.call(std::make_shared<CAPPluginCall>(method, std::move(options),
                                              [answer](const Answer& given) { answer->set_value(given); }));
  return future.get();
}

std::optional<EngineClient::Event> InProcessClient::nextEvent(std::optional<std::chrono::milliseconds> timeout) {
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

void InProcessClient::interrupt() {
  std::lock_guard guard(mutex_);
  isInterrupted_ = true;
  changed_.notify_all();
}

bool InProcessClient::isInterrupted() const {
  std::lock_guard guard(mutex_);
  return isInterrupted_;
}

}  // namespace tarn
