#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "media/AACBlock.h"
#include "parameters/PictureReader.h"
#include "recover/detail/ByteWindow.h"
#include "recover/detail/FoundMedia.h"
#include "recover/detail/Recorder.h"

namespace tarn {

/// Walks the media of a file from one byte to the next, without a table that says what they are: a unit of a picture
/// is one if its front parses, it ends inside the media, and it holds no start code; else it is sound, or the end.
class MediaWalk {
 public:
  /// Of the bytes from `begin` to `end`. Throws Error if the recorder's parameter sets cannot be read.
  MediaWalk(FileHandle& file, const Recorder& recorder, uint64_t begin, uint64_t end);

  /// `poll` hears where the walk is, at least every MiB, and may throw. Throws LostMoovError if the recorder has the
  /// walk look at the same bytes again and again.
  FoundMedia run(const std::function<void(uint64_t)>& poll);

 private:
  struct Unit {
    StreamUnit is;
    uint64_t size;  ///< with its prefix
  };
  /// A picture of which units have come, and no sign of its end.
  struct OpenPicture {
    FoundPicture picture;
    std::optional<uint64_t> units;  ///< where units begin that may belong to the next picture
  };

  std::optional<Unit> unitAt(uint64_t offset);
  std::optional<Unit> readUnit(uint64_t offset);
  bool isKnownSet(uint64_t offset, uint64_t size);
  bool takeUnit(const Unit& unit);
  bool takeSlice(const Unit& unit);
  bool takeSound();
  bool takeOther();
  uint64_t cost() const { return bytes_.work() + looked_; }
  void look(uint64_t more);
  bool mayHoldMoreSound() const;
  std::optional<uint32_t> packetSize();
  std::optional<uint32_t> pieceSize();
  void open(uint64_t offset) { open_ = OpenPicture{.picture = {.offset = offset}, .units = std::nullopt}; }
  void close(uint64_t end);
  void finish();

  const Recorder& recorder_;
  ByteWindow bytes_;
  std::unique_ptr<PictureReader> reader_;
  std::optional<AACBlockReader> packets_;
  const uint64_t begin_;
  uint64_t at_;
  uint64_t looked_ = 0;  ///< what it cost to look in vain, as bytes
  std::optional<OpenPicture> open_;
  FoundMedia found_;
};

}  // namespace tarn
