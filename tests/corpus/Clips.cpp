#include "corpus/Clips.h"

#include <fmt/args.h>
#include <fmt/format.h>

#include <algorithm>
#include <fstream>

#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/MediaMaker.h"
#include "support/ProbedMovie.h"

namespace tarn::test {
namespace {

Path textFile(const std::string& name, const std::string& text) {
  const Path file = mediaCache() / name;
  const Path draft = file.string() + makeUUID();
  std::ofstream(draft) << text;
  std::filesystem::rename(draft, file);
  return file;
}

/// A visual sample entry and its configuration box.
BoxTree& entryOf(BoxTree& moov) {
  return moov.track("vide")->at("mdia/minf/stbl/stsd").children.front();
}
std::vector<BoxTree>::iterator configurationOf(BoxTree& entry) {
  return std::ranges::find_if(entry.children, [](const BoxTree& b) { return b.type == "avcC" || b.type == "hvcC"; });
}

size_t uint16At(const Bytes& bytes, size_t at) {
  return size_t{bytes.at(at)} << 8 | bytes.at(at + 1);
}

/// Units with a 16-bit length ahead of each, from `begin` on.
size_t endOfUnits(const Bytes& bytes, size_t begin, size_t count) {
  for (; count > 0; --count) begin += 2 + uint16At(bytes, begin);
  return begin;
}

bool holds(const std::vector<int>& types, int type) {
  return std::ranges::find(types, type) != types.end();
}

/// The records of ISO/IEC 14496-15, 5.3.3.1 (with the SPS or without a set) and 8.3.3.1 (with the arrays of these
/// types).
Bytes filteredAVC(const Bytes& record, const std::vector<int>& types) {
  const auto begin = record.begin();
  const Bytes sps = holds(types, 7) ? Bytes(begin + 6, begin + ptrdiff_t(endOfUnits(record, 6, 1))) : Bytes();
  return joined({Bytes(begin, begin + 5), {uint8_t(sps.empty() ? 0xE0 : 0xE1)}, sps, {0}});
}

Bytes filteredHEVC(const Bytes& record, const std::vector<int>& types) {
  Bytes kept(record.begin(), record.begin() + 23);
  kept[22] = 0;
  size_t at = 23;
  for (int array = 0; array < record.at(22); ++array) {
    const size_t end = endOfUnits(record, at + 3, uint16At(record, at + 1));
    if (holds(types, record.at(at) & 63)) {
      kept.insert(kept.end(), record.begin() + ptrdiff_t(at), record.begin() + ptrdiff_t(end));
      ++kept[22];
    }
    at = end;
  }
  return kept;
}

}  // namespace

Path clip(const ClipRecipe& r) {
  std::string arguments;
  if (!r.video.empty()) {
    arguments += fmt::format(
        "-f lavfi -i testsrc=s={}:r={}:d={},drawbox=enable='between(mod(t,1),0.19,0.21)':color=white:t=fill ", r.size,
        r.rate, r.seconds);
  }
  if (!r.audio.empty()) {
    arguments += fmt::format(
        "-f lavfi -i aevalsrc='0.05*sin(2*PI*440*t)+0.8*sin(2*PI*1000*t)*between(mod(t,1),0.2,0.24)':s={}:d={} ",
        r.audioRate, r.audioSeconds > 0 ? r.audioSeconds : r.seconds);
  }
  return madeByFFmpeg(words(arguments + r.video + " " + r.audio + " " + r.muxer), r.ending);
}

Path muxed(const std::string& arguments, const std::vector<Path>& clips, const std::string& ending) {
  fmt::dynamic_format_arg_store<fmt::format_context> inputs;
  for (const Path& input : clips) inputs.push_back(input.string());
  return madeByFFmpeg(words(fmt::vformat(arguments, inputs)), ending);
}

Path joinedClips(const ClipRecipe& first, const ClipRecipe& second, const std::string& audio, const std::string& tag) {
  const Path audioClip = clip({.video = "", .audio = audio, .seconds = first.seconds + second.seconds});
  return muxed("-i {0} -i {1} -map 0:v -map 1:a -c copy -tag:v " + tag,
               {concatenated({clip(first), clip(second)}, tag), audioClip});
}

Maker made(const ClipRecipe& recipe) {
  return [recipe](const Path&) { return clip(recipe); };
}

Maker made(const std::string& arguments, const std::vector<ClipRecipe>& recipes, const std::string& ending) {
  return [=](const Path&) {
    std::vector<Path> clips;
    for (const ClipRecipe& recipe : recipes) clips.push_back(clip(recipe));
    return muxed(arguments, clips, ending);
  };
}

Path edited(const Path& file, const std::vector<Edit>& edits, const Path& directory) {
  MovieLayout layout(contentsOf(file));
  BoxTree moov(layout.moov);
  for (const Edit& edit : edits) edit(moov);
  layout.moov = moov.bytes();
  const Path result = directory / (makeUUID() + file.extension().string());
  PosixFileManager files(directory);
  writeFileAtomically(files, result, layout.build("ftyp mdat moov"));
  return result;
}

Maker edited(const Maker& base, const std::vector<Edit>& edits) {
  return [=](const Path& directory) { return edited(base(directory), edits, directory); };
}

Path withFarMoov(const Path& file, const Path& directory) {
  const MovieLayout layout(contentsOf(file));
  const Bytes near = layout.build("ftyp mdat moov");
  const auto split = static_cast<ptrdiff_t>(near.size() - layout.moov.size());
  const Path result = directory / (makeUUID() + ".mp4");
  constexpr uint32_t room = 101 << 20;
  const Bytes head = joined({Bytes(near.begin(), near.begin() + split), boxClaiming(room, "free")});
  std::ofstream stream(result, std::ios::binary);
  stream.write(reinterpret_cast<const char*>(head.data()), ptrdiff_t(head.size()));
  stream.seekp(split + room);
  stream.write(reinterpret_cast<const char*>(near.data()) + split, ptrdiff_t(near.size()) - split);
  return result;
}

Maker withFarMoov(const Maker& base) {
  return [=](const Path& directory) { return withFarMoov(base(directory), directory); };
}

Path subtitles() {
  return textFile("one.srt", "1\n00:00:00,500 --> 00:00:01,500\nOne\n\n2\n00:00:02,000 --> 00:00:03,500\nTwo\n");
}

Path chapters() {
  return textFile("chapters.txt",
                  ";FFMETADATA1\ntitle=Chapters\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=2000\ntitle=A\n"
                  "[CHAPTER]\nTIMEBASE=1/1000\nSTART=2000\nEND=4000\ntitle=B\n");
}

Edit withoutList(const std::string& handler) {
  return [=](BoxTree& moov) {
    std::erase_if(moov.track(handler)->children, [](const BoxTree& box) { return box.type == "edts"; });
  };
}

Edit list(const std::string& handler, const std::vector<std::pair<int32_t, int32_t>>& entries) {
  return [=](BoxTree& moov) {
    withoutList(handler)(moov);
    Bytes fields = values({0, uint32_t(entries.size())});
    for (auto [duration, time] : entries) {
      fields = joined({fields, values({uint32_t(duration), uint32_t(time), 0x10000})});
    }
    auto& children = moov.track(handler)->children;
    children.insert(children.begin() + 1, BoxTree(box("edts", {box("elst", {fields})})));
  };
}

Edit tagged(const std::string& tag) {
  return [=](BoxTree& moov) { entryOf(moov).type = tag; };
}

Edit keepingSets(const std::vector<int>& nalTypes) {
  return [=](BoxTree& moov) {
    BoxTree& configuration = *configurationOf(entryOf(moov));
    configuration.fields = configuration.type == "avcC" ? filteredAVC(configuration.fields, nalTypes)
                                                        : filteredHEVC(configuration.fields, nalTypes);
  };
}

Edit withoutConfiguration() {
  return [](BoxTree& moov) { entryOf(moov).children.erase(configurationOf(entryOf(moov))); };
}

Edit field(const std::string& handler, const std::string& path, size_t at, uint32_t value) {
  return [=](BoxTree& moov) { writeUInt32(moov.track(handler)->at(path).fields, value, at); };
}

}  // namespace tarn::test
