#include "audio/analysis/AudioConfig.h"

#include <algorithm>
#include <array>

#include "audio/analysis/SoundTracks.h"
#include "media/AVAsset.h"
#include "media/AudioSpecificConfig.h"
#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "mp4/TimeHeader.h"
#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {
namespace {

std::optional<uint32_t> firstDeltaOf(FileHandle& file, const MP4BoxInfo& minf) {
  const auto stts = MP4BoxUtils::findDescendant(file, minf, {"stbl", "stts"});
  if (!stts) return std::nullopt;
  constexpr size_t firstDelta = layout::tableHeaderSize + layout::runValue.offset - layout::boxHeaderSize;
  std::array<uint8_t, firstDelta + layout::runValue.width> contents{};
  file.seek(stts->contentOffset());
  return readUInt32(ByteView(contents).first(file.readInto(contents)), firstDelta);
}

int64_t objectType(const CMFormatDescription& description) {
  if (const auto type = announcedObjectType(CMAudioFormatDescriptionGetMagicCookie(description))) return *type;
  // MPEG audio has the same tag as AAC and has no configuration either; its packets must not pass as AAC.
  return indicatesMPEGAudio(description.objectTypeIndication) ? objectTypeLayer3 : objectTypeLC;
}

std::optional<std::string> whyNotReusable(const AudioConfigCheck& check, size_t descriptions) {
  if (descriptions > 1) return fmt::format("Multiple audio configurations detected ({} stsd entries)", descriptions);
  switch (check.aacObjectType) {
    case objectTypeLC:
      break;
    case objectTypeSBR:
      return "HE-AAC v1 (SBR) requires full normalize";
    case objectTypePS:
      return "HE-AAC v2 (PS) requires full normalize";
    default:
      return fmt::format("Non-AAC-LC codec (object type {}) requires full normalize", check.aacObjectType);
  }
  if (std::ranges::find(AudioConfigCheck::supportedSampleRates, check.sampleRate) ==
      AudioConfigCheck::supportedSampleRates.end()) {
    return fmt::format("Sample rate {} Hz not supported (supported: 24000, 44100, 48000)", check.sampleRate);
  }
  if (check.channelCount != AudioConfigCheck::targetChannelCount) {
    return fmt::format("Channel count {} != target 2", check.channelCount);
  }
  return std::nullopt;
}

std::unique_ptr<FileHandle> openIfPossible(FileManager& files, const Path& path) {
  try {
    return files.open(path, OpenMode::reading);
  } catch (const PosixError&) {
    return nullptr;
  }
}

AudioConfigCheck unreadable(const char* reason) {
  AudioConfigCheck check;
  check.reason = reason;
  return check;
}

}  // namespace

AudioTimingInfo parseAudioTimingInfo(FileManager& files, const Path& fileURL) {
  AudioTimingInfo info;
  const auto file = openIfPossible(files, fileURL);
  if (!file) return info;
  try {
    const auto moov = MP4BoxUtils::findTopLevelBox(*file, "moov");
    const auto track = moov ? SoundTracks(*file, *moov).next() : std::nullopt;
    if (!track) return info;
    const auto header = readTimeHeader(*file, track->mdia, "mdhd");
    if (header) info.timescale = static_cast<int32_t>(header->timescale);
    if (auto delta = firstDeltaOf(*file, track->minf)) info.sampleDelta = *delta;
    return info;
  } catch (const Error& failure) {
    log("AudioTranscoder: Error parsing audio timing info: {}", failure.description());
    return {};
  }
}

AudioConfigCheck analyzeAudioConfig(FileManager& files, const Path& fileURL) {
  const auto tracks = AVAsset(files, fileURL).tracks(AVMediaType::audio);
  if (tracks.empty()) return unreadable("No audio track found");
  const auto& descriptions = tracks.front().formatDescriptions;
  if (descriptions.empty()) return unreadable("Cannot read audio format description");
  const auto* stream = CMAudioFormatDescriptionGetStreamBasicDescription(*descriptions.front());
  if (!stream) return unreadable("Cannot read audio stream basic description");
  const AudioTimingInfo timing = parseAudioTimingInfo(files, fileURL);
  AudioConfigCheck check;
  check.isStable = descriptions.size() == 1;
  check.sampleRate = static_cast<int64_t>(stream->mSampleRate);
  check.channelCount = stream->mChannelsPerFrame;
  check.aacObjectType = objectType(*descriptions.front());
  check.isAAC = isPacketizedAAC(*stream);
  check.audioTimescale = timing.timescale;
  check.sampleDelta = timing.sampleDelta;
  check.reason = whyNotReusable(check, descriptions.size());
  check.matchesPassthroughTarget = !check.reason;
  return check;
}

}  // namespace tarn
