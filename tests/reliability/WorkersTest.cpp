// Each worker that rewrites a file, over each layout that a file may have, and with each fault of the file system.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "audio/MP4AudioTrackReplacer.h"
#include "mp4/DataExtensions.h"
#include "remux/MP4Remuxer.h"
#include "remux/VideoPlan.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/DamagedMovies.h"
#include "support/FailureOf.h"
#include "support/FaultyFileManager.h"
#include "support/FileTest.h"
#include "support/FlashBeep.h"
#include "support/MediaMaker.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/MP4EditListStripper.h"

namespace tarn::test {
namespace {

using Kind = MovieLayout::Piece::Kind;
using Work = std::function<void(FileManager& files, const Path& source, const Path& output, const RewriteCheck& check)>;

/// HEVC that has its parameter sets in its samples too, and two tracks of sound with edit lists.
Path clip() {
  VideoRecipe recipe = inBand(true);
  recipe.more = words("-f lavfi -i sine=r=48000 -map 0 -map 1 -map 1 -c:a aac");
  return encodedVideo(recipe);
}

/// Pictures alone, of which the second half has another size.
Path changingClip() {
  return joinedVideo({inBand(true), inBand(true, "256x160")});
}

Path newSound() {
  return madeByFFmpeg(words("-f lavfi -i sine=frequency=900 -t 2 -ar 44100 -ac 2 -c:a aac"), ".m4a");
}

void remux(FileManager& files, const Path& source, const Path& /*output*/, const RewriteCheck& check) {
  std::optional<RemuxTimings> timings;
  const auto plan = planVideo(files, source);
  MP4Remuxer::remuxHEVCWithParameterExtraction(files, source, nullptr, timings, &plan.value(), check);
}

void sync(FileManager& files, const Path& source, const Path& /*output*/, const RewriteCheck& check) {
  const SyncFixOrder order{.tracks = {{1, {.entries = {{700, -1, 0x10000}, {2000, 0, 0x10000}}, .trackDuration = 2700}},
                                      {2, {.trackDuration = 3000}}},
                           .movieDuration = 3000};
  MP4AVSyncFixer::fix(files, source, nullptr, nullptr, std::nullopt, false, nullptr, &order, check);
}

void strip(FileManager& files, const Path& source, const Path& output, const RewriteCheck& /*check*/) {
  MP4EditListStripper::stripAudioEditList(files, source, output);
}

void replace(FileManager& files, const Path& source, const Path& output, const RewriteCheck& check) {
  MP4AudioTrackReplacer::replaceAudioTrack(files, source, newSound(), output, MP4AudioTrackReplacer::EditList::dropped,
                                           check);
}

struct Worker {
  const char* name;
  Path (*clip)();
  Work work;
  bool isInPlace = false;
  bool needsDamage = false;  ///< it rewrites only what lacks its parameter sets
  bool replacesSound = false;
  bool dropsTail = false;  ///< bytes at the end that are no box

  friend void PrintTo(const Worker& worker, std::ostream* out) { *out << worker.name; }
};

const Worker workers[] = {
    {"Remux", clip, remux, true, true},
    {"SeveralEntries", changingClip, remux, true, true},
    {"Sync", clip, sync, true},
    {"Strip", clip, strip, false, false, false, true},
    {"Replace", clip, replace, false, false, true},
};

/// The file without its `moov`.
Bytes withoutMoov(Bytes file) {
  const ByteView moov = bytesOf("moov");
  const auto begin = std::search(file.begin(), file.end(), moov.begin(), moov.end()) - 4;
  const uint32_t size = *readUInt32(file, static_cast<size_t>(begin - file.begin()));
  file.erase(begin, size == 0 ? file.end() : begin + size);
  return file;
}

class WorkersTest : public FileTest, public testing::WithParamInterface<Worker> {
 protected:
  WorkersTest() : intact_(readFile(files_, GetParam().clip())) {
    if (GetParam().needsDamage) intact_.moov = withoutParameterSets(intact_.moov, true);
  }

  const Path& result() const { return GetParam().isInPlace ? file_ : output_; }

  void work(FileManager& files, const RewriteCheck& check = {}) { GetParam().work(files, file_, output_, check); }

  void expectNothingLeftBehind() {
    EXPECT_TRUE(files_.contentsOfDirectory(files_.temporaryDirectory()).empty());
    std::vector<std::string> names{files_.temporaryDirectory().filename(), file_.filename()};
    if (!GetParam().isInPlace && files_.fileExists(output_)) names.push_back(output_.filename());
    std::ranges::sort(names);
    auto found = files_.contentsOfDirectory(directory_.path());
    std::ranges::sort(found);
    EXPECT_EQ(found, names);
  }

