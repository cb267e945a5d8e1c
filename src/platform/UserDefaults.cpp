#include "platform/UserDefaults.h"

#include <cerrno>
#include <charconv>

#include "platform/Error.h"

namespace tarn {

std::optional<Bytes> UserDefaults::data(const std::string& key) {
  std::lock_guard guard(mutex_);
  try {
    return readFile(files_, directory_ / key);
  } catch (const PosixError& error) {
    if (error.code() == ENOENT) return std::nullopt;
    throw;
  }
}

void UserDefaults::setData(const std::string& key, ByteView value) {
  std::lock_guard guard(mutex_);
  files_.createDirectory(directory_);
  writeFileAtomically(files_, directory_ / key, value);
}

int64_t UserDefaults::integer(const std::string& key) {
  std::optional<Bytes> stored;
  try {
    stored = data(key);
  } catch (const PosixError&) {
    return 0;
  }
  if (!stored) return 0;
  const std::string_view text = textOf(*stored);
  int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() ? value : 0;
}

void UserDefaults::setInteger(const std::string& key, int64_t value) {
  setData(key, bytesOf(std::to_string(value)));
}

void UserDefaults::removeObject(const std::string& key) {
  std::lock_guard guard(mutex_);
  try {
    files_.removeItem(directory_ / key);
  } catch (const PosixError& error) {
    if (error.code() == ENOENT) return;
    throw;
  }
  files_.synchronizeDirectory(directory_);
}

}  // namespace tarn
