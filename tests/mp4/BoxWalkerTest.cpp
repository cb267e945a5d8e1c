#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mp4/BoxWalker.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;

/// What a walk gave, "type@offset+size" with a blank behind each, and how it ended, "/size".
template <typename Walker>
std::string walk(Walker walker) {
  constexpr const char* ends[] = {"/end", "/cut", "/size", "/type", "/overrun"};
  std::string walked;
  for (int steps = 0; auto header = walker.next();) {
    if (++steps > 100) return "no end";
    walked += header->type + "@" + std::to_string(header->offset) + "+" + std::to_string(header->size) + " ";
  }
  return walked + ends[static_cast<size_t>(walker.stop().reason)];
}

std::string walkBuffer(const BoxWalkPolicy& policy, const Bytes& data, size_t start = 0, size_t end = SIZE_MAX) {
  return walk(BufferBoxWalker(data, start, end, policy));
}

class FileWalk : public testing::Test {
 protected:
  /// A level of `length` bytes at offset 4 of a file that goes on behind it.
  std::string walkFile(const BoxWalkPolicy& policy, const Bytes& level, size_t behind = 20) {
    Path path = directory_ / "boxes";
    writeFileAtomically(files_, path, joined({Bytes(4), level, Bytes(behind)}));
    auto file = files_.open(path, OpenMode::reading);
    return walk(FileBoxWalker(*file, 4, 4 + level.size(), policy));
  }

  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
};

TEST_F(FileWalk, PoliciesDifferWhereTheyShould) {
  const Bytes free16 = box("free", {Bytes(8)});
  struct {
    const char* what;
    Bytes level;
    const char *topLevel, *children, *tracks;
  } cases[] = {
      {"plain boxes", joined({free16, box("trak")}), "free@4+16 trak@20+8 /end", "free@4+16 trak@20+8 /end",
       "free@4+16 trak@20+8 /end"},
      {"a 64-bit size", joined({longBox("moov", {Bytes(4)}), box("trak")}), "moov@4+20 trak@24+8 /end",
       "moov@4+20 trak@24+8 /end", "moov@4+20 trak@24+8 /end"},
      {"a size of 0", joined({free16, boxClaiming(0, "mdat", {Bytes(4)})}), "free@4+16 mdat@20+32 /end",
       "free@4+16 mdat@20+12 /end", "free@4+16 mdat@20+12 /end"},
      {"a size of 7", joined({boxClaiming(7, "free"), Bytes(1)}), "free@4+7 /cut", "free@4+7 /cut", "/size"},
      {"64-bit sizes without progress", joined({free16, longBoxClaiming(15, "free")}), "free@4+16 /size",
       "free@4+16 /size", "free@4+16 /size"},
      {"a 64-bit size of 0", longBoxClaiming(0, "free"), "/size", "/size", "/size"},
      {"a size that overflows", longBoxClaiming(UINT64_MAX - 3, "free"), "/size", "/size", "/size"},
      {"a size beyond all files", longBoxClaiming(uint64_t{1} << 63, "free"), "free@4+9223372036854775808 /end",
       "free@4+9223372036854775808 /end", "free@4+9223372036854775808 /end"},
      {"a header that reaches over the end", joined({free16, Bytes{0, 0}}), "free@4+16 /cut", "free@4+16 /cut",
       "free@4+16 /cut"},
      {"a type that is no text", box("\xFF\xFE\xFD\xFC"), "@4+8 /end", "@4+8 /end", "@4+8 /end"},
  };
  for (const auto& c : cases) {
    size_t behind = std::string_view(c.topLevel).ends_with("/cut") ? 0 : 20;
    EXPECT_EQ(walkFile(boxwalk::topLevel, c.level, behind), c.topLevel) << c.what;
    EXPECT_EQ(walkFile(boxwalk::children, c.level, behind), c.children) << c.what;
    EXPECT_EQ(walkFile(boxwalk::tracks, c.level, behind), c.tracks) << c.what;
  }
}

