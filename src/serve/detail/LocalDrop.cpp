#include "serve/detail/LocalDrop.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/TempFile.h"

namespace tarn {

namespace asio = boost::asio;
namespace beast = boost::beast;

namespace {

constexpr size_t pieceSize = 256 << 10;
constexpr std::chrono::seconds pieceTime{30};
/// What stays free beside the file and its repaired copy.
constexpr uint64_t reserve = 64 << 20;

asio::awaitable<void> writePiece(FileHandle& file, ByteView bytes) {
  file.write(bytes);
  co_return;
}

}  // namespace

LocalDrop::LocalDrop(FileManager& files, Path folder) : files_(files), folder_(std::move(folder)) {
  removeIfExists(files_, folder_);
}

LocalDrop::~LocalDrop() {
  writing_.join();
}

std::optional<Refusal> LocalDrop::refuse(uint64_t size) const {
  if (isBusy_) return Refusal{409, "Another file is on its way in. Wait until it is there."};
  const auto space = files_.freeSpace(folder_.parent_path());
  if (space && (*space < reserve || (*space - reserve) / 2 < size)) {
    return Refusal{507, "There is not enough free space for the file and its repair."};
  }
  return std::nullopt;
}

asio::awaitable<std::optional<Path>> LocalDrop::receive(beast::tcp_stream& stream, beast::flat_buffer& buffer,
                                                        uint64_t size) {
  struct Busy {
    bool& flag;
    explicit Busy(bool& busy) : flag(busy) { flag = true; }
    ~Busy() { flag = false; }
  };
  const Busy busy(isBusy_);
  files_.createDirectory(folder_);
  const Path path = folder_ / makeUUID();
  const auto file = files_.open(path, OpenMode::exclusive);
  TempFile made(files_, path);
  auto filling = fill(stream, buffer, *file, size);
  const bool isWhole = co_await std::move(filling);
  if (!isWhole) co_return std::nullopt;
  file->close();
  made.keep();
  co_return path;
}

asio::awaitable<bool> LocalDrop::fill(beast::tcp_stream& stream, beast::flat_buffer& buffer, FileHandle& file,
                                      uint64_t size) {
  Bytes piece(pieceSize);
  const auto early = buffer.cdata();
  size_t count = static_cast<size_t>(std::min<uint64_t>(early.size(), size));
  std::copy_n(static_cast<const uint8_t*>(early.data()), count, piece.begin());
  for (uint64_t left = size;;) {
    auto work = writePiece(file, ByteView(piece).first(count));
    co_await asio::co_spawn(writing_, std::move(work), asio::use_awaitable);
    left -= count;
    if (left == 0) co_return true;
    const auto target = asio::buffer(piece.data(), static_cast<size_t>(std::min<uint64_t>(left, pieceSize)));
    stream.expires_after(pieceTime);
    const auto [failure, received] = co_await stream.async_read_some(target, quietly);
    if (failure) co_return false;
    count = received;
  }
}

}  // namespace tarn
