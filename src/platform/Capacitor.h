#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/JSObject.h"

namespace tarn {

/// One call of a plug-in method by a page: its options, and the way to answer. Exactly one of resolve and reject is
/// called, once; a second answer is dropped. Thread-safe; the answer may come from any thread, at any later time.
class CAPPluginCall {
 public:
  struct Answer {
    bool resolved = false;
    JSObject data;        ///< of a resolved call; of a rejected one what a program can know beside the words
    std::string message;  ///< of a rejected one
  };
  using AnswerHandler = std::function<void(const Answer&)>;

  CAPPluginCall(std::string method, JSObject options, AnswerHandler handler);
  ~CAPPluginCall();
  CAPPluginCall(const CAPPluginCall&) = delete;
  CAPPluginCall& operator=(const CAPPluginCall&) = delete;

  const std::string& method() const;
  const JSObject& options() const;

  /// The option of this key; nothing if it is absent or of another type. getInt takes whole numbers only.
  std::optional<std::string> getString(std::string_view key) const;
  std::optional<bool> getBool(std::string_view key) const;
  std::optional<int64_t> getInt(std::string_view key) const;
  std::optional<JSObject> getObject(std::string_view key) const;

  void resolve(JSObject data = {});
  void reject(std::string message, JSObject data = {});

 private:
  struct State;
  std::unique_ptr<State> state_;
};

using CAPPluginCallPointer = std::shared_ptr<CAPPluginCall>;

/// One row of a plug-in's method table.
struct CAPPluginMethod {
  std::string name;
  std::string returnType;  ///< "promise"
};

/// What the bridge needs to know of a plug-in before it calls it.
class CAPBridgedPlugin {
 public:
  virtual ~CAPBridgedPlugin() = default;
  virtual const std::string& identifier() const = 0;
  virtual const std::string& jsName() const = 0;
  virtual const std::vector<CAPPluginMethod>& pluginMethods() const = 0;
};

/// A plug-in: the bridge calls its methods by name, and it sends events to whoever listens. The listener is set by the
/// bridge before load(). notifyListeners may be called from any thread.
class CAPPlugin : public CAPBridgedPlugin {
 public:
  using EventListener = std::function<void(const std::string& event, const JSObject& data)>;

  /// Called by the bridge once, when the plug-in has been created.
  virtual void load() {}

  /// Calls the method of this name. A name that is not in the method table, or has no handler behind it, is rejected
  /// with the bridge's own words, "not implemented".
  void call(const CAPPluginCallPointer& call);

  /// Sets who receives events from now on; an empty listener drops them. Returns when no event is being delivered to
  /// the last one any more, but for a delivery on the calling thread itself: a listener may replace itself.
  void setEventListener(EventListener listener);

  CAPPlugin();
  ~CAPPlugin() override;
  CAPPlugin(const CAPPlugin&) = delete;
  CAPPlugin& operator=(const CAPPlugin&) = delete;

 protected:
  using Handler = std::function<void(const CAPPluginCallPointer&)>;

  /// The handler of a method; an empty one when there is none.
  virtual Handler handler(const std::string& method) = 0;

  void notifyListeners(const std::string& event, const JSObject& data);

 private:
  struct Listener;
  std::unique_ptr<Listener> listener_;
};

}  // namespace tarn