TEST(BufferWalk, PoliciesDifferWhereTheyShould) {
  const Bytes free16 = box("free", {Bytes(8)});
  struct {
    const char* what;
    Bytes data;
    const char *buffer, *sampleEntryChildren, *protectionChildren;
  } cases[] = {
      {"plain boxes", joined({free16, box("abcd")}), "free@0+16 abcd@16+8 /end", "free@0+16 abcd@16+8 /end",
       "free@0+16 /end"},
      {"a size of 0", joined({free16, boxClaiming(0, "mdat", {Bytes(4)})}), "free@0+16 /size", "free@0+16 /size",
       "free@0+16 /size"},
      {"a 64-bit size", joined({free16, longBox("free")}), "free@0+16 /size", "free@0+16 /size", "free@0+16 /size"},
      {"a size of 7", boxClaiming(7, "free", {Bytes(4)}), "/size", "/size", "/size"},
      {"a type that is no text", joined({box("\xA9too"), free16}), "/type", "/type", "@0+8 free@8+16 /end"},
      {"a type of three letters", joined({box("url "), free16}), "url @0+8 free@8+16 /end", "/type",
       "url @0+8 free@8+16 /end"},
      {"an overrun", joined({free16, boxClaiming(50, "free", {Bytes(8)})}), "free@0+16 free@16+50 /end",
       "free@0+16 /overrun", "free@0+16 free@16+50 /end"},
      {"fewer than 8 bytes at the end", joined({free16, Bytes(7)}), "free@0+16 /end", "free@0+16 /end",
       "free@0+16 /end"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(walkBuffer(boxwalk::buffer, c.data), c.buffer) << c.what;
    EXPECT_EQ(walkBuffer(boxwalk::sampleEntryChildren, c.data), c.sampleEntryChildren) << c.what;
    EXPECT_EQ(walkBuffer(boxwalk::protectionChildren, c.data), c.protectionChildren) << c.what;
  }
}

TEST(BufferWalk, ForCopyingEndsAtDamageAndPassesOddTypes) {
  const Bytes accented =
      box("\xC3\xA9"
          "ab");
  const Bytes data = joined({box("\xA9too", {Bytes(4)}), accented, box("last")});
  EXPECT_EQ(walkBuffer(boxwalk::tableChildren, data),
            "@0+12 \xC3\xA9"
            "ab@12+8 last@20+8 /end");
  EXPECT_EQ(walkBuffer(boxwalk::clonedChildren, data), "@0+12 @12+8 /end");
  for (const auto& policy : {boxwalk::tableChildren, boxwalk::clonedChildren}) {
    EXPECT_EQ(walkBuffer(policy, joined({box("free"), boxClaiming(50, "free", {Bytes(8)})})), "free@0+8 /overrun");
    for (uint32_t size : {0, 1, 7}) {
      EXPECT_EQ(walkBuffer(policy, joined({box("free"), boxClaiming(size, "free", {Bytes(8)})})), "free@0+8 /size");
    }
  }
}

TEST(BufferWalk, EntersContainersInPreOrderAndNotBehindTheirEnd) {
  Bytes trak = box("trak", {box("mdia", {box("hdlr", {Bytes(4)})}), box("meta", {box("mdia")})});
  EXPECT_EQ(walkBuffer(boxwalk::bufferDeep, joined({trak, box("free")})),
            "trak@0+44 mdia@8+20 hdlr@16+12 meta@28+16 free@44+8 /end");
  // A child that reaches over its parent is walked to the parent's end; the walk goes on behind the parent.
  Bytes overrun = joined({box("moov", {boxClaiming(99, "trak", {box("tkhd")})}), box("free")});
  EXPECT_EQ(walkBuffer(boxwalk::bufferDeep, overrun), "moov@0+24 trak@8+99 tkhd@16+8 free@24+8 /end");
  Bytes damaged = joined({box("moov", {boxClaiming(0, "trak"), box("trak")}), box("free")});
  EXPECT_EQ(walkBuffer(boxwalk::bufferDeep, damaged), "moov@0+24 free@24+8 /end");
}

TEST(BufferWalk, SurvivesAnyDepth) {
  constexpr size_t depth = 1'000'000;
  Bytes data;
  for (size_t i = 0; i < depth; ++i) {
    Bytes header = boxClaiming(static_cast<uint32_t>(8 * (depth - i)), "moov");
    data.insert(data.end(), header.begin(), header.end());
  }
  size_t seen = 0;
  for (BufferBoxWalker walker(data, 0, data.size(), boxwalk::bufferDeep); walker.next();) ++seen;
  EXPECT_EQ(seen, depth);
}

TEST(BufferWalk, StaysInsideItsBounds) {
  Bytes data = joined({box("aaaa"), box("bbbb"), box("cccc")});
  EXPECT_EQ(walkBuffer(boxwalk::buffer, data, 8, 16), "bbbb@8+8 /end");
  EXPECT_EQ(walkBuffer(boxwalk::buffer, data, 8, 15), "/end");
  EXPECT_EQ(walkBuffer(boxwalk::buffer, data, 16, 1000), "cccc@16+8 /end");
  EXPECT_EQ(walkBuffer(boxwalk::buffer, data, SIZE_MAX, SIZE_MAX), "/end");
}

}  // namespace
}  // namespace tarn
