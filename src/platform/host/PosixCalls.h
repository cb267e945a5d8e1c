#pragma once

#include <cerrno>

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

/// The path as system calls take it. One that holds a NUL would silently name another file: EINVAL.
inline const char* nativeName(const Path& path) {
  if (path.native().find('\0') != std::string::npos) throw PosixError(EINVAL, path.native());
  return path.c_str();
}

}  // namespace tarn
