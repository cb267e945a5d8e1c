#include "platform/JSObject.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <type_traits>
#include <unordered_map>
#include <utility>

namespace tarn {
namespace {

using nlohmann::ordered_json;

constexpr size_t maximumDepth = 32;  // objects and arrays within each other, the outermost included

/// Builds an object from a parser's events. A false answer ends the parsing.
class JSObjectReader : public nlohmann::json_sax<nlohmann::json> {
 public:
  /// Nothing unless the whole text was one object.
  std::optional<JSObject> take() { return std::move(result_); }

  bool null() override { return add({}); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(int64_t value) override { return add(value); }
  bool number_unsigned(uint64_t value) override {
    if (std::in_range<int64_t>(value)) return add(static_cast<int64_t>(value));
    return add(static_cast<double>(value));
  }
  bool number_float(double value, const std::string& /*text*/) override { return add(value); }
  bool string(std::string& value) override { return add(std::move(value)); }
  bool binary(nlohmann::json::binary_t& /*value*/) override { return false; }
  bool start_object(size_t /*count*/) override { return open(true); }
  bool start_array(size_t /*count*/) override { return !open_.empty() && open(false); }
  bool end_array() override { return close(); }
  bool end_object() override { return close(); }
  bool key(std::string& value) override {
    open_.back().key = std::move(value);
    return true;
  }
  bool parse_error(size_t /*at*/, const std::string& /*token*/, const nlohmann::detail::exception& /*why*/) override {
    result_.reset();
    return false;
  }

 private:
  /// An object or array whose end has not been read yet.
  struct Container {
    bool isObject = false;
    std::string key;  ///< of the next member
    std::vector<JSObject::Member> members;
    JSValue::Array elements;
  };

  bool open(bool isObject) {
    if (open_.size() == maximumDepth) return false;
    open_.push_back({.isObject = isObject, .key = {}, .members = {}, .elements = {}});
    return true;
  }

  bool close() {
    Container closed = std::move(open_.back());
    open_.pop_back();
    if (!closed.isObject) return add(std::move(closed.elements));
    JSObject object(std::move(closed.members));
    if (!open_.empty()) return add(std::move(object));
    result_ = std::move(object);
    return true;
  }

  bool add(JSValue value) {
    if (open_.empty()) return false;  // a text that is a bare value
    Container& container = open_.back();
    if (container.isObject) {
      container.members.emplace_back(std::move(container.key), std::move(value));
    } else {
      container.elements.push_back(std::move(value));
    }
    return true;
  }

  std::vector<Container> open_;
  std::optional<JSObject> result_;
};

ordered_json document(const JSObject& object);

ordered_json document(const JSValue& value) {
  return std::visit(
      [](const auto& stored) -> ordered_json {
        using Stored = std::decay_t<decltype(stored)>;
        if constexpr (std::is_same_v<Stored, std::monostate>) {
          return nullptr;
        } else if constexpr (std::is_same_v<Stored, JSValue::Array>) {
          auto array = ordered_json::array();
          for (const JSValue& element : stored) array.push_back(document(element));
          return array;
        } else if constexpr (std::is_same_v<Stored, JSObject>) {
          return document(stored);
        } else {
          return stored;
        }
      },
      value.storage());
}

ordered_json document(const JSObject& object) {
  ordered_json::object_t members;  // keys are unique already: appending skips the search that inserting would make
  members.reserve(object.members().size());
  for (const auto& [key, value] : object.members()) members.emplace_back(key, document(value));
  return members;
}

}  // namespace

JSObject::JSObject() = default;
JSObject::JSObject(std::initializer_list<Member> members) : JSObject(std::vector<Member>(members)) {}
JSObject::JSObject(const JSObject&) = default;
JSObject::JSObject(JSObject&&) noexcept = default;
JSObject& JSObject::operator=(const JSObject&) = default;
JSObject& JSObject::operator=(JSObject&&) noexcept = default;
JSObject::~JSObject() = default;

JSObject::JSObject(std::vector<Member> members) {
  std::unordered_map<std::string, size_t> places;
  for (Member& member : members) {
    const auto [place, fresh] = places.try_emplace(member.first, members_.size());
    if (fresh) {
      members_.push_back(std::move(member));
    } else {
      members_[place->second].second = std::move(member.second);
    }
  }
}

void JSObject::set(std::string key, JSValue value) {
  const auto member = std::find_if(members_.begin(), members_.end(), [&](const Member& m) { return m.first == key; });
  if (member == members_.end()) {
    members_.emplace_back(std::move(key), std::move(value));
  } else {
    member->second = std::move(value);
  }
}

const JSValue* JSObject::find(std::string_view key) const {
  const auto member = std::find_if(members_.begin(), members_.end(), [&](const Member& m) { return m.first == key; });
  return member == members_.end() ? nullptr : &member->second;
}

bool JSObject::empty() const {
  return members_.empty();
}

std::string JSObject::json() const {
  constexpr int compact = -1;
  return document(*this).dump(compact, ' ', false, ordered_json::error_handler_t::replace);
}

std::optional<JSObject> JSObject::parse(std::string_view text) {
  JSObjectReader reader;
  if (!nlohmann::json::sax_parse(text, &reader)) return std::nullopt;
  return reader.take();
}

}  // namespace tarn
