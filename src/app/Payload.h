#pragma once

#include <string_view>

#include "platform/Capacitor.h"

namespace tarn {

/// The value at a key; null when it is absent or of another type. Valid until the object changes.
template <typename T>
const T* valueAt(const JSObject& object, std::string_view key) {
  const JSValue* value = object.find(key);
  return value ? value->get<T>() : nullptr;
}

/// The same as a copy, with what stands in for it.
template <typename T>
T valueAt(const JSObject& object, std::string_view key, T otherwise) {
  const T* value = valueAt<T>(object, key);
  return value ? *value : otherwise;
}

}  // namespace tarn
