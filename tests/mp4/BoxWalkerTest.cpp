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

std::string walkBuffer(const BoxWalkPolicy& policy, const Bytes& data) {
  return walk(BufferBoxWalker(data, 0, SIZE_MAX, policy));
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

}  // namespace
}  // namespace tarn
