#include <fmt/format.h>

#include <regex>

#include "app/CommandTest.h"
#include "app/Commands.h"
#include "app/SaveList.h"
#include "app/Terminal.h"
#include "app/TransferArguments.h"
#include "support/FailureOf.h"
#include "support/RawHTTP.h"

namespace tarn::test {
namespace {

class SavesTest : public CommandTest {
 protected:
  void serve(const std::string& path) { server_.serve(path, ServedFile::of(damagedMovie("avc1"))); }
};

TEST_F(SavesTest, WhatMustFailIsRefusedBeforeTheTransfer) {
  serve("/clip.mp4");
  const std::string url = server_.url("/clip.mp4");
  const std::pair<std::vector<std::string>, const char*> rows[] = {
      {{url, "--filename", "../x"}, "has a \"/\""},
      {{url, "--filename", ".."}, "is a directory"},
      {{url, "--filename", ""}, "cannot be empty"},
      {{url, "--filename", std::string(256, 'x')}, "at most 255 bytes"},
      {{url, "--filename", "a\nb"}, "has control characters"},
      {{url, "--album", ""}, "An album must have a name"},
      {{"gopher://x/y"}, "is no http or https URL"},
      {{url, url, "--filename", "x.mp4"}, "--filename is for one URL"},
      {{url, "--header", "no header"}, "is no header"},
      {{url, "--limit-rate", "fast"}, "is no rate"},
      {{url, "--cookie-file", "/nowhere"}, "/nowhere"},
      {{"-i", "/nowhere"}, "/nowhere"},
  };
  for (const auto& [more, words] : rows) {
    std::vector<std::string> arguments{"save"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    expect(2, arguments, words);
  }
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(SavesTest, AListIsWorkedToItsEndAndEachVideoIsToldOf) {
  serve("/one.mp4");
  serve("/two.mp4");
  const Path list = place_ / "list";
  std::ofstream(list) << "# my clips\r\n\n"
                      << server_.url("/one.mp4") << "\n"
                      << server_.url("/missing.mp4") << "\tTrips\n"
                      << server_.url("/two.mp4") << "\tTrips\tsecond.mp4";
  const TarnResult result = expect(1, {"save", "-i", list, "--json"});
  std::vector<std::string> ends;
  for (const std::string_view line : linesOf(result.output)) {
    const std::string end = between(std::string(line), "\"result\":\"", "\"");
    if (!end.empty()) ends.push_back(between(std::string(line), server_.url(""), "\"") + " " + end);
  }
  EXPECT_THAT(ends, testing::UnorderedElementsAre("/one.mp4 saved", "/missing.mp4 failed", "/two.mp4 saved"));
  EXPECT_EQ(savedFiles(home_), (std::vector<std::string>{"Tarn/one.mp4", "Trips/second.mp4"}));
  EXPECT_EQ(leftIn(home_), "");
  EXPECT_EQ(run({"save", server_.url("/one.mp4"), server_.url("/two.mp4"), "--quiet"}).errors, "");
}

TEST_F(SavesTest, ATerminalHearsOfRetriesWithinItsWidth) {
  const auto file = ServedFile::of(damagedMovie("avc1"));
  const std::string path = "/%E6%97%A5%E6%9C%AC%E8%AA%9E.mp4";
  server_.serve(path, file, {Reply{.status = 503}, Reply{.status = 503}, Reply{.status = 503}});
  serve("/two.mp4");
  constexpr size_t columns = 50;
  const std::string command =
      fmt::format("stty cols {}; exec {} --home {} save {} {}", columns, tarnCommand(home_, {})[0], home_.string(),
                  server_.url(path), server_.url("/two.mp4"));
  std::string output = ended(startOther({"/usr/bin/script", "-qec", command, "/dev/null"})).output;
  EXPECT_THAT(output, HasSubstr("日本語.mp4 retrying in "));
  EXPECT_THAT(output, HasSubstr((home_ / "Photos/Tarn/two.mp4").string()));
  const std::string redrawn = "\r\x1b[K";
  size_t lines = 0;
  for (size_t at = output.find(redrawn); at != std::string::npos; ++lines) {
    output.erase(0, at + redrawn.size());
    at = output.find(redrawn);
    const std::string line = output.substr(0, at);
    if (line.find('\n') == std::string::npos) {
      EXPECT_LT(columnsOf(line), columns) << line;
    }
  }
  EXPECT_GE(lines, 2U);
}

std::string made(const std::string& options, const std::string& ending) {
  return contentOf(madeByFFmpeg(words("-f lavfi -i testsrc=size=64x48:rate=25:duration=1 " + options), ending));
}

class NoVideoTest : public CommandTest {
 protected:
  TarnResult save(int code, const std::string& content, const std::string& name, const std::string& words = "") {
    server_.serve("/" + name, ServedFile::of(Bytes(content.begin(), content.end())));
    return expect(code, {"save", server_.url("/" + name), "--album", "Trips"}, words);
  }
};

TEST_F(NoVideoTest, IsRefusedInOneSentenceAndTheLibraryStaysAsItIs) {
  const std::string movie = made("-c:v libx264", ".mp4");
  const size_t moov = movie.find("moov") - 4;
  const std::string rebuild = ": download it again, or rebuild it with `tarn repair --like` and a healthy recording";
  const std::pair<std::string, std::string> rows[] = {
      {"<!DOCTYPE html><html><head><title>Sign in</title></head><body></body></html>",
       "a web page (\"Sign in\"): the address needs a login"},
      {"", "empty: download it again"},
      {made("-frames:v 1", ".jpg"), "a JPEG picture: give the address of the video itself"},
      {movie.substr(0, moov), "a movie whose moov, the index of its media, is missing" + rebuild},
      {movie.substr(0, moov - 50), "a movie without its end" + rebuild},
  };
  save(0, movie, "there.mp4");
  const std::string before = run({"library", "--json"}).output;
  const Path file = place_ / "c.mp4", out = place_ / "out.mp4";
  for (const auto& [content, words] : rows) {
    const TarnResult saved = save(4, content, "c.mp4", "tarn: The video was not saved: c.mp4 is " + words + ".\n");
    EXPECT_EQ(saved.output, "");
    EXPECT_EQ(run({"library", "--json"}).output, before);
    EXPECT_EQ(savedFiles(home_), std::vector<std::string>{"Trips/there.mp4"});
    EXPECT_EQ(assetFiles(home_), 1U);
    EXPECT_EQ(leftIn(home_), "");

    put(file, content);
    const std::string local = std::regex_replace(words, std::regex("address of the "), "");
    expect(4, {"repair", file, "-o", out}, "it is " + local);
    EXPECT_FALSE(fs::exists(out));
    expect(4, {"inspect", file}, "Broken: it is " + local + "\n");
  }
}

TEST_F(NoVideoTest, OtherContainersAreTakenAsTheyCome) {
  const std::pair<std::string, std::string> rows[] = {{"-c:v libvpx", ".webm"}, {"-c:v libx264", ".ts"}};
  for (const auto& [options, ending] : rows) {
    const std::string content = made(options, ending);
    EXPECT_EQ(contentOf(save(0, content, "clip" + ending).lastLine()), content) << ending;
    const Path file = place_ / ("in" + ending), out = place_ / ("out" + ending);
    put(file, content);
    expect(0, {"inspect", file}, "Left alone: it is ");
    expect(0, {"repair", file, "-o", out});
    EXPECT_EQ(contentOf(out), content) << ending;
  }
  EXPECT_EQ(decoderComplaints(save(0, made("-c:v libx264", ".mov"), "clip.mov").lastLine()), "");
}

TEST(SaveList, SaysWhichLineIsWrong) {
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},
      {"\xEF\xBB\xBF# x\n \t\nhttp://a/b\r\n", "http://a/b|Tarn|- "},
      {"http://a/b\t\tc.mp4\nhttps://d/e\tTrips\t\n", "http://a/b|Tarn|c.mp4 https://d/e|Trips|- "},
      {"http://a/my clip.mp4\n", "http://a/my clip.mp4|Tarn|- "},
      {"http://a/b\n\nftp://a/c\n", "Line 3 of LIST: \"ftp://a/c\" is no http or https URL."},
      {"http://a/b\tx\ty\tz", "Line 1 of LIST: it has more than URL, album and name, parted by tabs."},
      {"http://a/b\tx\ty/z", "Line 1 of LIST: The file name \"y/z\" has a \"/\". Give a name alone."},
      {"http://a/\xFF", "Line 1 of LIST: it is no UTF-8 text."},
  };
  for (const auto& [text, result] : rows) {
    std::string all;
    const std::string failure = failureOf([&, text = text] {
      for (const SaveItem& item : parseSaveList(text, "Tarn", "LIST")) {
        all += item.url + "|" + item.album + "|" + item.filename.value_or("-") + " ";
      }
    });
    EXPECT_EQ(failure.empty() ? all : failure, result) << text;
  }
}

TEST(TransferArguments, TakesRatesInPowersOfAThousand) {
  EXPECT_EQ(parseRate("500K"), 500'000U);
  EXPECT_EQ(parseRate("1.5m"), 1'500'000U);
  EXPECT_EQ(parseRate("77"), 77U);
  for (const char* text : {"", "K", "0", "-1", "1e99", "inf", "nan", "5KB", "1 M"}) {
    EXPECT_THROW(parseRate(text), UsageError) << text;
  }
}

}  // namespace
}  // namespace tarn::test
