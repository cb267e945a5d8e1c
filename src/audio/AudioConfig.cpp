#include <algorithm>
#include <array>

#include "audio/AudioTranscoder.h"
#include "mp4/DataExtensions.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr int64_t lowComplexity = 2;  // audioObjectType
constexpr int64_t layer3 = 34;

/// The `mdia` and `minf` of the first track with sound.
struct SoundTrack {
  MP4BoxInfo mdia;
  MP4BoxInfo minf;
};

std::optional<SoundTrack> findSoundTrack(FileHandle& file, const MP4BoxInfo& moov) {
  for (uint64_t position = moov.contentOffset(); position < moov.end();) {
    file.seek(position);
    const auto trak = MP4BoxUtils::findBox(file, "trak", moov.end() - position);
    if (!trak || trak->end() <= position) return std::nullopt;
    position = trak->end();
    const auto mdia = MP4BoxUtils::findChildBox(file, *trak, "mdia");
    const auto minf = mdia ? MP4BoxUtils::findChildBox(file, *mdia, "minf") : std::nullopt;
    if (minf && MP4BoxUtils::findChildBox(file, *minf, "smhd")) return SoundTrack{*mdia, *minf};
  }
  return std::nullopt;
}

template <size_t size>
std::optional<uint32_t> readField(FileHandle& file, const std::optional<MP4BoxInfo>& box, auto offsetOf) {
  if (!box) return std::nullopt;
  std::array<uint8_t, size> contents{};
  file.seek(box->contentOffset());
  const ByteView read = ByteView(contents).first(file.readInto(contents));
  return read.empty() ? std::nullopt : readUInt32(read, offsetOf(read[0]));
}

std::optional<uint32_t> timescaleOf(FileHandle& file, const MP4BoxInfo& mdia) {
  return readField<32>(file, MP4BoxUtils::findChildBox(file, mdia, "mdhd"),
                       [](uint8_t version) -> size_t { return version != 0 ? 20 : 12; });
}

std::optional<uint32_t> firstDeltaOf(FileHandle& file, const MP4BoxInfo& minf) {
  const auto stbl = MP4BoxUtils::findChildBox(file, minf, "stbl");
  if (!stbl) return std::nullopt;
  return readField<16>(file, MP4BoxUtils::findChildBox(file, *stbl, "stts"), [](uint8_t) -> size_t { return 12; });
}

int64_t objectType(const CMFormatDescription& description) {
  const ByteView cookie = CMAudioFormatDescriptionGetMagicCookie(description);
  if (cookie.size() >= 2) return cookie[0] >> 3;
  // MPEG audio bears the same tag as AAC and has no configuration either; its packets must not pass as AAC.
  const bool isMPEGAudio = description.objectTypeIndication == 0x69 || description.objectTypeIndication == 0x6B;
  return isMPEGAudio ? layer3 : lowComplexity;
}

std::optional<std::string> whyNotReusable(const AudioConfigCheck& check, size_t descriptions) {
  if (descriptions > 1) return fmt::format("Multiple audio configurations detected ({} stsd entries)", descriptions);
  switch (check.aacObjectType) {
    case lowComplexity:
      break;
    case 5:
      return "HE-AAC v1 (SBR) requires full normalize";
    case 29:
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

AudioTranscoder::AudioTimingInfo AudioTranscoder::parseAudioTimingInfo(FileManager& files, const Path& fileURL) {
  AudioTimingInfo info;
  const auto file = openIfPossible(files, fileURL);
  if (!file) return info;
  try {
    const auto moov = MP4BoxUtils::findBox(*file, "moov", topLevelSearchLimit);
    const auto track = moov ? findSoundTrack(*file, *moov) : std::nullopt;
    if (!track) return info;
    if (auto timescale = timescaleOf(*file, track->mdia)) info.timescale = static_cast<int32_t>(*timescale);
    if (auto delta = firstDeltaOf(*file, track->minf)) info.sampleDelta = *delta;
    return info;
  } catch (const Error& failure) {
    log("AudioTranscoder: Error parsing audio timing info: {}", failure.description());
    return {};
  }
}

AudioConfigCheck AudioTranscoder::analyzeAudioConfig(FileManager& files, const Path& fileURL) {
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
  check.audioTimescale = timing.timescale;
  check.sampleDelta = timing.sampleDelta;
  check.reason = whyNotReusable(check, descriptions.size());
  check.matchesPassthroughTarget = !check.reason;
  return check;
}

RepairDecision AudioTranscoder::determineRepairDecision(const AudioAnalysisResult& analysisResult,
                                                        const AudioConfigCheck& configCheck,
                                                        std::span<const AudioAction> actions) {
  using Kind = RepairDecision::Kind;
  constexpr size_t mostActions = 10;
  constexpr double mostSilence = 5.0;  // seconds
  if (!configCheck.matchesPassthroughTarget) {
    return {Kind::fullNormalize, configCheck.reason.value_or("Config not passthrough-eligible")};
  }
  if (analysisResult.gapType == GapType::clean) return {Kind::skip, ""};
  if (analysisResult.gapType == GapType::initialOffsetOnly) return {Kind::editListOnly, ""};
  double totalSilence = 0;
  for (const AudioAction& action : actions) {
    totalSilence += static_cast<double>(action.durationTicks) / configCheck.audioTimescale;
  }
  if (actions.size() <= mostActions && totalSilence < mostSilence &&
      analysisResult.driftRate() < RepairDecision::tooHighDriftRate) {
    return {Kind::fastPath, ""};
  }
  return {Kind::fullNormalize,
          fmt::format("Complex repair ({} actions, {:.2f}s silence)", actions.size(), totalSilence)};
}

}  // namespace tarn
