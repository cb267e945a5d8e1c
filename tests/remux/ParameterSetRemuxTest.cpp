#include "platform/ForwardingFileManager.h"
#include "remux/RemuxFixture.h"
#include "support/FaultyFileManager.h"

namespace tarn {
namespace {

using namespace test;

TEST_F(RemuxTest, RefusesAndLeavesTheFileAlone) {
  EXPECT_EQ(failureOf([&] { repair(true); }), "File not found");
  const Bytes intact = readFile(files_, encodedVideo(inBand(true)));  // with its moov at the end
  MovieLayout layout(intact);
  auto moov = intact.end() - static_cast<ptrdiff_t>(layout.moov.size());
  Bytes cutMedia = withoutParameterSets(layout.moovAhead(), true);
  cutMedia.resize(cutMedia.size() - 1000);
  const std::string noSets = "No complete parameter sets found in the video's sync samples: no VPS, no SPS, no PPS";
  const std::pair<Bytes, std::string> cases[] = {
      {readFile(files_, encodedVideo({.codec = "libx265"})), noSets},  // they are in the hvcC alone
      {readFile(files_, encodedVideo(inBand(false))), noSets},
      {joined({Bytes(intact.begin(), moov), longBox("moov", {Bytes(moov + 8, intact.end())})}),
       fmt::format("Corrupted MP4 file: moov box at {} of {} bytes has a 64-bit size field", moov - intact.begin(),
                   layout.moov.size() + 8)},
      {cutMedia, "Write error: Failed to copy mdat"},
  };
  for (const auto& [movie, words] : cases) {
    write(movie);
    EXPECT_EQ(failureOf([&] { repair(true); }), words);
    EXPECT_EQ(written(), movie);
    expectNothingLeftBehind();
  }
}

TEST_F(RemuxTest, IsCancelledAheadOfEachLongStep) {
  const Bytes damaged = damagedVideo(true);
  FaultyFileManager files(files_);
  // The opening at which the token is set (0: it is set from the start), and how the log ends then.
  const std::pair<uint64_t, const char*> cases[] = {
      {0, "Starting Phase 2: Extracting parameter sets from bitstream..."},
      {1, "Parameter set collection is COMPLETE"},
      {2, "Modified moov box ("},
      {3, "Phase 2 complete: Video remuxed successfully"},  // too late
  };
  for (auto [opening, lastLine] : cases) {
    CancellationToken token;
    if (opening == 0) token.cancel();
    write(damaged);
    files.arm({.call = opening, .errnum = 0, .among = {FileOperation::open}, .strike = [&] { token.cancel(); }});
    EXPECT_EQ(failureOf([&] { repair(true, files, &token); }), opening == 3 ? "" : "Operation was cancelled");
    EXPECT_THAT(log_.lines().back(), testing::StartsWith(lastLine));
    EXPECT_EQ(written() == damaged, opening != 3);
  }
}

TEST_F(RemuxTest, SaysWhatIsGoneWhereTheFileShrinksMeanwhile) {
  const Bytes source = MovieLayout(readFile(files_, encodedVideo(inBand(true)))).moovAhead();
  const Bytes movie = joined({withoutParameterSets(source, true), box("free", {Bytes(40)}), Bytes(5, 7)});
  FaultyFileManager files(files_);
  for (const auto& [missing, words] : {std::pair(3u, "Write error: Failed to copy the end of the file"),
                                       {20u, "Write error: Failed to stream free box"},
                                       {100u, "Write error: Failed to copy mdat"}}) {
    write(movie);
    const auto shrink = [&, size = movie.size() - missing] { std::filesystem::resize_file(file_, size); };
    files.arm({.call = 3, .errnum = 0, .among = {FileOperation::open}, .strike = shrink});  // that of the new file
    EXPECT_EQ(failureOf([&] { repair(true, files); }), words);
    EXPECT_EQ(written(), Bytes(movie.begin(), movie.end() - missing));
    expectNothingLeftBehind();
  }
}

/// A file system with so many bytes free.
struct TightFileManager : ForwardingFileManager {
  using ForwardingFileManager::ForwardingFileManager;
  std::optional<uint64_t> freeSpace(const Path&) override { return free; }
  std::optional<uint64_t> free;
};

TEST_F(RemuxTest, AsksForMoreThanTwiceTheFilesSize) {
  for (const bool isHEVC : {true, false}) {
    const Bytes damaged = damagedVideo(isHEVC);
    TightFileManager tight(files_);
    const uint64_t twice = 2 * damaged.size();
    for (auto free : {std::optional(twice - 1), {twice}, {twice + 1}, {std::nullopt}}) {
      write(damaged);
      tight.free = free;
      const bool isEnough = !free || *free > twice;
      const std::string refusal = "Write error: Insufficient disk space: need 0MB, have 0MB available.";
      EXPECT_EQ(failureOf([&] { repair(isHEVC, tight); }).substr(0, refusal.size()), isEnough ? "" : refusal);
      EXPECT_EQ(written() != damaged, isEnough);
    }
  }
  EXPECT_TRUE(log_.contains("Disk space check: 0MB available, 0MB required for remuxing"));

  // Ahead of the tag too, whose repair needs no second file.
  const Bytes tagged = readFile(files_, encodedVideo({.codec = "libx264", .more = words("-tag:v avc3")}));
  write(tagged);
  TightFileManager full(files_);
  full.free = 0;
  EXPECT_THAT(failureOf([&] { repair(false, full); }), testing::StartsWith("Write error: Insufficient disk space"));
  EXPECT_EQ(written(), tagged);
}

}  // namespace
}  // namespace tarn
