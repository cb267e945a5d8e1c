#include "inspect/InspectionText.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "inspect/SoundText.h"
#include "parameters/VideoCodec.h"

namespace tarn {
namespace {

constexpr size_t mostRanges = 8;

/// A text out of a file, fit for a terminal.
std::string printable(std::string text) {
  std::ranges::replace_if(
      text, [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '.');
  return text.empty() ? "????" : text;
}

class Writer {
 public:
  void heading(std::string_view text) { fmt::format_to(std::back_inserter(text_), "\n{}\n", text); }

  template <typename... Arguments>
  void line(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    text_ += "  " + printable(fmt::format(format, std::forward<Arguments>(arguments)...)) + "\n";
  }

  std::string take() && { return std::move(text_); }

 private:
  std::string text_;
};

void writeBoxes(Writer& out, const Inspection& inspection) {
  out.heading("Boxes");
  if (inspection.boxes.empty()) out.line("none");
  for (const TopLevelBox& box : inspection.boxes) {
    const std::string note =
        box.missingBytes == 0 ? "" : fmt::format(", {} bytes of it past the end of the file", box.missingBytes);
    out.line("{:<4}  at {:>12}  {:>12} bytes{}", printable(box.type), box.offset, box.size, note);
  }
  if (inspection.boxesProblem) out.line("{}", *inspection.boxesProblem);
}

void writeTracks(Writer& out, const Inspection& inspection) {
  out.heading("Tracks");
  if (inspection.tracks.empty()) out.line("none");
  for (const TrackFacts& track : inspection.tracks) {
    std::string detail;
    if (track.picture) detail = fmt::format(", {}x{}", track.picture->width, track.picture->height);
    if (track.channels && track.rate) detail = fmt::format(", {} channels, {} Hz", *track.channels, *track.rate);
    const double seconds =
        track.timescale == 0 ? 0 : static_cast<double>(track.duration) / static_cast<double>(track.timescale);
    out.line("{}  {}  {}{}, {} samples, {:.3f} s ({} / {})", track.id, printable(track.handler), printable(track.codec),
             detail, track.samples ? std::to_string(*track.samples) : "?", seconds, track.duration, track.timescale);
  }
}

std::string rangesText(const std::vector<SampleRange>& ranges) {
  if (ranges.empty()) return "no samples";
  std::vector<std::string> texts;
  for (size_t i = 0; i < std::min(ranges.size(), mostRanges); ++i) {
    texts.push_back(fmt::format("{}..{}", ranges[i].first, ranges[i].last));
  }
  if (ranges.size() > mostRanges) texts.push_back(fmt::format("and {} more runs", ranges.size() - mostRanges));
  return fmt::format("samples {}", fmt::join(texts, ", "));
}

bool hasVPS(const VideoCodec* codec) {
  return codec != nullptr && codec->nal.hasKind(ParameterSetKind::vps);
}

std::string configurationText(const SampleEntryFacts& entry) {
  if (!entry.configuration) return "no hvcC or avcC";
  const ConfigurationFacts& facts = *entry.configuration;
  if (facts.problem)
    return fmt::format("{} of {} bytes that cannot be read: {}", facts.type, facts.size, *facts.problem);
  const std::string vps = hasVPS(codecOfConfigBox(facts.type)) ? fmt::format("{} VPS, ", facts.vps) : "";
  return fmt::format("{} of {} bytes with {}{} SPS, {} PPS: parameter sets {}", facts.type, facts.size, vps, facts.sps,
                     facts.pps, facts.isComplete ? "complete" : "not complete");
}

void writeEntries(Writer& out, const std::vector<SampleEntryFacts>& entries, std::string_view indent) {
  for (size_t i = 0; i < entries.size(); ++i) {
    const SampleEntryFacts& entry = entries[i];
    out.line("{}entry {}: {}, {}x{}, {}; {}", indent, i + 1, printable(entry.tag), entry.picture.width,
             entry.picture.height, rangesText(entry.ranges), configurationText(entry));
  }
}

std::string sizesText(const char* kind, const std::vector<size_t>& sizes) {
  if (sizes.empty()) return fmt::format("no {}", kind);
  if (sizes.size() > mostRanges) return fmt::format("{} {}", sizes.size(), kind);
  return fmt::format("{} {} ({} bytes)", sizes.size(), kind, fmt::join(sizes, ", "));
}

void writeBitstream(Writer& out, const BitstreamFacts& facts, const VideoCodec* codec) {
  if (facts.problem) {
    out.line("in the samples: cannot be read: {}", *facts.problem);
    return;
  }
  const std::string vps = hasVPS(codec) ? sizesText("VPS", facts.vps) + ", " : "";
  out.line("in the {} sync samples: {}{}, {}; length prefix of {} bytes", facts.syncSamples, vps,
           sizesText("SPS", facts.sps), sizesText("PPS", facts.pps), facts.nalLengthSize);
  if (facts.reusesIdentifiers) out.line("identifiers of parameter sets come again with other content");
  if (!facts.changesPictureSize) return;
  std::vector<std::string> sizes;
  for (const PictureSize& size : facts.pictures) {
    if (sizes.size() < mostRanges) sizes.push_back(fmt::format("{}x{}", size.width, size.height));
  }
  out.line("the picture size changes: {}", fmt::join(sizes, ", "));
}

void writeVideo(Writer& out, const Inspection& inspection) {
  if (!inspection.video) return;
  out.heading("Video");
  writeEntries(out, inspection.video->entries, "");
  if (inspection.video->problem) out.line("{}", *inspection.video->problem);
  if (!inspection.video->bitstream) return;
  writeBitstream(out, *inspection.video->bitstream, codecOfTag(inspection.video->entries.front().tag));
}

std::string rowsText(const std::vector<EditListEntry>& rows) {
  if (rows.empty()) return "none";
  std::vector<std::string> texts;
  texts.reserve(rows.size());
  for (const EditListEntry& row : rows) texts.push_back(fmt::format("{} from {}", row.duration, row.mediaTime));
  return fmt::format("{}", fmt::join(texts, "; "));
}

void writeSync(Writer& out, const Inspection& inspection) {
  out.heading("Sync");
  if (!inspection.sync) {
    out.line("{}", inspection.syncProblem.value_or("unknown"));
    return;
  }
  const OriginalSyncInfo& sync = *inspection.sync;
  out.line("movie timescale {}; edits are durations in it, from media times (-1 is empty)", sync.movieTimescale);
  out.line("video edits: {} (timescale {})", rowsText(sync.videoEditList), sync.videoTrackTimescale);
  out.line("first composition offset of the video: {}", sync.videoFirstCts);
  if (std::ranges::find(inspection.tracks, "soun", &TrackFacts::handler) == inspection.tracks.end()) return;
  out.line("audio edits: {} (timescale {})", rowsText(sync.audioEditList), sync.audioTrackTimescale);
  out.line("the audio starts {:.1f} ms {} the video", std::abs(sync.syncOffsetSeconds * 1000),
           sync.syncOffsetSeconds < 0 ? "ahead of" : "after");
}

/// What a repair does to the video, as the end of "the video".
std::string remuxText(const Inspection& inspection) {
  const RemuxForecast& remux = inspection.remux;
  const std::string tag = remux.entries.empty() ? "" : remux.entries.front().tag;
  switch (remux.kind) {
    case RemuxForecast::Kind::skipped:
    case RemuxForecast::Kind::leavesAlone:
      return "stays as it is";
    case RemuxForecast::Kind::changesTag:
      return fmt::format("gets the tag {}", tag);
    case RemuxForecast::Kind::rebuilds:
      return fmt::format("gets a new sample entry under the tag {}", tag);
    case RemuxForecast::Kind::splits:
      return fmt::format("gets {} new sample entries", remux.entries.size());
    case RemuxForecast::Kind::refuses:
      return "cannot be repaired";
  }
  return "";
}

std::string fragmentsText(FragmentsForecast::Kind kind) {
  using Kind = FragmentsForecast::Kind;
  switch (kind) {
    case Kind::nothing:
      return "";
    case Kind::joins:
      return "becomes a plain movie";
    case Kind::keepsPart:
      return "becomes a whole movie of what is there";
    case Kind::correctsSize:
      return "gets the right size of its mdat";
    case Kind::leavesAlone:
      return "stays as it is";
    case Kind::refuses:
      return "cannot be repaired";
  }
  return "";
}

std::string syncFixText(SyncForecast::Kind kind) {
  switch (kind) {
    case SyncForecast::Kind::notReached:
      return "are not looked at";
    case SyncForecast::Kind::nothing:
      return "stay as they are";
    case SyncForecast::Kind::writes:
      return "become new ones";
    case SyncForecast::Kind::fails:
      return "cannot be written and stay as they are";
  }
  return "";
}

std::string because(const std::string& reason) {
  return reason.empty() ? "" : ": " + reason;
}

void writeLists(Writer& out, const Inspection& inspection) {
  out.line("the edit lists {}{}", syncFixText(inspection.syncFix.kind), because(inspection.syncFix.reason));
  if (inspection.syncFix.kind != SyncForecast::Kind::writes) return;
  for (const auto& [trackID, list] : inspection.syncFix.order.tracks) {
    out.line("  edits of track {}: {}, since {}", trackID, rowsText(list.entries), list.reason);
  }
}

void writeSteps(Writer& out, const Inspection& inspection) {
  out.heading("A repair, part by part");
  if (inspection.refusal) return out.line("nothing is done: a player could show nothing of the file");
  const FragmentsForecast& fragments = inspection.fragments;
  if (fragments.kind != FragmentsForecast::Kind::nothing) {
    out.line("the movie {}{}", fragmentsText(fragments.kind), because(fragments.reason));
  }
  const RemuxForecast& remux = inspection.remux;
  out.line("the video {}{}", remuxText(inspection), because(remux.reason));
  if (remux.kind != RemuxForecast::Kind::leavesAlone) writeEntries(out, remux.entries, "  ");
  for (const std::string& loss : remux.losses) out.line("  lost: {}", loss);
  out.line("the sound {}{}", audioStepText(inspection.audio), because(inspection.audio.reason));
  writeLists(out, inspection);
}

void writeSoundAgainstPicture(Writer& out, const RepairSummary& summary, bool changesFile) {
  const auto told = [](const std::optional<RepairSummary::Timeline>& timeline) {
    return timeline ? soundAgainstPicture(*timeline) : std::nullopt;
  };
  const auto before = told(summary.before), after = changesFile ? told(summary.after) : std::nullopt;
  if (!before && !after) return;
  out.heading("Sound against picture");
  if (before) out.line("{}", *before);
  if (after) out.line("after a repair {}", *after);
}

/// What a repair did on trial, and what it does not do.
void writeRepair(Writer& out, const Inspection& inspection) {
  const bool isRefused = inspection.refusal || inspection.remux.kind == RemuxForecast::Kind::refuses ||
                         inspection.fragments.kind == FragmentsForecast::Kind::refuses;
  out.heading("A repair, on trial");
  if (isRefused) return out.line("it failed, and the file stays as it is");
  for (const std::string& done : inspection.summary.done) out.line("{}", done);
  for (const std::string& warning : inspection.warnings) {
    if (std::ranges::count(inspection.problems, warning, &Problem::words) == 0) out.line("note: {}", warning);
  }
  for (const std::string& harm : inspection.harms) out.line("the result would do harm, so the file stays: {}", harm);
  if (!inspection.changesFile) return out.line("it changed nothing: the result is the file, byte for byte");
  if (!inspection.isComparable) return;
  const bool isPart = inspection.fragments.kind == FragmentsForecast::Kind::keepsPart;
  out.line("compared with {}: nothing is hidden, revealed or moved{}", isPart ? "what is there" : "the file",
           inspection.audio.replacesSound() ? "; the repair compares the new sound when it is made" : "");
}

void writeVerdict(Writer& out, const Inspection& inspection) {
  out.heading("What is wrong");
  if (inspection.problems.empty()) out.line("nothing");
  for (const Problem& problem : inspection.problems) {
    out.line("{}{}", problem.words, isMended(problem, inspection) ? "" : " (a repair leaves it)");
  }
  writeRepair(out, inspection);
}

}  // namespace

std::string inspectionBrief(const Inspection& inspection) {
  Writer out;
  writeVerdict(out, inspection);
  return fmt::format("{}\n{}: {} bytes\n", printable(inspection.verdict.text), printable(inspection.file.string()),
                     inspection.size) +
         std::move(out).take();
}

std::string inspectionText(const Inspection& inspection) {
  Writer out;
  writeSoundAgainstPicture(out, inspection.summary, inspection.changesFile);
  writeSteps(out, inspection);
  writeTracks(out, inspection);
  writeVideo(out, inspection);
  if (inspection.audio.findings) {
    out.heading("Sound");
    for (const std::string& line : soundLines(inspection.audio)) out.line("{}", line);
  }
  writeSync(out, inspection);
  writeBoxes(out, inspection);
  return inspectionBrief(inspection) + std::move(out).take();
}

}  // namespace tarn
