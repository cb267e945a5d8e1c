#include "poster/KeyPictures.h"

#include <algorithm>
#include <optional>

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4BoxUtils.h"
#include "mp4/MP4SampleTableParser.h"
#include "mp4/TimeHeader.h"
#include "parameters/VideoCodec.h"
#include "platform/Error.h"

namespace tarn {
namespace {

constexpr size_t largestStsd = 1 << 20;
constexpr size_t largestSample = 32 << 20;

Error noPicture(const char* why) {
  return Error("Poster", -1, why);
}

MP4BoxInfo need(const std::optional<MP4BoxInfo>& box, const char* why) {
  if (!box) throw noPicture(why);
  return *box;
}

/// The sample entry of this number, from 1.
std::optional<BoxHeader> sampleEntry(ByteView stsd, uint32_t number) {
  BufferBoxWalker walker(stsd, layout::tableHeaderSize, stsd.size(), boxwalk::movieBuffer);
  std::optional<BoxHeader> entry;
  for (uint32_t i = 0; i < number; ++i) {
    entry = walker.next();
    if (!entry) return std::nullopt;
  }
  return entry;
}

void readEntry(ByteView stsd, const BoxHeader& entry, KeyPictures& pictures) {
  if (entry.size < layout::visualEntrySize || isEncryptedVideo(entry.type)) return;
  const auto start = static_cast<size_t>(entry.offset);
  const auto end = static_cast<size_t>(std::min<uint64_t>(entry.end(), stsd.size()));
  BufferBoxWalker walker(stsd, start + layout::visualEntrySize, end, boxwalk::sampleEntryChildren);
  while (const auto child = walker.next()) {
    const auto at = static_cast<size_t>(child->contentOffset());
    const ByteView contents = stsd.subspan(at, static_cast<size_t>(child->contentSize()));
    if (const VideoCodec* codec = codecOfConfigBox(child->type); codec && !pictures.codec) {
      pictures.codec = codec;
      pictures.configuration.assign(contents.begin(), contents.end());
    }
    if (child->type == "pasp" && contents.size() >= 8) {
      pictures.pixelWidth = *readUInt32(contents, 0);
      pictures.pixelHeight = *readUInt32(contents, 4);
    }
  }
}

PictureTurn turnOf(const std::string& matrix) {
  const ByteView bytes = bytesOf(matrix);
  if (bytes.size() < 20) return {};
  const auto at = [&](size_t offset) { return static_cast<int32_t>(*readUInt32(bytes, offset)); };
  return {.right = {at(0), at(4)}, .down = {at(12), at(16)}};
}

/// Nothing for one that does not lie whole in the file.
std::optional<Bytes> readSample(FileHandle& file, const SampleInfo& sample) {
  if (sample.size == 0 || sample.size > largestSample) return std::nullopt;
  file.seek(sample.fileOffset);
  Bytes bytes = file.read(sample.size);
  return bytes.size() == sample.size ? std::optional(std::move(bytes)) : std::nullopt;
}

}  // namespace

KeyPictures readKeyPictures(FileHandle& file, size_t count) {
  const auto moov = need(MP4BoxUtils::findTopLevelBox(file, "moov"), "no moov");
  const auto trak = need(MP4BoxUtils::findTrack(file, moov, MP4TrackType::video), "no video track");
  const auto stbl = need(MP4BoxUtils::findDescendant(file, trak, {"mdia", "minf", "stbl"}), "no sample table");
  const auto stsdBox = need(MP4BoxUtils::findChildBox(file, stbl, "stsd"), "no stsd");
  file.seek(stsdBox.offset);
  const Bytes stsd = file.read(static_cast<size_t>(std::min<uint64_t>(stsdBox.size, largestStsd)));

  MP4SampleTableParser table;
  table.parseSampleTable(file, stbl);
  KeyPictures pictures{.turn = turnOf(readTrackHeader(file, trak).matrix)};
  std::optional<uint32_t> entryNumber;
  const auto& syncSamples = table.syncSamples();
  const size_t most = syncSamples.empty() ? table.sampleCount() : syncSamples.size();
  for (size_t i = 0; i < most && pictures.samples.size() < count; ++i) {
    const int64_t index = syncSamples.empty() ? static_cast<int64_t>(i) : int64_t{syncSamples[i]} - 1;
    const auto number = table.sampleDescriptionIndex(index);
    if (!number || (entryNumber && entryNumber != number)) break;
    if (!entryNumber) {
      entryNumber = number;
      const auto entry = sampleEntry(stsd, *number);
      if (entry) readEntry(stsd, *entry, pictures);
      if (!pictures.codec) throw noPicture("no AVC and no HEVC");
    }
    if (auto sample = readSample(file, table.sampleInfo(index))) pictures.samples.push_back(std::move(*sample));
  }
  return pictures;
}

}  // namespace tarn
