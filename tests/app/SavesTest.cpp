#include <fmt/format.h>

#include "app/CommandTest.h"
#include "app/Commands.h"
#include "app/SaveList.h"
#include "app/Terminal.h"
#include "app/TransferArguments.h"
#include "platform/JSObject.h"

namespace tarn::test {
namespace {

class SavesTest : public CommandTest {
 protected:
  void serve(const std::string& path, const Reply& reply = {}) {
    server_.serve(path, ServedFile::of(damagedMovie("avc1")), {}, reply);
  }
};

TEST_F(SavesTest, AFailureSaysWhatToDoByItsKind) {
  serve("/there.mp4");
  struct Row {
    const char* name;
    Reply reply;
    std::vector<std::string> more;
    int exitCode;
    std::string advice;
  };
  const std::string signIn = "<!DOCTYPE html><title>Sign in</title>";
  const Reply page{.file = ServedFile::of(Bytes(signIn.begin(), signIn.end()))};
  const Row rows[] = {
      {"gone", {.status = 410}, {}, 1, "Check the address"},
      {"login", {.status = 403}, {}, 1, "`--cookie-file`"},
      {"busy", {.status = 500}, {"--retries", "0"}, 75, "try again later"},
      {"circle", {.status = 302, .location = "/circle.mp4"}, {}, 1, "leads in a circle"},
      {"page", page, {}, 4, "the address needs a login"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string path = std::string("/") + row.name + ".mp4";
    serve(path, row.reply);
    std::vector<std::string> arguments{"save", server_.url(path)};
    arguments.insert(arguments.end(), row.more.begin(), row.more.end());
    const TarnResult result = run(arguments);
    EXPECT_EQ(result.exitCode, row.exitCode);
    EXPECT_THAT(result.errors, HasSubstr(row.advice));
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(leftIn(home_), "");
  }
}

TEST_F(SavesTest, WhatMustFailIsRefusedAheadOfTheTransfer) {
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
    const TarnResult result = run(arguments);
    EXPECT_EQ(result.exitCode, 2) << words;
    EXPECT_THAT(result.errors, HasSubstr(words));
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
  const TarnResult result = run({"save", "-i", list, "--json"});
  EXPECT_EQ(result.exitCode, 1);
  std::vector<std::string> ends;
  for (const std::string_view line : linesOf(result.output)) {
    const auto object = JSObject::parse(line);
    ASSERT_TRUE(object) << line;
    EXPECT_EQ(valueAt<int64_t>(*object, "schema", 0), 1) << line;
    const auto* const end = valueAt<std::string>(*object, "result");
    if (end) ends.push_back(valueAt<std::string>(*object, "url", "").substr(server_.url("").size()) + " " + *end);
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

std::string parsed(std::string_view text) {
  try {
    std::string all;
    for (const SaveItem& item : parseSaveList(text, "Tarn", "LIST")) {
      all += item.url + "|" + item.album + "|" + item.filename.value_or("-") + " ";
    }
    return all;
  } catch (const UsageError& error) {
    return error.description();
  }
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
  for (const auto& [text, result] : rows) EXPECT_EQ(parsed(text), result) << text;
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
