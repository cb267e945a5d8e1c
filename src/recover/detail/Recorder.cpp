#include "recover/detail/Recorder.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "fragments/TrackTables.h"
#include "media/AACBlock.h"
#include "media/AVAsset.h"
#include "media/AudioSpecificConfig.h"
#include "movie/MediaLayout.h"
#include "movie/MoovCheck.h"
#include "movie/TrackFields.h"
#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "mp4/SampleLocations.h"
#include "mp4/TableEntries.h"
#include "platform/Int128.h"
#include "recover/LostMoov.h"
#include "recover/detail/MediaWalk.h"

namespace tarn {
namespace {

constexpr const EditRules& rules = edit::remuxing;
constexpr uint64_t largestFtyp = 1 << 16;
constexpr uint64_t walkedAtMost = 32 << 20;  // bytes of the healthy movie's media

LostMoovError unfit(const std::string& why) {
  return LostMoovError(fmt::format("The healthy movie cannot serve: {}", why));
}

/// A four-character code to stand in a sentence; empty if it is no text.
std::string shown(std::string_view code) {
  return decodeUTF8(bytesOf(code));
}

/// A table of the track as a whole box; empty without one.
Bytes boxOf(const MovieBox& trak, std::string_view type) {
  const MovieBox* box = trak.find({"mdia", "minf", "stbl", type});
  return box ? box->plainBytes() : Bytes();
}

/// How long each sample lasts, track timescale; the last one may last otherwise. Nothing if they differ.
std::optional<uint32_t> constantDuration(const MovieBox& trak) {
  const Bytes box = boxOf(trak, "stts");
  const TableEntries entries(box, layout::runEntrySize, TableEntries::HugeCount::isCut);
  std::optional<uint32_t> duration;
  for (size_t i = 0; i < entries.size(); ++i) {
    const uint32_t delta = layout::load32(entries.entry(i), layout::runValue);
    const bool isLastSample =
        i > 0 && i + 1 == entries.size() && layout::load32(entries.entry(i), layout::runSampleCount) == 1;
    if (duration && delta != *duration && !isLastSample) return std::nullopt;
    if (!duration) duration = delta;
  }
  return duration && *duration > 0 ? duration : std::nullopt;
}

class RecorderReader {
 public:
  RecorderReader(FileManager& files, const Path& path)
      : files_(files), path_(path), file_(files.open(path, OpenMode::reading)) {}

  Recorder read() {
    readBoxes();
    readTracks();
    if (recorder_.pictures.codec == nullptr) throw unfit("it has no track of pictures");
    readPieces();
    walkOwnMedia();
    return std::move(recorder_);
  }

 private:
  /// A track's samples in the file.
  struct Places {
    std::unique_ptr<SampleLocations> samples;
    TrackTables tables;
  };

  void readBoxes() {
    layout_ = MediaLayout::scan(*file_, rules);
    const auto moov = layout_.moov(rules);
    if (!moov) throw unfit("its own moov is missing");
    moovBox_ = *moov;
    const Bytes bytes = readMoov(*file_, *moov, rules);
    recorder_.moov = MovieBox::parse(bytes, rules);
    if (recorder_.moov.find({"mvex"})) throw unfit("it is in fragments; repair it first");
    if (const auto ftyp = layout_.first("ftyp"); ftyp && ftyp->size <= largestFtyp) {
      file_->seek(ftyp->offset);
      recorder_.ftyp = file_->read(static_cast<size_t>(ftyp->size));
    }
  }

  void readTracks() {
    size_t trak = 0;
    for (const MovieBox& child : recorder_.moov.children) {
      if (child.type != "trak") continue;
      const MovieBox* stbl = child.find({"mdia", "minf", "stbl"});
      TrackTables tables = stbl ? TrackTables::read(*stbl) : TrackTables();
      if (tables.sampleCount() > 0) readTrack(child, trak, std::move(tables));
      ++trak;
    }
  }

