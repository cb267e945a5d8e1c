#include <gtest/gtest.h>

#include "api/FileNames.h"
#include "api/InProcessClient.h"
#include "engine/Host.h"
#include "engine/Outcomes.h"
#include "platform/JSObject.h"
#include "platform/host/PosixFileManager.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

TEST(HostTest, OnlyTheHostChoosesTheIdOfADownload) {
  TempDirectory place;
  PosixFileManager files(place.path());
  Host host(files, {.home = place.path()});
  InProcessClient client(host);
  host.start();
  const auto idOf = [&](const std::string& plugin) {
    const JSObject options{{"id", 7}, {"url", "http://127.0.0.1:1/a.mp4"}, {"album", "Trips"}, {"filename", "a.mp4"}};
    return valueAt<int64_t>(client.call(plugin, "saveVideo", options).data, "id", 0);
  };
  EXPECT_GT(idOf("TarnBridge"), 1'000'000'000) << "a page gets the time";
  EXPECT_EQ(idOf("TarnHost"), 7);
}

TEST(HostTest, OfManyOutcomesTheNewestAreKeptAndTheOneThatCameLast) {
  Outcomes outcomes;
  const auto newest = static_cast<int64_t>(Outcomes::most) + 2;
  for (int64_t id = 2; id <= newest; ++id) outcomes.keep({.id = id});
  EXPECT_FALSE(outcomes.of(2));
  EXPECT_TRUE(outcomes.of(3));
  outcomes.keep({.id = 1});
  EXPECT_TRUE(outcomes.of(1));
  EXPECT_FALSE(outcomes.of(3));
  EXPECT_TRUE(outcomes.of(newest));
}

TEST(HostTest, DefaultNamesComeFromTheURL) {
  std::string umlauts, encoded;
  for (int i = 0; i < 98; ++i) umlauts += "\xC3\xA4";
  for (int i = 0; i < 150; ++i) encoded += "%C3%A4";
  const std::pair<std::string, std::string> rows[] = {{"/a/clip.MOV?x=1#y", "clip.MOV"},
                                                      {"/", "video.mp4"},
                                                      {"/%2e%2e", "video.mp4"},
                                                      {"/a%2Fb", "a_b.mp4"},
                                                      {"/.mp4", "mp4.mp4"},
                                                      {"/%ff%zz", "%ff%zz.mp4"},
                                                      {"/clip.txt", "clip.txt.mp4"},
                                                      {"/" + encoded, umlauts + ".mp4"}};
  for (const auto& [path, name] : rows) EXPECT_EQ(defaultFilename("http://h" + path), name) << path;
}

}  // namespace
}  // namespace tarn::test
