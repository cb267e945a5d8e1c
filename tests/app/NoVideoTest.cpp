#include <regex>

#include "app/CommandTest.h"

// What is no video is never called saved, by the real commands.

namespace tarn::test {
namespace {

const std::string pictures = "-f lavfi -i testsrc=size=64x48:rate=25:duration=1 ";

std::string made(const std::string& options, const std::string& ending) {
  return contentOf(madeByFFmpeg(words(pictures + options), ending));
}

/// What this shell command writes to its standard output, of a movie at "$0".
std::string outputOf(const std::string& command) {
  const TempDirectory place;
  const Path out = place / "out";
  const Path movie = madeByFFmpeg(words(pictures + "-c:v libx264"));
  const auto ended = runProcess({"sh", "-c", command + " > '" + out.string() + "'", movie.string()});
  EXPECT_EQ(ended.exitCode, 0) << ended.output;
  return contentOf(out);
}

class NoVideoTest : public CommandTest {
 protected:
  TarnResult save(const std::string& content, const std::string& name = "c.mp4") {
    server_.serve("/" + name, ServedFile::of(Bytes(content.begin(), content.end())));
    return run({"save", server_.url("/" + name), "--album", "Trips"});
  }
  std::string library() { return run({"library", "--json"}).output; }
};

TEST_F(NoVideoTest, IsRefusedInOneSentenceAndTheLibraryStaysAsItIs) {
  struct Row {
    std::string content;
    std::string words;  ///< behind the name
  };
  const std::string movie = made("-c:v libx264", ".mp4");
  const size_t moov = movie.find("moov") - 4;
  const std::string rebuild = ", or rebuild it with `tarn repair --like` and a healthy recording";
  const Row rows[] = {
      {"<!DOCTYPE html><html><head><title>Sign in</title></head><body></body></html>",
       "a web page (\"Sign in\"): the address needs a login"},
      {"#EXTM3U\n#EXT-X-TARGETDURATION:6\n#EXTINF:6,\n0.ts\n", "a playlist: give the address of the video itself"},
      {"<?xml version=\"1.0\"?>\n<MPD><Period/></MPD>",
       "a playlist (of a stream): give the address of the video itself"},
      {"{\"error\": \"no such clip\"}", "JSON text: give the address of the video itself"},
      {"", "empty: download it again"},
      {made("-frames:v 1", ".jpg"), "a JPEG picture: give the address of the video itself"},
      {made("-frames:v 1", ".png"), "a PNG picture: give the address of the video itself"},
      {outputOf("gzip -c \"$0\""), "compressed with gzip: unpack it first"},
      {outputOf("tar -C \"$(dirname \"$0\")\" -cf - \"$(basename \"$0\")\""), "a tar archive: unpack it first"},
      {movie.substr(0, moov), "a movie whose moov, the index of its media, is missing: download it again" + rebuild},
      {movie.substr(0, moov - 50), "a movie without its end: download it again" + rebuild},
      {"%PDF-1.4\n1 0 obj", "a PDF document: give the address of the video itself"},
  };
  ASSERT_EQ(save(std::string(textOf(damagedMovie("avc1"))), "there.mp4").exitCode, 0);
  const std::string before = library();
  const Path file = place_ / "c.mp4", out = place_ / "out.mp4";
  for (const auto& [content, words] : rows) {
    const TarnResult saved = save(content);
    EXPECT_EQ(saved.exitCode, 4) << words;
    EXPECT_THAT(saved.errors, HasSubstr("tarn: The video was not saved: c.mp4 is " + words + ".\n"));
    EXPECT_EQ(saved.output, "");
    EXPECT_EQ(library(), before);
    EXPECT_EQ(savedFiles(home_), std::vector<std::string>{"Trips/there.mp4"});
    EXPECT_EQ(assetFiles(home_), 1U);
    EXPECT_EQ(leftIn(home_), "");

    std::ofstream(file, std::ios::binary) << content;
    const std::string local = std::regex_replace(words, std::regex("address of the "), "");
    const TarnResult repaired = runTarn(home_, {"repair", file, "-o", out});
    EXPECT_EQ(repaired.exitCode, 4) << words;
    EXPECT_THAT(repaired.errors, HasSubstr("it is " + local));
    EXPECT_FALSE(fs::exists(out));
    const TarnResult inspected = runTarn(home_, {"inspect", file});
    EXPECT_THAT(inspected.output, testing::StartsWith("Broken: it is " + local + "\n"));
  }
}

TEST_F(NoVideoTest, OtherContainersAreTakenAsTheyCome) {
  const std::pair<std::string, std::string> rows[] = {
      {"-c:v libvpx", ".webm"}, {"-c:v libx264", ".mkv"}, {"-c:v mpeg4", ".avi"}, {"-c:v libx264", ".ts"}};
  for (const auto& [options, ending] : rows) {
    const std::string content = made(options, ending);
    const TarnResult saved = save(content, "clip" + ending);
    EXPECT_EQ(saved.exitCode, 0) << ending << saved.errors;
    EXPECT_EQ(contentOf(saved.lastLine()), content) << ending;
    const Path file = place_ / ("in" + ending), out = place_ / ("out" + ending);
    std::ofstream(file, std::ios::binary) << content;
    EXPECT_THAT(runTarn(home_, {"inspect", file}).output, testing::StartsWith("Left alone: it is ")) << ending;
    EXPECT_EQ(runTarn(home_, {"repair", file, "-o", out}).exitCode, 0) << ending;
    EXPECT_EQ(contentOf(out), content) << ending;
  }
  const TarnResult quickTime = save(made("-c:v libx264", ".mov"), "clip.mov");
  EXPECT_EQ(quickTime.exitCode, 0) << quickTime.errors;
  EXPECT_EQ(decoderComplaints(quickTime.lastLine()), "");
}

}  // namespace
}  // namespace tarn::test
