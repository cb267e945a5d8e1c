#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "TransferHarness.h"
#include "platform/host/RangeRules.h"
#include "support/Eventually.h"
#include "support/FaultServer.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

constexpr uint64_t cut = 100'000;

/// A path that answers so, and how a transfer from it must end: with exactly these bytes, or with this error.
struct Row {
  const char* name;
  std::vector<Reply> replies;
  Reply afterwards;
  std::optional<Bytes> file;
  int errorCode = 0;
  size_t requests = 0;
  std::string lastRange = {};    ///< Range of the last request
  std::string lastIfRange = {};  ///< If-Range of the last request
};

Bytes gzipped(const Bytes& bytes) {
  const TempDirectory place;
  PosixFileManager files(place.path());
  writeFileAtomically(files, place / "file", bytes);
  EXPECT_EQ(runProcess({"gzip", "-n", (place / "file").string()}).exitCode, 0);
  return readFile(files, place / "file.gz");
}

std::vector<Row> rows() {
  const Bytes one = video(1), another = video(2);
  const ServedFile two = ServedFile::of(another).withETag("\"v2\"");
  const ServedFile weak = ServedFile::of(one).withETag("W/\"v1\"");
  const ServedFile oddlyTagged = ServedFile::of(one).withETag("\"\xff\"");
  const Bytes first200k(one.begin(), one.begin() + 200'000);
  const auto page = bytesOf("<html><body>200</body></html>");
  const Bytes htmlPage(page.begin(), page.end());
  const Reply cutShort{.closeAfter = cut};
  const Reply tooLong{.statedLength = videoSize + 1};
  const Reply newer{.file = two};
  const Reply newerRange{.file = two, .ignoresIfRange = true};
  const Reply newerUnnamed{.file = two, .ignoresIfRange = true, .omitsValidators = true};
  const Reply elsewhere{.rangeShift = 10, .closeAfter = cut};
  const ServedFile packed = ServedFile::of(gzipped(one));
  const Reply inGzip{.file = packed, .contentEncoding = "gzip"};
  const Reply inGzipCut{.file = packed, .contentEncoding = "gzip", .closeAfter = cut};
  const Reply pageInstead{
      .file = ServedFile::of(htmlPage), .ignoresRange = true, .contentType = "text/html; charset=utf-8"};
  const Reply codingOfNone{.contentEncoding = "aws-chunked"};
  const Reply codingOfNoneCut{.contentEncoding = "aws-chunked", .closeAfter = cut};
  const Reply pageInGzip{.file = ServedFile::of(gzipped(htmlPage)),
                         .ignoresRange = true,
                         .contentType = "text/html",
                         .contentEncoding = "gzip"};
  const std::string range = "bytes=100000-";
  const std::string date = "Tue, 01 Jul 2025 10:00:00 GMT";
  const std::string tag = "\"v1\"";
  const Reply moved{.status = 307, .location = "/file"};

  return {
      {"a faultless answer", {}, {}, one, 0, 1},
      {"an empty file", {{.file = ServedFile::of({})}}, {}, Bytes{}, 0, 1},
      {"not found", {}, {.status = 404}, {}, 404, 1},
      {"not modified, unasked", {}, {.status = 304}, {}, CURLE_WEIRD_SERVER_REPLY, 1},
      {"trouble, then a file", {{.status = 500}, {.status = 408}, {.status = 429}, {.status = 503}}, {}, one, 0, 5},
      {"trouble without end", {}, {.status = 500}, {}, 500, 5},
      {"an HTML page with 200", {}, {.status = 200}, htmlPage, 0, 1},

      {"cut short", {cutShort}, {}, one, 0, 2, range, tag},
      {"cut short again and again", {cutShort, cutShort, cutShort}, {}, one, 0, 3, "bytes=200000-", tag},
      {"cut short before the body", {{.closeAfter = 0}}, {}, one, 0, 2},
      {"cut short, weak entity tag", {{.file = weak, .closeAfter = cut}}, {.file = weak}, one, 0, 2, range, date},
      {"cut short, entity tag not ASCII", {{.file = oddlyTagged, .closeAfter = cut}}, {}, one, 0, 2, range, date},
      {"cut short, no validator", {{.omitsValidators = true, .closeAfter = cut}}, {}, one, 0, 2},
      {"a stall", {{.stallAfter = cut}}, {}, one, 0, 2, range, tag},
      {"stalls without end", {}, {.stallAfter = 0}, {}, CURLE_OPERATION_TIMEDOUT, 5},

      {"redirect to a file", {}, {.status = 301, .location = "file:///etc/passwd"}, {}, CURLE_UNSUPPORTED_PROTOCOL, 1},
      {"redirect loop", {}, moved, {}, CURLE_TOO_MANY_REDIRECTS, 21},
      {"redirects", {moved, cutShort, moved}, {}, one, 0, 4, range, tag},

      {"no length", {}, {.omitsLength = true}, one, 0, 1},
      {"chunked", {}, {.chunked = true}, one, 0, 1},
      {"chunked, cut short", {{.chunked = true, .closeAfter = cut}}, {}, one, 0, 2, range, tag},
      {"length too large, always", {}, tooLong, {}, CURLE_RANGE_ERROR, 10, "bytes=300000-", tag},
      {"length too large, once", {tooLong}, {}, one, 0, 3},
      {"length too small", {}, {.statedLength = 200'000}, first200k, 0, 1},

      {"gzip unasked", {}, inGzip, one, 0, 1},
      {"gzip unasked, cut short", {inGzipCut}, inGzip, one, 0, 2},
      {"gzip unasked, where the file was begun", {cutShort, inGzip}, {}, one, 0, 3},
      {"a coding that is none", {}, codingOfNone, one, 0, 2},
      {"a coding that is none, then gzip", {codingOfNone}, inGzip, one, 0, 3},
      {"a coding that cannot be undone", {}, {.contentEncoding = "compress"}, {}, CURLE_BAD_CONTENT_ENCODING, 1},
      {"gzip that is none", {}, {.contentEncoding = "gzip"}, {}, CURLE_BAD_CONTENT_ENCODING, 1},

      {"a page where a file was begun", {cutShort, pageInstead}, {}, one, 0, 3, range, tag},
      {"a page where a file was begun, always", {cutShort}, pageInstead, {}, CURLE_WEIRD_SERVER_REPLY, 5, range, tag},
      {"a page in gzip where a coding that is none was begun",
       {codingOfNone, codingOfNoneCut, pageInGzip},
       codingOfNone,
       one,
       0,
       4,
       range,
       tag},
      {"another page where a page was begun",
       {{.contentType = "text/html", .closeAfter = cut}},
       pageInstead,
       htmlPage,
       0,
       2,
       range,
       tag},

      {"another version", {cutShort, newer}, {}, another, 0, 2, range, tag},
      {"another version, If-Range ignored", {cutShort, newerRange}, newer, another, 0, 3},
      {"another version, unnamed", {cutShort, newerUnnamed}, newer, another, 0, 3},
      {"ranges ignored", {cutShort, {.ignoresRange = true}}, {}, one, 0, 2, range, tag},
      {"206 from before", {cutShort, {.rangeShift = -10}}, {}, one, 0, 3},
      {"206 from behind", {cutShort, {.rangeShift = 10}}, {}, one, 0, 3},
      {"206 from elsewhere, always", {}, elsewhere, {}, CURLE_RANGE_ERROR, 10, range, tag},
      {"206 with another total", {cutShort, {.contentRange = "bytes 100000-299999/300001"}}, {}, one, 0, 3},
      {"206 with no total", {cutShort, {.contentRange = "bytes 100000-299999/*"}}, {}, one, 0, 3},
      {"206 with no range", {cutShort, {.contentRange = ""}}, {}, one, 0, 3},
      {"206 unasked", {}, {.status = 206}, {}, CURLE_RANGE_ERROR, 5},
      {"416 unasked", {}, {.status = 416}, {}, 416, 1},
      {"416 without reason", {cutShort, {.status = 416}}, {}, one, 0, 3},
  };
}

TEST(TransferFaultTest, EndsWithTheWholeFileOrAnError) {
  for (const Row& row : rows()) {
    SCOPED_TRACE(row.name);
    FaultServer server;
    server.serve("/file", ServedFile::of(video(1)), row.replies, row.afterwards);
    Harness harness;
    const bool stalls = row.afterwards.stallAfter || (!row.replies.empty() && row.replies[0].stallAfter);
    if (stalls) harness.options.stallTime = std::chrono::milliseconds(250);
    harness.start();

    const Heard heard = harness.fetch(server.url("/file"));
    EXPECT_EQ(heard.code(), row.errorCode);
    EXPECT_EQ(heard.file, row.file);
    EXPECT_TRUE(heard.isInOrder()) << heard.events;
    EXPECT_TRUE(!row.file || heard.total == static_cast<int64_t>(row.file->size())) << heard.total;
    EXPECT_EQ(harness.filesLeft(), 0U);
    EXPECT_EQ(server.requests().size(), row.requests);
    const ReceivedRequest last = server.requests().back();
    EXPECT_EQ(last.header("range"), row.lastRange);
    EXPECT_EQ(last.header("if-range"), row.lastIfRange);
    EXPECT_EQ(last.header("accept-encoding"), "identity");
    EXPECT_TRUE(last.header("user-agent").starts_with("tarn/"));
  }
}

TEST(TransferConnectionTest, RefusedConnectionsAreTriedAgain) {
  const uint16_t port = FaultServer::closedPort();
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/file";
  Harness harness;
  harness.start();
  EXPECT_EQ(harness.fetch(url).code(), CURLE_COULDNT_CONNECT);

  harness.stop();
  harness.options.maximumTries = 1000;
  harness.start();
  const auto task = harness.download(url);
  ASSERT_TRUE(eventually([&] { return task->transferState().retry.value_or(TransferState::Retry()).number > 3; }));
  const auto retry = task->transferState().retry;
  if (retry) {  // no try is under way just now
    EXPECT_EQ(retry->why, "connection refused");
    EXPECT_EQ(retry->most, 999);
    EXPECT_LE(retry->in, harness.options.maximumPause);
  }
  const FaultServer server(port, {{"/file", ServedFile::of(video(1))}});
  EXPECT_EQ(harness.listener->waitForEnd(task->taskIdentifier()).file, video(1));
}

TEST(TransferConnectionTest, WhyATransferWaitsForAnotherTryIsTold) {
  const std::pair<Reply, const char*> rows[] = {{{.status = 503}, "the server answered 503"},
                                                {{.closeAfter = cut}, "the connection broke off"},
                                                {{.status = 206}, "the server sent another range than was asked for"}};
  for (const auto& [reply, why] : rows) {
    FaultServer server;
    server.serve("/file", ServedFile::of(video(1)), {reply});
    Harness harness;
    harness.options.initialPause = harness.options.maximumPause = std::chrono::seconds(60);
    harness.start();
    const auto task = harness.download(server.url("/file"));
    ASSERT_TRUE(eventually([&] { return task->transferState().retry.has_value(); }));
    const TransferState::Retry retry = *task->transferState().retry;
    EXPECT_EQ(retry.why, why);
    EXPECT_EQ(retry.number, 1);
    EXPECT_EQ(retry.most, 4);
    EXPECT_GT(retry.in, std::chrono::seconds(10));
    task->suspend();
    EXPECT_FALSE(task->transferState().retry);
  }
}

TEST(TransferConnectionTest, ATransferReportsInModeration) {
  FaultServer server;
  server.serve("/file", ServedFile::of(video(1)), {}, {.bytesPerSecond = videoSize / 60});
  Harness harness;
  harness.start();
  const auto began = std::chrono::steady_clock::now();
  const auto task = harness.download(server.url("/file"));
  const Heard heard =
      harness.listener->waitFor(task->taskIdentifier(), [](const Heard& soFar) { return soFar.reports() >= 3; });
  EXPECT_LE(heard.reports(), (std::chrono::steady_clock::now() - began) / harness.options.reportInterval + 1);
  EXPECT_EQ(heard.expected, static_cast<int64_t>(videoSize));
  task->cancel();
}

TEST(TransferConnectionTest, WhatCannotBeFetchedMakesNoTask) {
  Harness harness;
  harness.start();
  for (const char* url : {"ftp://127.0.0.1/x", "http://127.0.0.1/\xff"}) {
    EXPECT_THROW(harness.session->downloadTask(url, ""), URLError) << url;
  }
  EXPECT_THROW(harness.service->makeBackgroundSession("downloads", harness.listener), URLError);
  EXPECT_TRUE(harness.service->storedTaskDescriptions().empty());
}

TEST(TransferDiskTest, ADiskThatFailsEndsTheTransferAndLeavesNothing) {
  FaultServer server;
  server.serve("/file", ServedFile::of(video(1)));
  using enum FileOperation;
  int failures = 0;
  bool fired = true;
  for (uint64_t call = 1; fired; ++call) {
    SCOPED_TRACE(call);
    Harness harness;
    harness.start();
    harness.files.arm({.call = call,
                       .errnum = ENOSPC,
                       .effect = Fault::Effect::half,
                       .among = {open, write, flush, close, createDirectory, copy, link, replace}});
    Heard heard;
    try {
      heard = harness.fetch(server.url("/file"));
    } catch (const PosixError& error) {
      heard.error = error;
    }
    fired = harness.files.fired();
    EXPECT_EQ(heard.file.has_value(), !heard.error);
    EXPECT_TRUE(heard.error ? heard.code() == ENOSPC && fired : heard.file == video(1));
    EXPECT_TRUE(!harness.disk.fileExists(harness.directory()) || harness.filesLeft() == 0);
    if (heard.error) ++failures;
  }
  EXPECT_GT(failures, 10);
}

TEST(TransferRangeTest, WhatAServerSaysOfPartsIsTakenWhereItCanBe) {
  for (const char* text :
       {"", "bytes", "bytes 0-9", "bytes 5-4/10", "bytes 0-10/10", "bytes -1-5/10", "bytes 0-/10", "items 0-9/10",
        "bytes 0-9/9223372036854775808", "bytes 0-99999999999999999999/*", "bytes 0-9/10, 10-19/20", "bytes 0-9/1 0"}) {
    EXPECT_FALSE(ContentRange::parse(text)) << text;
  }
  EXPECT_EQ(ContentRange::parse("bytes */10")->total, 10U);

  // A file that was modified in the second of the response may be modified again in it.
  ResponseHead head;
  head.lastModified = head.date = "Tue, 01 Jul 2025 10:00:00 GMT";
  EXPECT_EQ(head.validator(), "");
  head.date = "Tue, 01 Jul 2025 10:00:01 GMT";
  EXPECT_EQ(head.validator(), head.lastModified);
}

}  // namespace
}  // namespace tarn::test
