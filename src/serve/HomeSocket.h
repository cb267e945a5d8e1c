#pragma once

#include <optional>

#include "platform/FileManager.h"
#include "platform/host/Descriptor.h"

namespace tarn {

/// The socket `<home>/.socket`, on which the process that owns a home answers the other commands of its user. A path
/// that is too long for a socket's address is reached through the directory's descriptor.
class HomeSocket {
 public:
  /// Throws PosixError when the home cannot be opened.
  explicit HomeSocket(const Path& home);

  /// Listens, with mode 0600; the caller owns the home. The socket of an owner that is gone is replaced. Throws Error
  /// when anything else stands at the path, or the file system takes no sockets.
  Descriptor listen();

  /// Removes the socket, so that nobody finds it any more.
  void remove();

  /// Connects. Returns nothing when nobody listens. Throws Error when another user listens, or the path is closed to
  /// this one.
  std::optional<Descriptor> connect();

  /// True when the process at the other end runs as the user of this one.
  static bool isOwnUser(int socket);

  /// What both ends must speak alike. The owner says it first on each connection: {"protocol": 1}.
  static constexpr int64_t protocol = 1;

 private:
  const Path path_;
  const Descriptor directory_;
};

}  // namespace tarn
