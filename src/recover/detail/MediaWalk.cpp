#include "recover/detail/MediaWalk.h"

#include <algorithm>
#include <limits>

#include "recover/LostMoov.h"

namespace tarn {
namespace {

constexpr uint64_t pollDistance = 1 << 20;
constexpr uint64_t pollCost = 64 << 20;
constexpr uint64_t largestSample = std::numeric_limits<uint32_t>::max();
/// 19 hours of 60 pictures a second: each takes memory.
constexpr size_t mostPictures = 1 << 22;
constexpr size_t mostSounds = 1 << 24;

// What a walk may cost, as bytes that are read: much more than it costs with any recorder.
constexpr uint64_t mostForAByte = 64;
constexpr uint64_t mostInAnyCase = 256 << 20;
constexpr uint64_t costOfNoUnit = 256;  // where one was looked for
constexpr uint64_t costOfNoPacket = 8 << 10;

}  // namespace

MediaWalk::MediaWalk(FileHandle& file, const Recorder& recorder, uint64_t begin, uint64_t end)
    : recorder_(recorder),
      bytes_(file, begin, end),
      reader_(PictureReader::make(*recorder.pictures.codec, recorder.pictures.sets)),
      begin_(begin),
      at_(begin) {
  if (recorder.sound && !recorder.sound->isPCM) packets_.emplace(recorder.sound->rate);
}

FoundMedia MediaWalk::run(const std::function<void(uint64_t)>& poll) {
  uint64_t told = at_, toldCost = 0;
  bool goesOn = true;
  while (goesOn && at_ < bytes_.end()) {
    const auto unit = unitAt(at_);
    goesOn = unit ? takeUnit(*unit) : takeSound() || takeOther();
    if (at_ - told >= pollDistance || cost() - toldCost >= pollCost) {
      poll(told = at_);
      toldCost = cost();
    }
  }
  finish();
  return std::move(found_);
}

/// A healthy movie may be made so that each byte is looked at again and again.
void MediaWalk::look(uint64_t more) {
  looked_ += more;
  const uint64_t size = bytes_.end() - std::min(begin_, bytes_.end());
  if (cost() <= mostInAnyCase + mostForAByte * size) return;
  throw LostMoovError("The media cannot be told apart with this healthy movie: take one of the same recorder");
}

std::optional<MediaWalk::Unit> MediaWalk::unitAt(uint64_t offset) {
  auto unit = readUnit(offset);
  look(unit ? 0 : costOfNoUnit);
  return unit;
}

std::optional<MediaWalk::Unit> MediaWalk::readUnit(uint64_t offset) {
  const size_t prefix = recorder_.pictures.prefixSize;
  const ByteView front = bytes_.at(offset, prefix + PictureReader::frontSize);
  if (front.size() <= prefix) return std::nullopt;
  uint64_t length = 0;
  for (size_t i = 0; i < prefix; ++i) length = length << 8 | front[i];
  if (length < 1 || length > bytes_.end() - offset - prefix) return std::nullopt;
  const size_t there = static_cast<size_t>(std::min<uint64_t>(length, front.size() - prefix));
  const auto unit = reader_->read(front.subspan(prefix, there));
  if (!unit) return std::nullopt;
  const uint64_t end = offset + prefix + length;
  if (!bytes_.isFreeOfStartCodes(offset + prefix, end)) return std::nullopt;
  // Some writers leave a zero byte of the next start code at the end of a unit.
  const ByteView last = bytes_.at(end - 2, 2);
  if (last.size() < 2 || (last[0] == 0 && last[1] == 0)) return std::nullopt;
  if (unit->role == StreamUnit::Role::ahead && !isKnownSet(offset + prefix, length)) return std::nullopt;
  return Unit{.is = *unit, .size = prefix + length};
}

/// False for a parameter set that the sample entry does not hold.
bool MediaWalk::isKnownSet(uint64_t offset, uint64_t size) {
  const NALCodec& codec = recorder_.pictures.codec->nal;
  const ByteView first = bytes_.at(offset, 1);
  const auto kind = first.empty() ? std::nullopt : codec.parameterSetKind(codec.type(first[0]));
  if (!kind) return true;
  if (size > longestStoredSet) return false;
  const ByteView unit = bytes_.at(offset, static_cast<size_t>(size));
  return std::ranges::any_of(unitsOf(recorder_.pictures.sets, *kind),
                             [&](const Bytes& known) { return std::ranges::equal(known, unit); });
}

bool MediaWalk::takeUnit(const Unit& unit) {
  if (unit.is.role == StreamUnit::Role::slice) {
    if (!takeSlice(unit)) return false;
  } else if (unit.is.role == StreamUnit::Role::behind) {
    if (!open_ || open_->picture.slices == 0) return false;
  } else if (!open_) {
    open(at_);
  } else if (open_->picture.slices > 0 && !open_->units) {
    open_->units = at_;
  }
  at_ += unit.size;
  return true;
}

bool MediaWalk::takeSlice(const Unit& unit) {
  const auto order = unit.is.isFirst ? reader_->order(unit.is) : std::nullopt;
  if (order) {
    if (found_.pictures.size() == mostPictures) return false;
    const uint64_t begin = open_ && open_->units ? *open_->units : at_;
    if (open_ && open_->picture.slices > 0) close(begin);
    if (!open_) open(begin);
    open_->picture.order = *order;
    open_->picture.isSync = unit.is.isSync;
  } else if (!open_ || open_->picture.slices == 0 || (!unit.is.isFirst && open_->units)) {
    return false;
  }
  open_->units.reset();
  ++open_->picture.slices;
  return true;
}

bool MediaWalk::takeSound() {
  if (!recorder_.sound || (open_ && (open_->picture.slices == 0 || open_->units)) || !mayHoldMoreSound()) return false;
  const auto size = recorder_.sound->isPCM ? pieceSize() : packetSize();
  if (!size) return false;
  if (open_) close(at_);
  if (found_.sound.size() == mostSounds) return false;
  found_.sound.push_back({.offset = at_, .size = *size});
  at_ += *size;
  return true;
}

/// A few bytes may pass for a packet: no recorder gets ahead of its pictures by any number of them.
bool MediaWalk::mayHoldMoreSound() const {
  const bool isOfTheRecorder = recorder_.longestPiece == 0;
  if (isOfTheRecorder || recorder_.sound->isPCM) return true;
  constexpr double slack = 1.25, seconds = 10;
  return found_.secondsOfSound(*recorder_.sound) <=
         slack * found_.secondsOfPictures(recorder_.pictures) + recorder_.longestPiece + seconds;
}

/// What belongs to neither is as long as such a piece of the healthy movie, and a picture, sound or the end follows.
bool MediaWalk::takeOther() {
  if (open_ && (open_->picture.slices == 0 || open_->units)) return false;
  const uint64_t begin = at_, rest = bytes_.end() - at_;
  for (const uint64_t piece : recorder_.otherPieces) {
    if (piece > rest) break;
    at_ = begin + piece;
    const bool isKnownBehind = piece == rest || unitAt(at_) || (packets_ && packetSize());
    if (!isKnownBehind) continue;
    if (open_) close(begin);
    return true;
  }
  at_ = begin;
  return false;
}

std::optional<uint32_t> MediaWalk::packetSize() {
  const auto block = packets_->read(bytes_.at(at_, AACBlockReader::longestBlock));
  const bool isOne = block && block->elements == recorder_.sound->elements;
  look(isOne ? 0 : costOfNoPacket);
  return isOne ? std::optional(static_cast<uint32_t>(block->size)) : std::nullopt;
}

/// A piece of PCM is as long as one of the healthy movie's, and a picture or the end follows. At the end a recorder
/// writes what it still holds.
std::optional<uint32_t> MediaWalk::pieceSize() {
  const std::vector<uint64_t>& pieces = recorder_.sound->pieces;
  const uint64_t rest = bytes_.end() - at_;
  for (const uint64_t piece : pieces) {
    if (piece > rest) break;
    if (piece == rest || unitAt(at_ + piece)) return static_cast<uint32_t>(piece);
  }
  if (rest > 2 * pieces.back() || rest % recorder_.sound->blockSize != 0) return std::nullopt;
  return static_cast<uint32_t>(rest);
}

void MediaWalk::close(uint64_t end) {
  open_->picture.size = static_cast<uint32_t>(std::min(end - open_->picture.offset, largestSample));
  found_.pictures.push_back(open_->picture);
  open_.reset();
}

/// Of a picture at which the walk stopped, slices may be missing.
void MediaWalk::finish() {
  found_.end = bytes_.end();
  found_.stop = at_;
  if (!open_) return;
  const bool hasNext = open_->units.has_value();
  const bool isWhole = hasNext || at_ == bytes_.end() || open_->picture.slices == recorder_.pictures.slices;
  if (hasNext) found_.stop = *open_->units;
  if (open_->picture.slices > 0 && isWhole) {
    close(found_.stop);
  } else {
    found_.stop = open_->picture.offset;
  }
}

}  // namespace tarn
