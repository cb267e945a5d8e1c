#include "serve/HomeSocket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "platform/Error.h"

namespace tarn {
namespace {

constexpr const char* name = ".socket";
constexpr int backlog = 128;

Descriptor newSocket() {
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.isOpen()) throw PosixError(errno, "a socket");
  return socket;
}

sockaddr_un addressOf(const Path& path, int directory) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string text = path.string();
  // The longest path leaves room for the zero at its end.
  if (text.size() >= sizeof address.sun_path) text = fmt::format("/proc/self/fd/{}/{}", directory, name);
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
  return address;
}

/// A socket that this user's last owner has left.
bool isLeftBehind(const struct stat& facts) {
  return S_ISSOCK(facts.st_mode) && facts.st_uid == ::geteuid();
}

}  // namespace

HomeSocket::HomeSocket(const Path& home)
    : path_(home / name), directory_(::open(home.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
  if (!directory_.isOpen()) throw PosixError(errno, home.string());
}

Descriptor HomeSocket::listen() {
  struct stat facts {};
  if (::fstatat(*directory_, name, &facts, AT_SYMLINK_NOFOLLOW) == 0) {
    if (!isLeftBehind(facts)) throw Error("Home", -1, path_.string() + " is in the way: move it elsewhere");
    remove();
  }
  Descriptor socket = newSocket();
  const sockaddr_un address = addressOf(path_, *directory_);
  // The file gets the mode that the socket has when it is bound, so that it is never open to others.
  if (::fchmod(*socket, 0600) != 0 ||
      ::bind(*socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(*socket, backlog) != 0) {
    throw PosixError(errno, path_.string());
  }
  return socket;
}

void HomeSocket::remove() {
  ::unlinkat(*directory_, name, 0);
}

std::optional<Descriptor> HomeSocket::connect() {
  Descriptor socket = newSocket();
  const sockaddr_un address = addressOf(path_, *directory_);
  if (::connect(*socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno == ENOENT || errno == ECONNREFUSED || errno == EAGAIN || errno == EINTR) return std::nullopt;
    throw PosixError(errno, path_.string());
  }
  if (!isOwnUser(*socket)) throw Error("Home", -1, "Another user listens at " + path_.string());
  return socket;
}

bool HomeSocket::isOwnUser(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == ::geteuid();
}

}  // namespace tarn
