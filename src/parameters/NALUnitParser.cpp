#include "parameters/NALUnitParser.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <set>
#include <string_view>

#include "mp4/DataExtensions.h"
#include "mp4/MP4RemuxError.h"
#include "parameters/AVCConfigurationBox.h"
#include "parameters/HEVCSPSParser.h"
#include "parameters/SetRules.h"
#include "parameters/detail/ParameterSetWalk.h"
#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {
namespace {

/// What a sample must look like to vote for a length size.
struct VoteRules {
  uint32_t smallestLength;  ///< of the first NAL unit
  bool checksType;          ///< the first NAL unit's type must be one that begins a picture's data, 1 to 12
};

/// All that the scan of one codec has of its own.
struct Scan {
  NALWalkRules walk;
  ParameterSetRules sets;
  VoteRules vote;
  std::string_view prefix;  ///< of the log lines that both scans have
  bool warnsOfSeveralDescriptions;
  bool reportsVotes;
  void (*reportStart)(size_t samples);
  void (*reportResult)(const ParameterSets& sets, size_t samples);
};

void reportKind(std::string_view name, const std::vector<Bytes>& units) {
  log("  - {}: {} unique sets ({} bytes first)", name, units.size(), units.front().size());
}

void reportHEVCSet(ParameterSetKind kind, size_t bytes, const std::optional<PictureSize>& size, size_t count) {
  if (kind != ParameterSetKind::sps || size) return;
  log("Found SPS ({} bytes) - resolution parsing failed (corrupt or unsupported format) - total SPS: {}", bytes, count);
}

void reportAVCSet(ParameterSetKind kind, size_t bytes, const std::optional<PictureSize>& size, size_t /*count*/) {
  if (kind == ParameterSetKind::pps) log("AVC: Found PPS ({} bytes)", bytes);
  if (size) log("AVC: Found SPS ({} bytes) - resolution: {}x{}", bytes, size->width, size->height);
}

void reportHEVCStart(size_t samples) {
  log("Scanning ALL {} IRAP samples for complete parameter set collection...", samples);
  log("Note: Parameter sets can change at any point in video (dynamic resolution)");
}

void reportAVCStart(size_t samples) {
  log("AVC: Scanning {} sync samples for parameter sets...", samples);
}

void reportHEVCResult(const ParameterSets& sets, size_t samples) {
  log("Successfully extracted ALL parameter sets from {} IRAP samples:", samples);
  reportKind("VPS", sets.vpsArray);
  reportKind("SPS", sets.spsArray);
  reportKind("PPS", sets.ppsArray);
  log("Parameter set collection is COMPLETE - scanned entire video for dynamic resolution support");
}

void reportAVCResult(const ParameterSets& sets, size_t samples) {
  log("AVC: Successfully extracted parameter sets from {} sync samples:", samples);
  reportKind("SPS", sets.spsArray);
  reportKind("PPS", sets.ppsArray);
  if (sets.hasResolutionChanges) log("  - Dynamic resolution changes detected");
}

std::optional<PictureSize> avcPictureSize(ByteView cleanedSPS) {
  return AVCConfigurationBox::parseSPSResolution(cleanedSPS.subspan(avcNALCodec.headerSize));
}

/// An HEVC picture's parameter sets stand ahead of its first slice.
constexpr Scan hevcScan{
    .walk = {.codec = hevcNALCodec, .stopsAtSlice = true, .logsDamage = true},
    .sets = {.codec = hevcNALCodec,
             .headerBytesInRbsp = 2,
             .pictureSize = NALUnitParser::parseSPSResolution,
             .identifier = parseHEVCParameterSetID,
             .isReadable = nullptr,
             .report = reportHEVCSet},
    .vote = {.smallestLength = 3, .checksType = false},
    .prefix = "",
    .warnsOfSeveralDescriptions = true,
    .reportsVotes = true,
    .reportStart = reportHEVCStart,
    .reportResult = reportHEVCResult,
};

constexpr Scan avcScan{
    .walk = {.codec = avcNALCodec, .stopsAtSlice = false, .logsDamage = false},
    .sets = {.codec = avcNALCodec,
             .headerBytesInRbsp = 0,
             .pictureSize = avcPictureSize,
             .identifier = parseAVCParameterSetID,
             .isReadable = nullptr,
             .report = reportAVCSet},
    .vote = {.smallestLength = 2, .checksType = true},
    .prefix = "AVC: ",
    .warnsOfSeveralDescriptions = false,
    .reportsVotes = false,
    .reportStart = reportAVCStart,
    .reportResult = reportAVCResult,
};

/// The length size for which a sample votes. A length must leave room for a second NAL unit, so that a sample of a
/// single one, which any length could fit by chance, has no vote.
std::optional<int> vote(FileHandle& file, const SampleInfo& sample, const Scan& scan) {
  SampleFront front(file, sample);
  ByteView bytes = front.at(0, 4 + scan.walk.codec.headerSize);
  if (bytes.size() < 4) return std::nullopt;
  auto isFirstOfSeveral = [&](int64_t length, size_t lengthSize) {
    auto room = int64_t{sample.size} - static_cast<int64_t>(lengthSize);
    if (length < scan.vote.smallestLength || length >= room) return false;
    if (bytes.size() < lengthSize + scan.walk.codec.headerSize) return false;
    uint8_t type = scan.walk.codec.type(bytes[lengthSize]);
    return !scan.vote.checksType || (type >= 1 && type <= 12);
  };
  uint32_t first4 = loadUInt32(bytes.first<4>());
  if (isFirstOfSeveral(first4, 4)) return 4;
  if (isFirstOfSeveral(first4 >> 16, 2)) return 2;
  return std::nullopt;
}

struct Votes {
  size_t for4 = 0;
  size_t for2 = 0;
};

Votes countVotes(FileHandle& file, std::span<const SampleInfo> samples, const Scan& scan) {
  uint64_t position = file.offset();
  Votes votes;
  for (const SampleInfo& sample : samples) {
    auto voted = vote(file, sample, scan);
    if (voted) ++(*voted == 4 ? votes.for4 : votes.for2);
  }
  file.seek(position);
  return votes;
}

int detectLengthSize(FileHandle& file, std::span<const SampleInfo> samples, const Scan& scan) {
  if (samples.empty()) {
    log("{}No samples provided for NAL length detection, defaulting to 4 bytes", scan.prefix);
    return 4;
  }
  Votes votes = countVotes(file, samples, scan);
  if (votes.for4 + votes.for2 == 0) {
    log("{}Could not detect NAL length size, defaulting to 4 bytes", scan.prefix);
    return 4;
  }
  if (scan.reportsVotes && votes.for4 > 0 && votes.for2 > 0) {
    log("WARNING: Detected inconsistent NAL length sizes across samples: [4: {}, 2: {}]", votes.for4, votes.for2);
    log("Using most common size");
  }
  int size = votes.for4 >= votes.for2 ? 4 : 2;
  if (scan.reportsVotes) {
    log("Detected NAL length size: {} bytes (verified across {} sample(s))", size, std::max(votes.for4, votes.for2));
  } else {
    log("{}Detected NAL length size: {} bytes", scan.prefix, size);
  }
  return size;
}

ParameterSets scanSamples(FileHandle& file, std::span<const SampleInfo> samples, int nalLengthSize, const Scan& scan) {
  scan.reportStart(samples.size());
  ParameterSetCollector collector(scan.sets);
  for (const SampleInfo& sample : samples) {
    ParameterSetWalk walk(file, sample, nalLengthSize, scan.walk);
    while (auto unit = walk.next()) collector.processNALUnit(std::move(*unit));
  }
  return std::move(collector).take();
}

std::unique_ptr<FileHandle> openForScan(FileManager& files, const Path& fileURL) {
  if (!files.fileExists(fileURL)) throw MP4RemuxError::fileNotFound();
  try {
    return files.open(fileURL, OpenMode::reading);
  } catch (const PosixError& failure) {
    throw MP4RemuxError::ioError(Error("FileHandle", -1, failure.description()));
  }
}

void warnOfSeveralDescriptions(const std::set<uint32_t>& indices) {
  if (indices.size() <= 1) return;
  log("WARNING: Track uses {} different sample descriptions (indices: [{}])", indices.size(), fmt::join(indices, ", "));
  log("Extracting parameter sets from all samples, but Phase 2 currently modifies only the first sample entry.");
  log("Multiple sample entry support is a future enhancement.");
}

std::vector<SampleInfo> findSyncSamples(FileHandle& file, const Scan& scan) {
  log("{}Locating moov box...", scan.prefix);
  auto moov = MP4BoxUtils::findTopLevelBox(file, "moov");
  if (!moov) throw MP4RemuxError::corruptedMP4("moov box not found");
  log("{}Locating video track stbl...", scan.prefix);
  auto stbl = NALUnitParser::findVideoTrackStbl(file, *moov);
  if (!stbl) throw MP4RemuxError::corruptedMP4("Video track stbl not found");
  MP4SampleTableParser table;
  table.parseSampleTable(file, *stbl);
  if (scan.warnsOfSeveralDescriptions) warnOfSeveralDescriptions(table.usedSampleDescriptionIndices());
  auto samples = table.syncSamplesOnly();
  log("{}Found {} sync samples to scan", scan.prefix, samples.size());
  if (samples.empty()) throw NALUnitParserError::noParameterSetsFound("there is no sync sample");
  return samples;
}

ExtractedParameterSets extract(FileManager& files, const Path& fileURL, const Scan& scan) {
  auto file = openForScan(files, fileURL);
  auto samples = findSyncSamples(*file, scan);
  ExtractedParameterSets result;
  std::span<const SampleInfo> voters(samples);
  result.nalLengthSize =
      detectLengthSize(*file, voters.first(std::min(NALUnitParser::votingSamples, voters.size())), scan);
  result.sets = scanSamples(*file, samples, result.nalLengthSize, scan);
  ParameterSets& sets = result.sets;
  dropTooLongSets(sets);
  if (auto missing = missingKinds(sets, scan.sets.codec); !missing.empty()) {
    throw NALUnitParserError::noParameterSetsFound(missing);
  }
  sets.isCollectionComplete = true;
  scan.reportResult(sets, samples.size());
  return result;
}

}  // namespace

