#pragma once

#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "platform/Error.h"
#include "platform/FileManager.h"

namespace tarn {

/// Makes a system call again for as long as a signal interrupts it. Returns its result; errno tells the failure.
template <typename Call>
auto repeatInterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

/// Writes all of it, where one call may write less. False where that fails; errno tells the failure.
inline bool writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = repeatInterrupted([&] { return ::write(descriptor, text.data(), text.size()); });
    if (written < 0) return false;
    text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

/// The path as system calls take it. One that holds a NUL would silently name another file: EINVAL.
inline const char* nativeName(const Path& path) {
  if (path.native().find('\0') != std::string::npos) throw PosixError(EINVAL, path.native());
  return path.c_str();
}

}  // namespace tarn
