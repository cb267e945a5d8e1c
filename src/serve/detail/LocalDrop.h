#pragma once

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <cstdint>
#include <optional>

#include "platform/FileManager.h"
#include "serve/detail/RequestCheck.h"
#include "serve/detail/ServerParts.h"

namespace tarn {

/// Takes in a file of the browser's machine, one at a time, as a new file of a folder. On the server's thread, but for
/// the writing.
class LocalDrop {
 public:
  /// Clears the folder: what a killed process has left in it. `files` must outlive the drop.
  LocalDrop(FileManager& files, Path folder);
  ~LocalDrop();
  LocalDrop(const LocalDrop&) = delete;
  LocalDrop& operator=(const LocalDrop&) = delete;

  /// Why a file of so many bytes is not taken now: another one is, or there is no room for it and its repair.
  std::optional<Refusal> refuse(uint64_t size) const;

  /// Takes `size` bytes, those that have arrived in `buffer` first. Returns the file, or nothing when the browser gave
  /// up; nothing is left then. Throws PosixError when the file cannot be written.
  boost::asio::awaitable<std::optional<Path>> receive(boost::beast::tcp_stream& stream,
                                                      boost::beast::flat_buffer& buffer, uint64_t size);

  /// Removes a file that nobody has taken over.
  void discard(const Path& file) { removeIfExists(files_, file); }

 private:
  boost::asio::awaitable<bool> fill(boost::beast::tcp_stream& stream, boost::beast::flat_buffer& buffer,
                                    FileHandle& file, uint64_t size);

  FileManager& files_;
  const Path folder_;
  bool isBusy_ = false;
  boost::asio::thread_pool writing_{1};
};

}  // namespace tarn
