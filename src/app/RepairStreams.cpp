#include "app/RepairStreams.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "pipeline/CancellationToken.h"
#include "platform/Error.h"
#include "platform/host/PosixCalls.h"
#include "platform/host/PosixFileHandle.h"

namespace tarn {
namespace {

constexpr size_t pieceSize = 1 << 20;
constexpr int betweenLooks = 200;  // ms

void waitForInput(const std::stop_token& cancel) {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  while (::poll(&input, 1, betweenLooks) <= 0) {
    if (cancel.stop_requested()) throw CancellationError();
  }
}

}  // namespace

Path RepairStreams::readInput(const std::stop_token& cancel) {
  home_.make();
  Path path = home_.path() / "standard input";
  PosixFileHandle file(path, OpenMode::exclusive);
  Bytes piece(pieceSize);
  for (;;) {
    waitForInput(cancel);
    const ssize_t count = repeatInterrupted([&] { return ::read(STDIN_FILENO, piece.data(), piece.size()); });
    if (count < 0) throw PosixError(errno, "read standard input");
    if (count == 0) break;
    file.write(ByteView(piece).first(static_cast<size_t>(count)));
  }
  file.close();
  return path;
}

Path RepairStreams::output() {
  home_.make();
  return home_.path() / "standard output";
}

void RepairStreams::writeOutput() {
  PosixFileHandle file(home_.path() / "standard output", OpenMode::reading);
  for (Bytes piece = file.read(pieceSize); !piece.empty(); piece = file.read(pieceSize)) {
    if (!writeAll(STDOUT_FILENO, textOf(piece))) throw PosixError(errno, "write to standard output");
  }
}

}  // namespace tarn