ExtractedParameterSets NALUnitParser::extractParameterSets(FileManager& files, const Path& fileURL) {
  return extract(files, fileURL, hevcScan);
}

ExtractedParameterSets NALUnitParser::extractAVCParameterSets(FileManager& files, const Path& fileURL) {
  return extract(files, fileURL, avcScan);
}

std::optional<PictureSize> NALUnitParser::parseSPSResolution(ByteView cleanedSPS) {
  if (cleanedSPS.size() <= hevcNALCodec.headerSize) return std::nullopt;
  HEVCSPSInfo info;
  if (int32_t result = hevc_parse_sps(cleanedSPS.data(), cleanedSPS.size(), &info); result != 0) {
    log("WARNING: hevc_parse_sps failed (code {}), picture size unknown", result);
    return std::nullopt;
  }
  return PictureSize{.width = info.width, .height = info.height};
}

std::optional<PictureSize> NALUnitParser::parseShownSize(ByteView cleanedSPS) {
  uint32_t width = 0;
  uint32_t height = 0;
  if (hevc_parse_sps_shown_size(cleanedSPS.data(), cleanedSPS.size(), &width, &height) != 0) return std::nullopt;
  return PictureSize{.width = width, .height = height};
}

std::optional<MP4BoxInfo> NALUnitParser::findVideoTrackStbl(FileHandle& file, const MP4BoxInfo& moov) {
  auto box = MP4BoxUtils::findTrack(file, moov, MP4TrackType::video);
  for (std::string_view type : {"mdia", "minf", "stbl"}) {
    if (!box) return std::nullopt;
    file.seek(box->contentOffset());
    box = MP4BoxUtils::findBoxInContainer(file, *box, type);
  }
  return box;
}

int NALUnitParser::detectNALLengthSize(FileHandle& file, std::span<const SampleInfo> samples) {
  return detectLengthSize(file, samples, hevcScan);
}

int NALUnitParser::detectAVCNALLengthSize(FileHandle& file, std::span<const SampleInfo> samples) {
  return detectLengthSize(file, samples, avcScan);
}

HEVCParameterSets NALUnitParser::scanSamplesForParameterSets(FileHandle& file, std::span<const SampleInfo> samples,
                                                             int nalLengthSize) {
  return scanSamples(file, samples, nalLengthSize, hevcScan);
}

AVCParameterSets NALUnitParser::scanSamplesForAVCParameterSets(FileHandle& file, std::span<const SampleInfo> samples,
                                                               int nalLengthSize) {
  return scanSamples(file, samples, nalLengthSize, avcScan);
}

}  // namespace tarn
