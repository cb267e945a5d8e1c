#include "platform/Capacitor.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace tarn {

struct CAPPluginCall::State {
  const std::string method;
  const JSObject options;
  std::mutex mutex;
  AnswerHandler handler;  ///< empty once the call has been answered

  State(std::string m, JSObject o, AnswerHandler h)
      : method(std::move(m)), options(std::move(o)), handler(std::move(h)) {}

  void answer(const Answer& answer) {
    AnswerHandler once;
    {
      std::lock_guard guard(mutex);
      once = std::exchange(handler, {});
    }
    if (once) once(answer);
  }
};

CAPPluginCall::CAPPluginCall(std::string method, JSObject options, AnswerHandler handler)
    : state_(std::make_unique<State>(std::move(method), std::move(options), std::move(handler))) {}

CAPPluginCall::~CAPPluginCall() = default;

const std::string& CAPPluginCall::method() const {
  return state_->method;
}

const JSObject& CAPPluginCall::options() const {
  return state_->options;
}

std::optional<std::string> CAPPluginCall::getString(std::string_view key) const {
  const JSValue* const value = state_->options.find(key);
  const auto* const text = value ? value->get<std::string>() : nullptr;
  return text ? std::optional(*text) : std::nullopt;
}

std::optional<bool> CAPPluginCall::getBool(std::string_view key) const {
  const JSValue* const value = state_->options.find(key);
  const auto* const flag = value ? value->get<bool>() : nullptr;
  return flag ? std::optional(*flag) : std::nullopt;
}

std::optional<JSObject> CAPPluginCall::getObject(std::string_view key) const {
  return optionalAt<JSObject>(state_->options, key);
}

std::optional<int64_t> CAPPluginCall::getInt(std::string_view key) const {
  const JSValue* const value = state_->options.find(key);
  if (!value) return std::nullopt;
  if (const auto* const whole = value->get<int64_t>()) return *whole;
  // A page has one kind of number only, so a double without a fraction is a whole number too.
  constexpr double limit = 9223372036854775808.0;  // 2^63
  const auto* const number = value->get<double>();
  if (!number || !(*number >= -limit && *number < limit)) return std::nullopt;
  const auto whole = static_cast<int64_t>(*number);
  return static_cast<double>(whole) == *number ? std::optional(whole) : std::nullopt;
}

void CAPPluginCall::resolve(JSObject data) {
  state_->answer({.resolved = true, .data = std::move(data), .message = {}});
}

void CAPPluginCall::reject(std::string message, JSObject data) {
  state_->answer({.resolved = false, .data = std::move(data), .message = std::move(message)});
}

struct CAPPlugin::Listener {
  /// One listener, with the threads on which it is being called right now.
  struct Entry {
    EventListener call;
    std::vector<std::thread::id> threads;
  };

  std::mutex mutex;
  std::condition_variable delivered;
  std::shared_ptr<Entry> entry;

  /// Counts the calling thread among an entry's threads until the end of the scope.
  class Delivery {
   public:
    explicit Delivery(Listener& listener) : listener_(listener) {
      std::lock_guard guard(listener_.mutex);
      entry_ = listener_.entry;
      if (entry_) entry_->threads.push_back(std::this_thread::get_id());
    }
    ~Delivery() {
      if (!entry_) return;
      std::lock_guard guard(listener_.mutex);
      entry_->threads.erase(std::find(entry_->threads.begin(), entry_->threads.end(), std::this_thread::get_id()));
      listener_.delivered.notify_all();
    }
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    const Entry* entry() const { return entry_.get(); }

   private:
    Listener& listener_;
    std::shared_ptr<Entry> entry_;
  };
};

CAPPlugin::CAPPlugin() : listener_(std::make_unique<Listener>()) {}

CAPPlugin::~CAPPlugin() = default;

void CAPPlugin::call(const CAPPluginCallPointer& call) {
  const auto& methods = pluginMethods();
  const bool listed = std::any_of(methods.begin(), methods.end(),
                                  [&](const CAPPluginMethod& method) { return method.name == call->method(); });
  const Handler found = listed ? handler(call->method()) : Handler();
  if (found) {
    found(call);
  } else {
    call->reject("not implemented");
  }
}

void CAPPlugin::setEventListener(EventListener listener) {
  auto next = listener ? std::make_shared<Listener::Entry>(Listener::Entry{std::move(listener), {}}) : nullptr;
  std::unique_lock lock(listener_->mutex);
  const auto last = std::exchange(listener_->entry, std::move(next));
  if (!last) return;
  listener_->delivered.wait(lock, [&] {
    return std::all_of(last->threads.begin(), last->threads.end(),
                       [](std::thread::id thread) { return thread == std::this_thread::get_id(); });
  });
}

void CAPPlugin::notifyListeners(const std::string& event, const JSObject& data) {
  const Listener::Delivery delivery(*listener_);
  if (delivery.entry()) delivery.entry()->call(event, data);
}

}  // namespace tarn
