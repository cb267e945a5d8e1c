#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/FileManager.h"

namespace tarn {

/// Serves the files of one directory over HTTP on 127.0.0.1, one connection at a time, until it is destroyed. GET and
/// HEAD of a plain file name only.
class LoopbackServer {
 public:
  /// Throws std::system_error when no port can be had.
  explicit LoopbackServer(Path directory);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  std::string url(const std::string& filename) const;

 private:
  class Listener;
  std::unique_ptr<Listener> listener_;
};

}  // namespace tarn
