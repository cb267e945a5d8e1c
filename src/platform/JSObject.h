#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace tarn {

class JSValue;

/// A text-keyed object as the bridge carries it; keys keep their order and are unique.
class JSObject {
 public:
  using Member = std::pair<std::string, JSValue>;

  JSObject();
  JSObject(std::initializer_list<Member> members);
  /// If several members have the same key, the last value counts, at the place of the first.
  explicit JSObject(std::vector<Member> members);
  JSObject(const JSObject&);
  JSObject(JSObject&&) noexcept;
  JSObject& operator=(const JSObject&);
  JSObject& operator=(JSObject&&) noexcept;
  ~JSObject();

  void set(std::string key, JSValue value);
  /// Null if the key is absent. Valid until the object changes.
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

/// The value at a key; null if it is absent or of another type. Valid until the object changes.
template <typename T>
const T* valueAt(const JSObject& object, std::string_view key) {
  const JSValue* value = object.find(key);
  return value ? value->get<T>() : nullptr;
}

/// The same as a copy.
template <typename T>
std::optional<T> optionalAt(const JSObject& object, std::string_view key) {
  const T* value = valueAt<T>(object, key);
  return value ? std::optional(*value) : std::nullopt;
}

/// The same as a copy, with what stands in for it.
template <typename T>
T valueAt(const JSObject& object, std::string_view key, T otherwise) {
  const T* value = valueAt<T>(object, key);
  return value ? *value : otherwise;
}

}  // namespace tarn
