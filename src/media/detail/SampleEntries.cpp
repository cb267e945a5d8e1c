#include "media/detail/SampleEntries.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include "media/AudioSpecificConfig.h"
#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"

namespace tarn {
namespace {

constexpr size_t largestDescriptionBox = 16 << 20;
constexpr size_t mostEntries = 1 << 16;
constexpr size_t entriesInContents = layout::tableHeaderSize - layout::boxHeaderSize;

ByteView contentsOf(ByteView data, const BoxHeader& box) {
  auto header = std::min<size_t>(static_cast<size_t>(box.headerSize), data.size() - box.offset);
  auto inside = data.subspan(box.offset + header);
  return inside.first(std::min<size_t>(inside.size(), box.size - header));
}

/// The contents of the first box of this type in a row of boxes.
std::optional<ByteView> childContents(ByteView boxes, std::string_view type) {
  BufferBoxWalker walker(boxes, 0, boxes.size(), boxwalk::sampleEntryChildren);
  while (auto box = walker.next()) {
    if (box->type == type) return contentsOf(boxes, *box);
  }
  return std::nullopt;
}

// Descriptors of an `esds` (ISO/IEC 14496-1 7.2.6).
constexpr uint8_t tagESDescriptor = 3;
constexpr uint8_t tagDecoderConfig = 4;
constexpr uint8_t tagDecoderSpecificInfo = 5;
constexpr size_t decoderConfigFields = 13;

/// The contents of the first descriptor of this tag in a row of descriptors; a size beyond the end is cut.
std::optional<ByteView> descriptor(ByteView row, uint8_t tag) {
  while (row.size() >= 2) {
    uint8_t found = row[0];
    size_t size = 0;
    size_t at = 1;
    for (bool goesOn = true; goesOn && at < row.size() && at <= 4; ++at) {
      size = size << 7 | (row[at] & 0x7F);
      goesOn = (row[at] & 0x80) != 0;
    }
    row = row.subspan(at);
    size = std::min(size, row.size());
    if (found == tag) return row.first(size);
    row = row.subspan(size);
  }
  return std::nullopt;
}

ByteView behindESFields(ByteView contents) {
  if (contents.size() < 3) return {};
  uint8_t flags = contents[2];
  size_t at = 3;
  if (flags & 0x80) at += 2;                                              // dependsOn_ES_ID
  if (flags & 0x40) at += 1 + (at < contents.size() ? contents[at] : 0);  // URL
  if (flags & 0x20) at += 2;                                              // OCR_ES_Id
  return contents.subspan(std::min(at, contents.size()));
}

struct DecoderConfig {
  uint8_t objectTypeIndication = 0;
  ByteView specificInfo;
};

std::optional<DecoderConfig> parseESDS(ByteView contents) {
  if (contents.size() < 4) return std::nullopt;
  auto es = descriptor(contents.subspan(4), tagESDescriptor);
  auto config = es ? descriptor(behindESFields(*es), tagDecoderConfig) : std::nullopt;
  if (!config || config->size() < decoderConfigFields) return std::nullopt;
  auto info = descriptor(config->subspan(decoderConfigFields), tagDecoderSpecificInfo);
  return DecoderConfig{config->front(), info.value_or(ByteView{})};
}

/// The box that holds the decoder's configuration where that is no `esds`.
std::string_view configurationBox(std::string_view codec) {
  if (codec == "Opus") return "dOps";
  if (codec == "fLaC") return "dfLa";
  return codec == "alac" ? "alac" : std::string_view();
}

/// Fields that the entry's version places differently.
struct EntryFields {
  double sampleRate = 0;
  uint32_t channels = 0;
  ByteView children;
};

/// In an `stsd` of version 1 an entry of version 1 has the fields of version 0 (ISO/IEC 14496-12 12.2.3.2); elsewhere
/// versions are those of QuickTime. Nothing for an entry that ends within its fields.
std::optional<EntryFields> parseFields(ByteView entry, uint8_t descriptionVersion) {
  if (entry.size() < layout::audioEntrySize) return std::nullopt;
  unsigned version = descriptionVersion == 0 ? layout::load32(entry.data(), layout::audioEntryVersion) : 0;
  if (version == 2) {
    if (entry.size() < layout::audioEntrySizeVersion2) return std::nullopt;
    EntryFields fields{.children = entry.subspan(layout::audioEntrySizeVersion2)};
    auto rate = std::bit_cast<double>(layout::load(entry.data(), layout::audioRateVersion2));
    // A rate that is not a number counts as missing.
    if (rate > 0 && rate <= std::numeric_limits<int32_t>::max()) fields.sampleRate = rate;
    fields.channels = layout::load32(entry.data(), layout::audioChannelsVersion2);
    return fields;
  }
  size_t children = version == 1 ? layout::audioEntrySizeVersion1 : layout::audioEntrySize;
  return EntryFields{.sampleRate = static_cast<double>(layout::load(entry.data(), layout::audioRate)),
                     .channels = layout::load32(entry.data(), layout::audioChannels),
                     .children = entry.subspan(std::min(children, entry.size()))};
}

uint32_t codeOf(std::string_view codec) {
  return readUInt32(bytesOf(codec), 0).value_or(0);
}

/// Fills in what `mp4a` and its `esds` say.
void applyESDS(CMFormatDescription& description, AudioStreamBasicDescription& stream, ByteView children) {
  auto esds = childContents(children, "esds");
  if (!esds) {
    auto wave = childContents(children, "wave");  // where QuickTime keeps it
    if (wave) esds = childContents(*wave, "esds");
  }
  auto config = esds ? parseESDS(*esds) : std::nullopt;
  if (config) description.objectTypeIndication = config->objectTypeIndication;
  if (indicatesMPEGAudio(description.objectTypeIndication)) stream.mFormatID = fourCharacterCode(".mp3");
  if (!indicatesAAC(description.objectTypeIndication)) return;
  stream.mFormatID = kAudioFormatMPEG4AAC;
  stream.mFramesPerPacket = 1024;
  if (!config) return;
  description.magicCookie.assign(config->specificInfo.begin(), config->specificInfo.end());
  if (auto core = parseAudioSpecificConfig(config->specificInfo)) {
    stream.mSampleRate = core->sampleRate;
    stream.mFramesPerPacket = core->framesPerPacket;
    if (core->channels != 0) stream.mChannelsPerFrame = core->channels;
  }
}

void describeAudio(CMFormatDescription& description, ByteView entry, uint8_t descriptionVersion) {
  auto fields = parseFields(entry, descriptionVersion);
  if (!fields) return;
  AudioStreamBasicDescription stream{
      .mSampleRate = fields->sampleRate, .mFormatID = codeOf(description.codec), .mChannelsPerFrame = fields->channels};
  if (description.codec == "mp4a") {
    applyESDS(description, stream, fields->children);
  } else if (auto box = configurationBox(description.codec); !box.empty()) {
    if (auto contents = childContents(fields->children, box)) {
      description.magicCookie.assign(contents->begin(), contents->end());
    }
  }
  if (stream.mSampleRate > 0) description.streamDescription = stream;
}

}  // namespace

std::vector<CMFormatDescriptionPointer> readFormatDescriptions(FileHandle& file, const MP4BoxInfo& stsd, bool isAudio) {
  std::vector<CMFormatDescriptionPointer> descriptions;
  if (stsd.contentSize() > largestDescriptionBox) return descriptions;
  file.seek(stsd.contentOffset());
  Bytes contents = file.read(stsd.contentSize());
  if (contents.size() < entriesInContents) return descriptions;
  size_t count = std::min<size_t>(readUInt32(contents, 4).value(), mostEntries);
  BufferBoxWalker walker(contents, entriesInContents, contents.size(), boxwalk::buffer);
  while (descriptions.size() < count) {
    auto entry = walker.next();
    if (!entry) break;
    auto description = std::make_shared<CMFormatDescription>();
    description->codec = entry->type;
    ByteView whole = ByteView(contents).subspan(entry->offset);
    if (isAudio) describeAudio(*description, whole.first(std::min<size_t>(whole.size(), entry->size)), contents[0]);
    descriptions.push_back(std::move(description));
  }
  return descriptions;
}

}  // namespace tarn
