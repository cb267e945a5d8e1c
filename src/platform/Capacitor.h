#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/Bytes.h"

namespace tarn {

class JSValue;

/// A text-keyed object as the bridge carries it; keys keep their order and are unique.
class JSObject {
 public:
  using Member = std::pair<std::string, JSValue>;

  JSObject();
  JSObject(std::initializer_list<Member> members);
  /// Of members with the same key the last one holds, at the place of the first.
  explicit JSObject(std::vector<Member> members);
  JSObject(const JSObject&);
  JSObject(JSObject&&) noexcept;
  JSObject& operator=(const JSObject&);
  JSObject& operator=(JSObject&&) noexcept;
  ~JSObject();

  void set(std::string key, JSValue value);
  /// Null when the key is absent. Valid until the object changes.
  const JSValue* find(std::string_view key) const;
  const std::vector<Member>& members() const { return members_; }
  bool empty() const;

  /// Compact JSON text; bytes that are no UTF-8 become U+FFFD.
  std::string json() const;
  /// An object from JSON text; nothing for any other text, for one nested deeper than 32, or for bytes that are no
  /// UTF-8. Whole numbers outside the signed 64-bit range become doubles.
  static std::optional<JSObject> parse(std::string_view text);

 private:
  std::vector<Member> members_;
};

/// One value of a payload. A whole number is an int64_t, any other number a double.
class JSValue {
 public:
  using Array = std::vector<JSValue>;
  using Storage = std::variant<std::monostate, bool, int64_t, double, std::string, Array, JSObject>;

  JSValue() = default;
  JSValue(bool value) : storage_(value) {}
  JSValue(int64_t value) : storage_(value) {}
  JSValue(int value) : storage_(static_cast<int64_t>(value)) {}
  JSValue(double value) : storage_(value) {}
  JSValue(const char* value) : storage_(std::string(value)) {}
  JSValue(std::string value) : storage_(std::move(value)) {}
  JSValue(Array value) : storage_(std::move(value)) {}
  JSValue(JSObject value) : storage_(std::move(value)) {}

  const Storage& storage() const { return storage_; }
  template <typename T>
  const T* get() const {
    return std::get_if<T>(&storage_);
  }

 private:
  Storage storage_;
};

/// One call of a plug-in method by a page: its options, and the way to answer. Exactly one of resolve and reject is
/// called, once; a second answer is dropped. Thread-safe; the answer may come from any thread, at any later time.
class CAPPluginCall {
 public:
  struct Answer {
    bool resolved = false;
    JSObject data;        ///< of a resolved call
    std::string message;  ///< of a rejected one
  };
  using AnswerHandler = std::function<void(const Answer&)>;

  CAPPluginCall(std::string method, JSObject options, AnswerHandler handler);
  ~CAPPluginCall();
  CAPPluginCall(const CAPPluginCall&) = delete;
  CAPPluginCall& operator=(const CAPPluginCall&) = delete;

  const std::string& method() const;

  /// The option of this key; nothing when it is absent or of another type. getInt takes whole numbers only.
  std::optional<std::string> getString(std::string_view key) const;
  std::optional<bool> getBool(std::string_view key) const;
  std::optional<int64_t> getInt(std::string_view key) const;

  void resolve(JSObject data = {});
  void reject(std::string message);

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

  /// Who hears events from now on; an empty listener drops them. Returns when no event is being delivered to the last
  /// one any more, but for a delivery on the calling thread itself: a listener may replace itself.
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