  void readTrack(const MovieBox& trak, size_t index, TrackTables tables) {
    const std::string handler(handlerOf(trak));
    const bool isPictures = handler == "vide";
    if (!isPictures && handler != "soun") {
      recorder_.others.push_back({index, shown(handler)});
      otherTables_.push_back(std::move(tables));
      return;
    }
    if (isPictures ? recorder_.pictures.codec != nullptr : recorder_.sound.has_value()) {
      throw unfit(fmt::format("it has two tracks of {}", isPictures ? "pictures" : "sound"));
    }
    const Bytes stsd = boxOf(trak, "stsd");
    if (readUInt32(stsd, layout::entryCount.offset) != 1U) {
      throw unfit("a track has more than one sample entry, or none");
    }
    const auto timescale = headerTimescaleField.load(trak.find({"mdia", "mdhd"})).value_or(0);
    if (timescale == 0) throw unfit("a track has no timescale");
    const MP4BoxInfo box{moovBox_.offset + trak.offset, trak.oldSize, trak.type, static_cast<int>(trak.head.size())};
    const auto stbl = MP4BoxUtils::findDescendant(*file_, box, {"mdia", "minf", "stbl"});
    if (!stbl) throw unfit("a track has no sample table");
    Places& places = isPictures ? pictures_ : sound_;
    places.samples = std::make_unique<SampleLocations>(*file_, *stbl);
    places.tables = std::move(tables);
    if (places.samples->countInFile() != places.samples->count()) throw unfit("samples are missing at its end");
    if (isPictures) {
      readPictures(trak, index, stsd, static_cast<uint32_t>(timescale));
    } else {
      readSound(trak, index, static_cast<uint32_t>(timescale));
    }
  }

  void readPictures(const MovieBox& trak, size_t index, const Bytes& stsd, uint32_t timescale) {
    RecordedPictures& pictures = recorder_.pictures;
    const size_t tagEnd = layout::sampleEntryFormat.offset + layout::sampleEntryFormat.width;
    if (stsd.size() < tagEnd) throw unfit("its sample entry cannot be read");
    const std::string tag(textOf(ByteView(stsd).subspan(layout::sampleEntryFormat.offset, 4)));
    pictures.codec = codecOfTag(tag);
    if (pictures.codec == nullptr)
      throw unfit(fmt::format("its pictures are neither AVC nor HEVC (\"{}\")", shown(tag)));
    readConfiguration(stsd);
    pictures.trak = index;
    pictures.timescale = timescale;
    if (const auto duration = constantDuration(trak)) {
      pictures.ticks = *duration;
    } else {
      // The last one may last any time.
      pictures.count = std::max<uint64_t>(pictures_.tables.sampleCount(), 2) - 1;
      pictures.ticks = pictures_.tables.decodeTime(pictures.count);
      if (pictures.ticks < pictures.count || pictures.areSteady()) throw unfit("its pictures last no time");
    }
    pictures.firstCompositionTime = pictures_.tables.composition().start;
  }

  void readConfiguration(const Bytes& stsd) {
    RecordedPictures& pictures = recorder_.pictures;
    const size_t children = layout::tableHeaderSize + layout::visualEntrySize;
    BufferBoxWalker walker(stsd, children, stsd.size(), boxwalk::sampleEntryChildren);
    while (const auto box = walker.next()) {
      if (!pictures.codec->isConfigBox(box->type)) continue;
      const ByteView contents =
          ByteView(stsd).subspan(static_cast<size_t>(box->contentOffset()), static_cast<size_t>(box->contentSize()));
      const ConfigurationContents found = pictures.codec->readConfigBox(contents);
      if (!found.isComplete) break;
      pictures.sets = found.sets;
      pictures.prefixSize = static_cast<size_t>(found.nalLengthSize);
      pictures.configuration.assign(contents.begin(), contents.end());
      return;
    }
    throw unfit("its sample entry lacks parameter sets; repair it first");
  }

  void readSound(const MovieBox& trak, size_t index, uint32_t timescale) {
    const auto tracks = AVAsset(files_, path_).tracks(AVMediaType::audio);
    const auto track = std::ranges::find(tracks, moovBox_.offset + trak.offset,
                                         [](const AVAssetTrack& each) { return each.trak.offset; });
    if (track == tracks.end() || track->formatDescriptions.size() != 1) throw unfit("its sound cannot be read");
    const CMFormatDescription& format = *track->formatDescriptions.front();
    recorder_.sound = RecordedSound{.trak = index, .timescale = timescale};
    if (format.codec == "mp4a" && indicatesAAC(format.objectTypeIndication)) {
      readAAC(format);
    } else {
      readPCM(trak, format);
    }
  }

