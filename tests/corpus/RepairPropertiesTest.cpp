#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <set>

#include "corpus/Judge.h"
#include "corpus/RandomMovie.h"
#include "inspect/InspectionText.h"
#include "platform/host/PosixFileManager.h"
#include "support/LogCapture.h"
#include "support/NumberFrom.h"
#include "support/ProbedMovie.h"
#include "support/TarnProcess.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

/// All boxes are the same, in the same order, but for edit lists, durations, sample entries and chunk offsets. A repair
/// that splits entries makes the tables of chunks anew; new sound has another clock and other tables.
void expectBoxesKept(BoxTree source, BoxTree result, bool splitsEntries, bool replacesSound) {
  SCOPED_TRACE(source.type);
  if (source.type == "stsd") {
    const auto unknown = [](const BoxTree& entry) {
      Bytes found;
      for (const BoxTree& child : entry.children) found = child.type[0] == 'z' ? joined({found, child.bytes()}) : found;
      return found;
    };
    for (const BoxTree& entry : result.children) EXPECT_EQ(unknown(entry), unknown(source.children.front()));
    EXPECT_TRUE(source.children.front().type != "mp4a" || source.bytes() == result.bytes());
    return;
  }
  for (BoxTree* tree : {&source, &result}) {
    std::erase_if(tree->children, [](const BoxTree& child) { return child.type == "edts"; });
    if (tree->type == "tkhd") writeUInt32(tree->fields, 0, 20);  // durations
    if (tree->type == "mvhd") writeUInt32(tree->fields, 0, 16);
    if (tree->type == "mdia" && replacesSound && textOf(ByteView(tree->at("hdlr").fields).subspan(8, 4)) == "soun") {
      std::erase_if(tree->children, [](const BoxTree& child) { return child.type == "minf" || child.type == "mdhd"; });
    }
    if (tree->type == "co64" && splitsEntries) tree->type = "stco";
    if (tree->type == "stco" || tree->type == "co64" || (tree->type == "stsc" && splitsEntries)) {
      tree->fields.clear();
    }
  }
  EXPECT_EQ(source.type, result.type);
  EXPECT_EQ(source.fields, result.fields);
  ASSERT_EQ(source.children.size(), result.children.size());
  for (size_t i = 0; i < source.children.size(); ++i) {
    expectBoxesKept(source.children[i], result.children[i], splitsEntries, replacesSound);
  }
}

/// All boxes in their order, but for the `moov`; new sound comes with media of its own.
void expectTopLevelKept(ByteView source, ByteView result, bool hasNewMedia) {
  const auto before = topLevel(source), after = topLevel(result);
  EXPECT_TRUE(hasNewMedia ? before.size() < after.size() : before.size() == after.size());
  auto place = after.begin();
  for (const auto& [type, box] : before) {
    place = std::find_if(place, after.end(), [&, type = type, box = box](const auto& other) {
      return other.first == type && (type == "moov" || std::ranges::equal(other.second, box));
    });
    ASSERT_NE(place, after.end()) << type;
    ++place;
  }
}

class RepairProperties : public testing::Test {
 protected:
  Inspection inspected(const Path& file) {
    const LogCapture quiet;
    return inspect(files_, file);
  }

  /// A movie comes out with all that it had, and what is told of it is done.
  void check(const RandomMovie& movie) {
    const Inspection promise = inspected(movie.file);
    SCOPED_TRACE(inspectionText(promise));
    met_.insert({fmt::format("remux {}", int(promise.remux.kind)), fmt::format("sound {}", int(promise.audio.kind)),
                 fmt::format("sync {}", int(promise.syncFix.kind))});
    const bool splits = promise.remux.kind == RemuxForecast::Kind::splits, isNew = promise.audio.replacesSound();
    EXPECT_TRUE(movie.hasDamagedSound || !isNew);
    const Allowed allowed{.audio = isNew, .audioStays = !isNew, .entries = promise.remux.entries.size()};
    EXPECT_THAT(wrongsOfRepair(movie.file, out_, std::nullopt, movie.truth, allowed), testing::IsEmpty());
    const Bytes source = contentsOf(movie.file), result = contentsOf(out_);
    expectBoxesKept(moovOf(source), moovOf(result), splits, isNew);
    expectTopLevelKept(source, result, isNew);
  }

  /// What is left of a movie is refused, or becomes a movie of its first pictures and packets. True for the latter.
  bool checkCut(const RandomMovie& movie, double part) {
    std::filesystem::resize_file(movie.file, static_cast<uintmax_t>(part * double(file_size(movie.file))));
    std::filesystem::remove(out_);
    const Inspection promise = inspected(movie.file);
    SCOPED_TRACE(inspectionText(promise));
    using Kind = FragmentsForecast::Kind;
    const bool isRefused = promise.refusal || !promise.hasMovie || promise.fragments.kind == Kind::refuses;
    const int code = repair(movie.file, out_);
    EXPECT_EQ(code == 0 || code == 5, !isRefused) << code;
    EXPECT_EQ(code == 5, !isRefused && promise.fragments.kind == Kind::keepsPart);
    EXPECT_EQ(files_.fileExists(out_), !isRefused);
    if (code != 5) return false;
    Packets whole = packetsOf(movie.truth, false), left = packetsOf(out_, false);
    // Decoding times that ffprobe tells depend on the smallest composition offset of all.
    const auto areSame = [](const Packet& a, const Packet& b) {
      return a.pts == b.pts && a.flags == b.flags && a.hash == b.hash;
    };
    for (const std::string kind : {"video", "audio"}) {
      if (kind == "audio" && promise.audio.replacesSound()) continue;
      EXPECT_TRUE(std::ranges::mismatch(left[kind], whole[kind], areSame).in1 == left[kind].end()) << kind;
    }
    EXPECT_EQ(repair(out_, place_ / "again.mp4"), 0);
    EXPECT_TRUE(contentOf(place_ / "again.mp4") == contentOf(out_)) << "a second repair changes nothing";
    return true;
  }

  int repair(const Path& from, const Path& to) { return runTarn(place_ / "home", {"repair", from, "-o", to}).exitCode; }

  std::set<std::string> met_;  ///< kinds of what a repair does
  TempDirectory place_;
  PosixFileManager files_{place_.path()};
  const Path out_ = place_ / "out.mp4";
};

TEST_F(RepairProperties, HoldForRandomMoviesAndForWhatIsLeftOfThem) {
  const uint32_t seed = numberFrom("TARN_PROPERTY_SEED", 1), count = numberFrom("TARN_PROPERTY_COUNT", 24);
  size_t parts = 0;
  for (uint32_t i = 0; i < count; ++i) {
    const RandomMovie movie = RandomMovieDrawing(seed + i).movie(place_.path());
    SCOPED_TRACE(fmt::format("TARN_PROPERTY_SEED={}: {}", seed + i, movie.story));
    try {
      check(movie);
      parts += checkCut(movie, 0.3 + 0.1 * static_cast<double>(i % 7)) ? 1 : 0;
    } catch (const std::exception& unreadable) {
      ADD_FAILURE() << unreadable.what();
    }
  }
  // The fast path takes only damage that is light over many minutes, which these movies do not last.
  EXPECT_TRUE(count < 24 || (met_.size() >= 9 && parts > 4)) << parts << testing::PrintToString(met_);
}

}  // namespace
}  // namespace tarn::test
