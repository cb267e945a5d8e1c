#include "corpus/Judge.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <ranges>

#include "corpus/Playback.h"
#include "platform/host/PosixFileManager.h"
#include "support/TarnProcess.h"

namespace tarn::test {
namespace {

using Words = std::vector<std::string>;

void comparePictures(const Playback& source, const Playback& result, double shift, Words& words) {
  const auto& before = source.pictures;
  const auto& after = result.pictures;
  if (before.size() != after.size()) {
    words.push_back(fmt::format("{} pictures are shown, {} before", after.size(), before.size()));
    return;
  }
  for (size_t i = 0; i < before.size(); ++i) {
    if (before[i].look != after[i].look) words.push_back(fmt::format("picture {} looks otherwise", i));
    const double moved = after[i].time - before[i].time - shift;
    if (std::abs(moved) > 0.0015) words.push_back(fmt::format("picture {} moves by {:.1f} ms", i, moved * 1000));
  }
}

/// Tracks by their order; the packets of a track that may not change.
void compareTracks(const Playback& source, const Playback& result, double shift, bool mayChangeAudio, Words& words) {
  if (source.tracks != result.tracks) {
    words.push_back(
        fmt::format("tracks were {}, are {}", fmt::join(source.tracks, "; "), fmt::join(result.tracks, "; ")));
    return;
  }
  if (source.metadata != result.metadata) words.push_back("metadata was " + source.metadata + " is " + result.metadata);
  for (const auto& [track, before] : source.packets) {
    if (mayChangeAudio && track == source.firstTrack("audio")) continue;
    const auto found = result.packets.find(track);
    const size_t count = found == result.packets.end() ? 0 : found->second.size();
    if (count != before.size()) {
      words.push_back(fmt::format("track {} has {} packets, {} before", track, count, before.size()));
      continue;
    }
    size_t otherBytes = 0, otherFlags = 0, otherTimes = 0;
    for (size_t i = 0; i < count; ++i) {
      const ShownPacket& after = found->second[i];
      otherBytes += before[i].hash != after.hash;
      otherFlags += before[i].flags != after.flags;
      otherTimes += std::abs(after.time - before[i].time - shift) > 0.0015;
    }
    if (otherBytes) words.push_back(fmt::format("track {}: {} packets have other bytes", track, otherBytes));
    if (otherFlags) words.push_back(fmt::format("track {}: {} packets have other flags", track, otherFlags));
    if (otherTimes) words.push_back(fmt::format("track {}: {} packets have other times", track, otherTimes));
  }
}

/// Where `heard` has sound for 40 ms or more and `other` has none. A cell is 5 ms.
void compareCells(const Heard& heard, const Heard& other, double shift, const std::string& what, Words& words) {
  int length = 0;
  int64_t last = INT64_MIN;
  for (int64_t cell : heard.cells) {
    const int64_t own = cell + std::llround(shift * 200);
    const auto near = other.cells.lower_bound(own - 2);
    const bool isMatched = near != other.cells.end() && *near <= own + 2;
    length = isMatched || own < 0 ? 0 : last == INT64_MIN || own - last > 4 ? 1 : length + 1;
    last = own;
    if (length == 8) words.push_back(fmt::format("{} at {:.2f} s", what, double(own) / 200));
  }
}

void compareHeard(const Heard& source, const Heard& result, double shift, double tolerance, const std::string& who,
                  Words& words) {
  std::vector<double> left = result.beeps;
  for (double beep : source.beeps) {
    const double due = beep + shift;
    const auto nearest = std::ranges::min_element(left, {}, [&](double other) { return std::abs(other - due); });
    if (nearest == left.end() || std::abs(*nearest - due) > 0.4) {
      if (due >= 0) words.push_back(fmt::format("{}: the beep at {:.3f} s is not heard", who, beep));
      continue;
    }
    if (std::abs(*nearest - due) > tolerance) {
      words.push_back(fmt::format("{}: the beep at {:.3f} s is {:+.1f} ms off", who, beep, (*nearest - due) * 1000));
    }
    left.erase(nearest);
  }
  for (double beep : left) words.push_back(fmt::format("{}: a beep at {:.3f} s that was not there", who, beep));
  compareCells(source, result, shift, who + ": sound is missing", words);
  compareCells(result, source, -shift, who + ": sound where there was none", words);
}

void compareAudio(const Playback& source, const Path& resultFile, const Playback& result, double shift, bool mayChange,
                  Words& words) {
  if (source.stored.frames.empty()) return;
  if (result.stored.frames.empty()) {
    words.push_back("the audio cannot be decoded");
    return;
  }
  const Heard truth = heardByTables(source);
  const Audio played = decodedAudio(resultFile, true);
  const double tolerance = mayChange ? 0.0022 : 0.0012;  // the edge of a beep itself is heard within 0.2 ms
  compareHeard(truth, heardByTables(result), shift, tolerance, "tables", words);
  // With several ranges ffmpeg plays packets whole at their edges; of one without an end it plays nothing.
  const bool isEndless = source.shown.front().length == endless && result.shown.front().length == endless;
  if (result.shown.size() == 1 && !isEndless)
    compareHeard(truth, heardByPlayer(played), shift, tolerance, "player", words);
  // The quiet tone has steps of 94; cut off sharply it would have up to 1638.
  for (double seam : truth.seams) {
    const int step = stepAround(played, seam + shift);
    if (step > 350) words.push_back(fmt::format("a click at {:.3f} s, of {}", seam, step));
  }
}

/// A copy in which the parameter sets of the samples are filler, so that those of the sample entries alone count.
Path withoutInBandSets(const Path& file, const Playback& playback, bool isHEVC, const Path& directory) {
  PosixFileManager files(directory);
  Bytes bytes = readFile(files, file);
  for (const ShownPacket& packet : playback.packets.at(playback.firstTrack("video"))) {
    const size_t end = packet.place + packet.size;
    for (size_t at = packet.place; at + 4 < end;) {
      const size_t size = readUInt32(bytes, at).value();
      uint8_t* const unit = &bytes.at(at + 4);
      const int type = isHEVC ? unit[0] >> 1 & 63 : unit[0] & 31;
      if (isHEVC ? type >= 32 && type <= 34 : type == 7 || type == 8) {
        std::fill(unit + 1, unit + size, 0xFF);
        unit[0] = isHEVC ? 38 << 1 : 12;
        if (isHEVC) unit[1] = 1;
        unit[size - 1] = 0x80;
      }
      at += 4 + size;
    }
  }
  const Path result = directory / "stripped.mp4";
  writeFileAtomically(files, result, bytes);
  return result;
}

void compareEntries(const Path& file, const Playback& result, size_t entries, Words& words) {
  const TempDirectory directory;
  BoxTree moov = moovOf(contentsOf(file));
  const auto& found = moov.track("vide")->at("mdia/minf/stbl/stsd").children;
  if (found.size() != entries) words.push_back(fmt::format("{} sample entries, not {}", found.size(), entries));
  for (const BoxTree& entry : found) {
    if (entry.type != "avc1" && entry.type != "hvc1") words.push_back("the tag is " + entry.type);
  }
  const Path stripped = withoutInBandSets(file, result, found.front().type == "hvc1", directory.path());
  if (!std::ranges::equal(decodedPictures(stripped), result.pictures, {}, &Picture::look, &Picture::look)) {
    words.push_back("the sets of the sample entries alone do not show the pictures");
  }
}

}  // namespace

std::vector<std::string> worsened(const Path& sourceFile, const Path& resultFile, const Allowed& allowed) {
  const Playback source = playbackOf(sourceFile), result = playbackOf(resultFile);
  const double shift = result.firstPicture() - source.firstPicture();
  Words words;
  comparePictures(source, result, shift, words);
  compareTracks(source, result, shift, allowed.audio, words);
  compareAudio(source, resultFile, result, shift, allowed.audio, words);
  if (!allowed.audioStays) {
    const std::string uneven = unevenness(result.stored);
    if (!uneven.empty()) words.push_back("the audio still has " + uneven);
  }
  if (allowed.entries > 0) compareEntries(resultFile, result, allowed.entries, words);
  return words;
}

std::vector<std::string> wrongsOfRepair(const Path& file, const Path& out, std::optional<Outcome> outcome,
                                        const Path& reference, const Allowed& allowed) {
  const Path home = out.parent_path() / "home/tarn", again = out.parent_path() / ("again" + out.extension().string());
  const auto areSame = [](const Path& one, const Path& other) {
    return runProcess({"cmp", "-s", one, other}).exitCode == 0;
  };
  const auto forecast =
      nlohmann::json::parse(runTarn(home, {"inspect", "--json", file.string()}).output, nullptr, false);
  const auto deed = runTarn(home, {"repair", file.string(), "-o", out.string()});
  if (deed.exitCode != 0) return {"refused: " + deed.errors};
  const bool isChanged = !areSame(file, out);

  Words words;
  if (forecast.value("changesFile", !isChanged) != isChanged) words.push_back("inspect says the contrary");
  if (outcome && forecast["problems"].empty() != (outcome == Outcome::same))
    words.push_back("problems: " + forecast["problems"].dump());
  if (outcome && isChanged != (outcome == Outcome::changed))
    words.push_back(isChanged ? "changed for nothing" : "left as it was");
  if (!isChanged) return words;
  for (const std::string& word : worsened(reference, out, allowed)) words.push_back(word);
  if (runTarn(home, {"repair", out.string(), "-o", again.string()}).exitCode != 0 || !areSame(out, again)) {
    words.push_back("a second repair is not the same");
  }
  return words;
}

}  // namespace tarn::test