  void readAAC(const CMFormatDescription& format) {
    constexpr uint32_t framesInPacket = 1024;
    RecordedSound& sound = *recorder_.sound;
    const auto config = parseAudioSpecificConfig(format.magicCookie);
    if (!config || config->audioObjectType != objectTypeLC || config->framesPerPacket != framesInPacket) {
      throw unfit("its sound is another kind of AAC than AAC-LC");
    }
    sound.rate = config->sampleRate;
    sound.framesInSample = framesInPacket;
    sound.configuration = format.magicCookie;
    const SampleLocation first = sound_.samples->locate(0);
    file_->seek(first.offset);
    const auto block =
        AACBlockReader(sound.rate).read(file_->read(std::min<size_t>(first.size, AACBlockReader::longestBlock)));
    if (!block) throw unfit("the first packet of its sound cannot be read");
    sound.elements = block->elements;
  }

  void readPCM(const MovieBox& trak, const CMFormatDescription& format) {
    static constexpr std::array<std::string_view, 12> known{"sowt", "twos", "lpcm", "in24", "in32", "fl32",
                                                            "fl64", "ipcm", "fpcm", "ulaw", "alaw", "raw "};
    RecordedSound& sound = *recorder_.sound;
    if (std::ranges::find(known, format.codec) == known.end()) {
      throw unfit(fmt::format("its sound is neither AAC nor PCM (\"{}\")", shown(format.codec)));
    }
    if (!sound_.samples->haveOneSize() || constantDuration(trak) != 1U) {
      throw unfit("the samples of its PCM are not one block each");
    }
    sound.isPCM = true;
    sound.rate = sound.timescale;
    sound.framesInSample = 1;
    sound.blockSize = sound_.samples->sizeOf(0);
  }

  enum class Of { pictures, sound, others };
  struct Chunk {
    uint64_t offset;
    uint64_t size;
    Of what;
  };

  /// How long the pieces are that lie between pictures, and can be known by nothing else.
  void readPieces() {
    std::vector<Chunk> chunks;
    const auto add = [&](const TrackTables& tables, Of what) {
      tables.forEachChunk([&](uint64_t offset, uint64_t size) { chunks.push_back({offset, size, what}); });
    };
    add(pictures_.tables, Of::pictures);
    add(sound_.tables, Of::sound);
    for (const TrackTables& tables : otherTables_) add(tables, Of::others);
    std::ranges::sort(chunks, {}, &Chunk::offset);
    if (recorder_.sound && recorder_.sound->isPCM) recorder_.sound->pieces = piecesOf(chunks, Of::sound);
    recorder_.otherPieces = piecesOf(chunks, Of::others);
  }

  static std::vector<uint64_t> piecesOf(const std::vector<Chunk>& chunks, Of what) {
    std::vector<uint64_t> pieces;
    for (size_t i = 0; i < chunks.size(); ++i) {
      if (chunks[i].what != what) continue;
      uint64_t size = chunks[i].size;
      while (i + 1 < chunks.size() && chunks[i + 1].what == what &&
             chunks[i + 1].offset == chunks[i].offset + chunks[i].size) {
        size += chunks[++i].size;
      }
      if (size > 0) pieces.push_back(size);
    }
    std::ranges::sort(pieces);
    pieces.erase(std::unique(pieces.begin(), pieces.end()), pieces.end());
    constexpr size_t mostPieces = 1000;
    if (pieces.size() > mostPieces || (!pieces.empty() && pieces.back() >> 31 != 0)) {
      throw unfit(fmt::format("its {} no pattern", what == Of::sound ? "sound lies in" : "other tracks lie in"));
    }
    return pieces;
  }