  MovieLayout intact_;
  const Path output_ = directory_ / "output.mp4";
};

TEST_P(WorkersTest, KeepEveryByteOfTheMediaInEveryLayout) {
  MovieLayout odd = intact_, longOffsets = intact_;
  longOffsets.useLongOffsets();
  BoxEditor editor(intact_.moov);
  for (const std::string& parent : {std::string(sampleTable), std::string("moov/trak"), std::string("moov")}) {
    editor.insert(parent, editor.at(parent).offset + 8, longBox("wxyz"));
    editor.insert(parent, editor.at(parent).end(), box("uuid", {Bytes(24, 9)}));
    editor.insert(parent, editor.at(parent).end(), box("\xFF\xFE\xFD\xFC"));
  }
  odd.moov = editor.bytes;
  const auto chunks = intact_.chunks();
  const uint64_t half = chunks[chunks.size() / 2];
  const MovieLayout::Piece ftyp{Kind::raw, intact_.ftyp}, moov{Kind::moov}, mdat{Kind::mdat}, longMdat{Kind::longMdat};
  const MovieLayout::Piece firstHalf{Kind::mdat, {}, 0, half}, secondHalf{Kind::mdat, {}, half};
  const MovieLayout::Piece longSecondHalf{Kind::longMdat, {}, half};
  const MovieLayout::Piece free{Kind::raw, box("free", {Bytes(50)})}, uuid{Kind::raw, box("uuid", {Bytes(40, 3)})};
  const struct {
    const char* name;
    const MovieLayout& movie;
    std::vector<MovieLayout::Piece> pieces;
  } rows[] = {
      {"moov ahead", intact_, {ftyp, moov, free, mdat}},
      {"moov behind", intact_, {ftyp, free, mdat, moov}},
      {"unknown boxes everywhere", odd, {ftyp, uuid, moov, uuid, mdat, free}},
      {"mdat with a 64-bit size", intact_, {ftyp, moov, longMdat, free}},
      {"mdat without an end", intact_, {ftyp, moov, {Kind::openMdat}}},
      {"moov without an end", intact_, {ftyp, mdat, uuid, {Kind::openMoov}}},
      {"64-bit offsets", longOffsets, {ftyp, moov, mdat}},
      {"media around the moov", intact_, {ftyp, firstHalf, moov, free, secondHalf}},
      {"media around the moov, 64-bit offsets, no ftyp", longOffsets, {firstHalf, moov, longSecondHalf}},
      {"media in another order", intact_, {ftyp, moov, secondHalf, firstHalf}},
      {"a large box", intact_, {ftyp, moov, {Kind::raw, box("uuid", {Bytes(11'000'000, 5)})}, mdat}},
      {"ftyp without an end", intact_, {moov, mdat, {Kind::raw, boxClaiming(0, "ftyp", {values({0x69736F6D, 0})})}}},
      {"a tail that is no box", intact_, {ftyp, moov, mdat, {Kind::raw, values({3, 3, 3})}}},
  };
  std::string expected = mediaHashes(GetParam().clip());
  if (GetParam().replacesSound) {
    const size_t videoEnd = expected.find('\n') + 1;
    expected = expected.substr(0, videoEnd) + "1" + mediaHashes(newSound()).substr(1) +
               expected.substr(expected.find('\n', videoEnd) + 1);
  }
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Bytes source = row.movie.build(row.pieces);
    write(source);
    removeIfExists(files_, output_);
    Bytes copied;
    work(files_, [&](const Path& path, std::span<const CopiedRange> ranges) {
      const Bytes made = readFile(files_, path);
      for (const CopiedRange& range : ranges) {
        const ByteView from = ByteView(source).subspan(range.from, range.size);
        EXPECT_TRUE(std::ranges::equal(from, ByteView(made).subspan(range.to, range.size)));
        copied.insert(copied.end(), from.begin(), from.end());
      }
    });
    EXPECT_EQ(mediaHashes(result()), expected);
    EXPECT_EQ(decoderComplaints(result()), "");
    Bytes others = withoutMoov(source);
    if (GetParam().dropsTail && row.name == std::string("a tail that is no box"))
      others.erase(others.end() - 12, others.end());
    EXPECT_TRUE(copied.empty() || copied == others) << "the check hears of every byte that stays";
    EXPECT_TRUE(GetParam().replacesSound || withoutMoov(readFile(files_, result())) == others);
    EXPECT_TRUE(GetParam().isInPlace || written() == source);
    expectNothingLeftBehind();
  }
}

TEST_P(WorkersTest, LeaveTheOldFileOrTheWholeNewOneWhateverFails) {
  using Operation = FileOperation;
  const std::set changing{Operation::open, Operation::write, Operation::flush, Operation::close, Operation::replace};
  const struct {
    Fault fault;
    int failures;
  } sweeps[] = {
      {{.errnum = ENOSPC, .among = changing}, 3},
      {{.errnum = ENOSPC, .effect = Fault::Effect::half, .among = changing}, 3},
      {{.errnum = ENOSPC, .effect = Fault::Effect::whole, .among = changing}, 3},
      {{.errnum = EIO, .among = {Operation::read}}, 5},
  };
  const Bytes source = intact_.moovAhead();
  write(source);
  work(files_);
  const Bytes whole = readFile(files_, result());
  ASSERT_NE(whole, source);
  FaultyFileManager faulty(files_);
  for (const auto& row : sweeps) {
    int failures = 0;
    faulty.sweep(row.fault, [&](uint64_t call) {
      SCOPED_TRACE(testing::Message() << "call " << call);
      write(source);
      removeIfExists(files_, output_);
      log_.clear();
      const bool hasFailed = !failureOf([&] { work(faulty); }).empty();
      failures += hasFailed;
      EXPECT_TRUE(faulty.fired() || !hasFailed);
      // A small box that is neither moov nor mdat and cannot be read becomes free space, which the log tells.
      const bool hasLostBox = log_.contains("WARNING: Failed to read ftyp box at offset 0");
      EXPECT_TRUE(hasFailed || hasLostBox || readFile(files_, result()) == whole);
      if (hasFailed && GetParam().isInPlace) {
        // A replace that fails when all is done has put the new file in its place.
        EXPECT_TRUE(written() == source || (row.fault.effect == Fault::Effect::whole && written() == whole));
      }
      EXPECT_TRUE(GetParam().isInPlace || written() == source);
      EXPECT_TRUE(!hasLostBox || decoderComplaints(file_).empty());
      if (!hasFailed) expectNothingLeftBehind();
    });
    EXPECT_GT(failures, row.failures);
  }
}

INSTANTIATE_TEST_SUITE_P(All, WorkersTest, testing::ValuesIn(workers),
                         [](const auto& worker) { return std::string(worker.param.name); });

}  // namespace
}  // namespace tarn::test
