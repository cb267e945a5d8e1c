#include "mp4/BoxWalker.h"
#include "support/BoxBuilder.h"
#include "support/FileTest.h"

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

const Bytes free8 = box("free"), free16 = box("free", {Bytes(8)}), openMdat = boxClaiming(0, "mdat", {Bytes(4)});

class FileWalk : public FileTest {};

TEST_F(FileWalk, PoliciesDifferWhereTheyShould) {
  struct {
    Bytes level;  ///< at offset 4 of a file
    const char* topLevel;
    const char* children = topLevel;
    const char* tracks = children;
    size_t behind = 20;  ///< bytes of the file behind the level
  } cases[] = {
      {joined({free16, box("trak")}), "free@4+16 trak@20+8 /end"},
      {joined({longBox("moov", {Bytes(4)}), box("trak")}), "moov@4+20 trak@24+8 /end"},
      {joined({free16, openMdat}), "free@4+16 mdat@20+32 /end", "free@4+16 mdat@20+12 /end"},
      {joined({boxClaiming(7, "free"), Bytes(1)}), "free@4+7 /cut", "free@4+7 /cut", "/size", 0},
      {joined({free16, longBoxClaiming(15, "free")}), "free@4+16 /size"},
      {longBoxClaiming(0, "free"), "/size"},
      {longBoxClaiming(UINT64_MAX - 3, "free"), "/size"},
      {longBoxClaiming(uint64_t{1} << 63, "free"), "free@4+9223372036854775808 /end"},
      {.level = joined({free16, Bytes{0, 0}}), .topLevel = "free@4+16 /cut", .behind = 0},
      {box("\xFF\xFE\xFD\xFC"), "@4+8 /end"},
  };
  for (const auto& c : cases) {
    auto file = open(joined({Bytes(4), c.level, Bytes(c.behind)}));
    auto walked = [&](const BoxWalkPolicy& policy) {
      return walk(FileBoxWalker(*file, 4, 4 + c.level.size(), policy));
    };
    EXPECT_EQ(walked(boxwalk::topLevel), c.topLevel);
    EXPECT_EQ(walked(boxwalk::children), c.children);
    EXPECT_EQ(walked(boxwalk::tracks), c.tracks);
    // A scan of the top level takes open boxes as one does and small sizes as the other.
    EXPECT_EQ(walked(boxwalk::topLevelScan), c.tracks == std::string("/size") ? c.tracks : c.topLevel);
  }
}

TEST(BufferWalk, PoliciesDifferWhereTheyShould) {
  struct {
    Bytes data;
    const char* buffer;
    const char* sampleEntryChildren = buffer;
    const char* protectionChildren = buffer;
  } cases[] = {
      {joined({free16, free8}), "free@0+16 free@16+8 /end", "free@0+16 free@16+8 /end", "free@0+16 /end"},
      {joined({free16, openMdat}), "free@0+16 /size"},
      {joined({free16, longBox("free")}), "free@0+16 /size"},
      {boxClaiming(7, "free", {Bytes(4)}), "/size"},
      {joined({box("\xA9too"), free16}), "/type", "/type", "@0+8 free@8+16 /end"},
      {joined({box("url "), free16}), "url @0+8 free@8+16 /end", "/type"},
      {joined({free16, boxClaiming(50, "free", {Bytes(8)})}), "free@0+16 free@16+50 /end", "free@0+16 /overrun"},
      {joined({free16, Bytes(7)}), "free@0+16 /end"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(walkBuffer(boxwalk::buffer, c.data), c.buffer);
    EXPECT_EQ(walkBuffer(boxwalk::sampleEntryChildren, c.data), c.sampleEntryChildren);
    EXPECT_EQ(walkBuffer(boxwalk::protectionChildren, c.data), c.protectionChildren);
  }
}

TEST(BufferWalk, ForCopyingEndsAtDamageAndPassesOddTypes) {
  const std::string accented = "\xC3\xA9\x61\x62";
  const Bytes data = joined({box("\xA9too", {Bytes(4)}), box(accented), box("last")});
  EXPECT_EQ(walkBuffer(boxwalk::tableChildren, data), "@0+12 " + accented + "@12+8 last@20+8 /end");
  EXPECT_EQ(walkBuffer(boxwalk::clonedChildren, data), "@0+12 @12+8 /end");
  for (auto [size, end] : {std::pair(50, "overrun"), {0, "size"}, {1, "size"}, {7, "size"}}) {
    Bytes damaged = joined({free8, boxClaiming(static_cast<uint32_t>(size), "free", {Bytes(8)})});
    const std::string stop = std::string("free@0+8 /") + end;
    EXPECT_EQ(walkBuffer(boxwalk::clonedChildren, damaged), stop);
    EXPECT_EQ(walkBuffer(boxwalk::tableChildren, damaged), size == 0 ? "free@0+8 free@8+16 /end" : stop);
  }
  EXPECT_EQ(walkBuffer(boxwalk::tableChildren, joined({longBox("free"), free8})), "free@0+16 free@16+8 /end");
}

TEST(BufferWalk, EntersContainersInPreOrderAndNotBehindTheirEnd) {
  Bytes trak = box("trak", {box("mdia", {box("hdlr", {Bytes(4)})}), box("meta", {box("mdia")})});
  EXPECT_EQ(walkBuffer(boxwalk::bufferDeep, joined({trak, free8})),
            "trak@0+44 mdia@8+20 hdlr@16+12 meta@28+16 free@44+8 /end");
  // A child that reaches over its parent is walked to the parent's end; the walk goes on behind the parent.
  Bytes overrun = joined({box("moov", {boxClaiming(99, "trak", {box("tkhd")})}), free8});
  EXPECT_EQ(walkBuffer(boxwalk::bufferDeep, overrun), "moov@0+24 trak@8+99 tkhd@16+8 free@24+8 /end");
  Bytes damaged = joined({box("moov", {boxClaiming(0, "trak"), box("trak")}), free8});
  EXPECT_EQ(walkBuffer(boxwalk::bufferDeep, damaged), "moov@0+24 free@24+8 /end");

  const Bytes tracks = joined({box("\xA9nam"), box("udta", {box("name", {Bytes(1)}), box("last")}), box("edts")});
  EXPECT_EQ(walkBuffer(boxwalk::movieBuffer, tracks), "@0+8 udta@8+25 edts@33+8 /end");
  EXPECT_EQ(walkBuffer(boxwalk::movieBuffer, joined({longBox("free"), tracks})), "/size");
}

TEST(BufferWalk, StaysInsideItsBounds) {
  const Bytes data = box("moov", {box("moov", {box("moov")})});
  EXPECT_EQ(walkBuffer(boxwalk::buffer, data, 8, 16), "moov@8+16 /end");
  EXPECT_EQ(walkBuffer(boxwalk::buffer, data, 8, 15), "/end");
  EXPECT_EQ(walkBuffer(boxwalk::buffer, data, 16, SIZE_MAX), "moov@16+8 /end");
  EXPECT_EQ(walkBuffer(boxwalk::buffer, data, SIZE_MAX, SIZE_MAX), "/end");
}

}  // namespace
}  // namespace tarn