  /// Holds what a walk finds against the tables.
  void walkOwnMedia() {
    uint64_t begin = pictures_.samples->locate(0).offset;
    uint64_t end = pictures_.tables.farthestEnd();
    if (recorder_.sound) {
      begin = std::min(begin, sound_.samples->locate(0).offset);
      end = std::max(end, sound_.tables.farthestEnd());
    }
    for (const BoxHeader& box : layout_.boxes) {
      if (box.type == "mdat" && box.contentOffset() <= begin && begin < box.end()) {
        recorder_.firstSample = begin - box.contentOffset();
      }
    }
    const uint64_t walkEnd = std::min(end, begin + walkedAtMost);
    const FoundMedia found = MediaWalk(*file_, recorder_, begin, walkEnd).run([](uint64_t) {});
    requireFound(found);
    if (found.isBroken() && (walkEnd == end || found.stop + largestPicture_ < walkEnd)) {
      throw unfit(fmt::format("its own media cannot be followed beyond byte {}", found.stop));
    }
    learn(found);
  }

  /// Throws LostMoovError if a sample before the walk's end is not among those found, or is another.
  void requireFound(const FoundMedia& found) {
    const auto require = [](bool isSame, uint64_t offset) {
      if (!isSame) throw unfit(fmt::format("at byte {} its media are not what its tables say", offset));
    };
    for (uint32_t i = 0; i < pictures_.samples->count(); ++i) {
      const auto [offset, size] = pictures_.samples->locate(i);
      largestPicture_ = std::max<uint64_t>(largestPicture_, size);
      if (offset + size > found.stop) break;
      require(i < found.pictures.size() && found.pictures[i].offset == offset && found.pictures[i].size == size,
              offset);
    }
    if (found.pictures.empty()) throw unfit("no picture was found in its media");
    if (!recorder_.sound || recorder_.sound->isPCM) return;
    for (uint32_t i = 0; i < sound_.samples->count(); ++i) {
      const auto [offset, size] = sound_.samples->locate(i);
      if (offset + size > found.stop) break;
      require(i < found.sound.size() && found.sound[i].offset == offset && found.sound[i].size == size, offset);
    }
  }

  void learn(const FoundMedia& found) {
    const uint32_t slices = found.pictures.front().slices;
    const bool isConstant =
        std::ranges::all_of(found.pictures, [&](const FoundPicture& picture) { return picture.slices == slices; });
    if (isConstant) recorder_.pictures.slices = slices;
    if (recorder_.sound) recorder_.longestPiece = longestPieceIn(found);
  }

  /// The longest row of samples of one track, in seconds.
  double longestPieceIn(const FoundMedia& found) const {
    const RecordedSound& sound = *recorder_.sound;
    const double picture = recorder_.pictures.seconds(1);
    double longest = 0;
    double row = 0;
    bool isSoundRow = false;
    const auto add = [&](bool isSound, double seconds) {
      row = isSound == isSoundRow ? row + seconds : seconds;
      isSoundRow = isSound;
      longest = std::max(longest, row);
    };
    auto next = found.sound.begin();
    const auto addSound = [&] {
      const uint32_t samples = sound.isPCM ? next->size / sound.blockSize : 1;
      add(true, static_cast<double>(samples) * sound.framesInSample / sound.rate);
      ++next;
    };
    for (const FoundPicture& each : found.pictures) {
      while (next != found.sound.end() && next->offset < each.offset) addSound();
      add(false, picture);
    }
    while (next != found.sound.end()) addSound();
    return longest;
  }

  FileManager& files_;
  const Path& path_;
  std::unique_ptr<FileHandle> file_;
  MediaLayout layout_;
  BoxHeader moovBox_;
  Recorder recorder_;
  Places pictures_;
  Places sound_;
  std::vector<TrackTables> otherTables_;
  uint64_t largestPicture_ = 0;
};

}  // namespace

int64_t RecordedPictures::timeOf(uint64_t picture) const {
  return static_cast<int64_t>(Int128{picture} * ticks / count);
}

double RecordedPictures::seconds(uint64_t pictures) const {
  return static_cast<double>(pictures) * static_cast<double>(ticks) / static_cast<double>(count) / timescale;
}

uint64_t RecordedSound::timeOf(uint64_t sample) const {
  return static_cast<uint64_t>(Int128{sample} * framesInSample * timescale / rate);
}

Recorder Recorder::read(FileManager& files, const Path& healthy) {
  try {
    return RecorderReader(files, healthy).read();
  } catch (const LostMoovError&) {
    throw;
  } catch (const PosixError&) {
    throw;
  } catch (const Error& failure) {
    throw unfit(fmt::format("it cannot be read ({})", failure.description()));
  }
}

}  // namespace tarn
