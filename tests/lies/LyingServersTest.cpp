#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <variant>

#include "inspect/FailureAdvice.h"
#include "platform/TransferHarness.h"
#include "support/DamagedMovies.h"
#include "support/FaultServer.h"
#include "support/MediaMaker.h"
#include "support/TarnProcess.h"

// Servers that lie. Whatever they say, a transfer ends with the right bytes or with a failure in words: in time (the
// listener waits for 60 s), in little memory, with no file beyond `largestFile`, and with nothing left behind.

namespace tarn::test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using testing::HasSubstr;

constexpr uint64_t cut = 100'000;
constexpr rlim_t largestFile = 32 << 20;  // the disk's end, for a body that has none
#ifdef TARN_SANITIZED
constexpr uint64_t mostMemory = 512 << 20;  // what is freed is kept for a while
#else
constexpr uint64_t mostMemory = 64 << 20;
#endif

struct Lie {
  const char* name;
  std::vector<Reply> replies;  ///< to the first requests
  Reply afterwards;
  std::variant<Bytes, const char*> ending;  ///< exactly these bytes, or a failure in these words
  size_t requests = 0;                      ///< 0: any number
  std::string last = {};                    ///< Range and If-Range of the last request
};

Bytes bytes(const std::string& text) {
  return {text.begin(), text.end()};
}

Bytes gzipped(const Bytes& content) {
  const TempDirectory place;
  PosixFileManager files(place.path());
  writeFileAtomically(files, place / "file", content);
  EXPECT_EQ(runProcess({"gzip", "-n", (place / "file").string()}).exitCode, 0);
  return readFile(files, place / "file.gz");
}

Reply says(const std::string& raw, const std::string& endless = {}, std::chrono::milliseconds pause = 0ms) {
  return {.raw = raw, .endless = endless, .pause = pause};
}

Reply to(const char* place) {
  return {.status = 302, .location = place};
}

Reply states(const std::string& length) {
  return {.omitsLength = true, .fields = "Content-Length: " + length + "\r\n"};
}

const Bytes one = video(1), another = video(2);
const std::string date = "Tue, 01 Jul 2025 10:00:00 GMT", tag = "\"v1\"", range = "bytes=99488-";
const std::string start = "HTTP/1.1 200 -\r\n";
const char* const tooLong = "head of the server's answer is too long";
const Reply cutShort{.closeAfter = cut};
const ServedFile two = ServedFile::of(another).withETag("\"v2\"");

std::vector<Lie> liesOfStatus() {
  const Reply moved{.status = 307, .location = "/file"};
  const Bytes page = bytes("<html><body>200</body></html>");
  return {
      {"a faultless answer", {}, {}, one, 1},
      {"an empty file", {{.file = ServedFile::of({})}}, {}, Bytes{}, 1},
      {"not found", {}, {.status = 404}, "HTTP status 404", 1},
      {"no content", {}, {.raw = "HTTP/1.1 204 -\r\n\r\n"}, "HTTP status 204", 1},
      {"no content for the rest", {cutShort}, {.status = 204}, "HTTP status 204", 2, range + tag},
      {"not modified, unasked", {}, {.status = 304}, "HTTP status 304", 1},
      {"trouble, then a file", {{.status = 500}, {.status = 408}, {.status = 429}, {.status = 503}}, {}, one, 5},
      {"again in 31 years", {}, {.status = 429, .fields = "Retry-After: 999999999\r\n"}, "HTTP status 429", 5},
      {"again before now", {{.status = 503, .fields = "Retry-After: -1\r\n"}}, {}, one, 2},
      {"an HTML page with 200", {}, {.status = 200}, page, 1},
      {"a redirect to a file", {}, to("file:///etc/passwd"), "http or https", 1},
      {"a redirect to nowhere", {}, {.status = 302}, "HTTP status 302", 1},
      {"a redirect loop", {}, moved, "from place to place", 21},
      {"redirects", {moved, cutShort, moved}, {}, one, 4, range + tag},
      {"a redirect with an endless body", {says("HTTP/1.1 302 -\r\nLocation: /file\r\n\r\n", "x")}, {}, one, 2},
  };
}

std::vector<Lie> liesOfHeads() {
  const ServedFile longTag = ServedFile::of(one).withETag('"' + std::string(60'000, 'x') + '"');
  return {
      {"a head alone", {}, {.closeAfter = 0}, "remaining to read", 5},
      {"HTTP/0.9", {}, says("<html>"), "HTTP/0.9", 1},
      {"a head that breaks off", {says("HTTP/1.1 200 OK\r\nContent-Le")}, {}, one, 2},
      {"a head without end", {}, says(start, "X-Y: z\r\n"), tooLong, 1},
      {"a tag of 60 kB", {{.file = longTag, .closeAfter = cut}}, {}, one, 2, range + date},
      {"status 100 without end", {}, says("HTTP/1.1 100 -\r\n\r\n", "HTTP/1.1 100 -\r\n\r\n"), tooLong, 1},
      {"a head a byte at a time", {}, says(start, "X:\r\n", 20ms), "Timeout", 2},
  };
}

std::vector<Lie> liesOfLength() {
  const Bytes first200k(one.begin(), one.begin() + 200'000);
  const Reply larger{.statedLength = 200'000, .fields = "Content-Length: 300000\r\n"};
  const Reply over{.statedLength = videoSize + 1};
  const std::string chunked = start + "Transfer-Encoding: chunked\r\n\r\n";
  return {
      {"no length", {}, {.omitsLength = true}, one, 1},
      {"length too large, always", {}, over, "another range", 10, "bytes=299488-" + tag},
      {"length too large, once", {over}, {}, one, 3},
      {"length too small", {}, {.statedLength = 200'000}, first200k, 1},
      {"the length twice", {}, {.fields = "Content-Length: 300000\r\n"}, one, 1},
      {"two lengths, the larger last", {}, larger, "two lengths", 1},
      {"a length of 8 EiB", {}, states("9223372036854775807"), "disk", 1},
      {"a length beyond counting", {}, states("99999999999999999999"), "a length that is none", 1},
      {"chunked", {}, {.chunked = true}, one, 1},
      {"chunked, cut short", {{.chunked = true, .closeAfter = cut}}, {}, one, 2, range + tag},
      {"a chunk beyond counting", {}, says(chunked + "fffffffffffffffff\r\nabc"), "Too long hexadecimal", 5},
      {"an endless body", {}, says(start + "\r\n", "x"), "File too large", 1},
      {"endless after its length", {}, says(start + "Content-Length: 9\r\n\r\n", "x"), bytes("xxxxxxxxx"), 1},
      {"a stall", {{.stallAfter = cut}}, {}, one, 2, range + tag},
      {"stalls without end", {}, {.stallAfter = 0}, "Timeout", 2},
      {"a byte now and then", {}, says(start + "\r\n", "x", 20ms), "Timeout", 2},
      {"a byte of each connection", {}, {.closeAfter = 1}, "remaining to read", 5},
  };
}

std::vector<Lie> liesOfVersion() {
  const ServedFile weak = ServedFile::of(one).withETag("W/\"v1\"");
  const ServedFile oddlyTagged = ServedFile::of(one).withETag("\"\xff\"");
  const Reply newer{.file = two};
  const Reply newerRange{.file = two, .ignoresIfRange = true};
  const Reply newerUnnamed{.file = two, .ignoresIfRange = true, .omitsValidators = true};
  const auto dated = [](const Bytes& file, const char* day, std::optional<uint64_t> end) {
    return Reply{.file = ServedFile::of(file),
                 .ignoresIfRange = true,
                 .omitsValidators = true,
                 .fields = std::string("Last-Modified: ") + day + " Jul 2025 10:00:00 GMT\r\n",
                 .closeAfter = end};
  };
  const Reply sameTag{.file = ServedFile::of(another)};
  return {
      {"cut short", {cutShort}, {}, one, 2, range + tag},
      {"cut short again and again", {cutShort, cutShort, cutShort}, {}, one, 4, "bytes=298464-" + tag},
      {"cut short before the body", {{.closeAfter = 0}}, {}, one, 2},
      {"cut short, weak entity tag", {{.file = weak, .closeAfter = cut}}, {.file = weak}, one, 2, range + date},
      {"cut short, entity tag not ASCII", {{.file = oddlyTagged, .closeAfter = cut}}, {}, one, 2, range + date},
      {"cut short, no validator", {{.omitsValidators = true, .closeAfter = cut}}, {}, one, 2},
      {"another version", {cutShort, newer}, {}, another, 2, range + tag},
      {"another version, If-Range ignored", {cutShort, newerRange}, newer, another, 3},
      {"another version, unnamed", {cutShort, newerUnnamed}, newer, another, 3},
      {"another version under the same tag", {cutShort}, sameTag, another, 3},
      {"another date, no tag", {dated(one, "Tue, 01", cut)}, dated(another, "Wed, 02", {}), another, 3},
      {"another version of the same date", {dated(one, "Tue, 01", cut)}, dated(another, "Tue, 01", {}), another, 3},
      {"ranges ignored", {cutShort, {.ignoresRange = true}}, {}, one, 2, range + tag},
  };
}

std::vector<Lie> liesOfRange() {
  const Reply elsewhere{.rangeShift = 10, .closeAfter = cut};
  const Reply noMore{.status = 416, .fields = "Content-Range: bytes */100000\r\n"};
  const Reply shifted{.rangeShift = 10, .contentRange = "bytes 99488-299999/300000"};
  const Reply parts{.contentType = "multipart/byteranges; boundary=b"};
  std::vector<Lie> lies = {
      {"206 from before", {cutShort, {.rangeShift = -10}}, {}, one, 3},
      {"206 from after", {cutShort, {.rangeShift = 10}}, {}, one, 3},
      {"206 from elsewhere, always", {}, elsewhere, "another range", 10, range + tag},
      {"206 that lies about its start", {cutShort, shifted}, {}, one, 3},
      {"206 in many parts", {cutShort, parts}, {}, one, 3},
      {"206 unasked", {}, {.status = 206}, "another range", 5},
      {"416 unasked", {}, {.status = 416}, "HTTP status 416", 1},
      {"416 without reason", {cutShort, {.status = 416}}, {}, one, 3},
      {"416 that calls a half the whole", {cutShort, noMore}, {}, one, 3},
      {"416 that calls chunks whole", {{.chunked = true, .closeAfter = cut}, noMore}, {}, one, 3},
  };
  // Another end, one beyond the file, one before the start, other totals, another unit, two ranges, and none.
  for (const char* spans : {"bytes 99488-199999/300000", "bytes 99488-300000/300000", "bytes 99488-99487/300000",
                            "bytes 99488-299999/300001", "bytes 99488-299999/*",
                            "bytes 99488-299999/9223372036854775808", "pages 99488-299999/300000",
                            "bytes -99488-299999/300000", "bytes 99488-199999/300000, 200000-299999/300000", ""}) {
    lies.push_back({spans, {cutShort, {.contentRange = spans}}, {}, one, 3});
  }
  return lies;
}

std::vector<Lie> liesOfCoding() {
  const ServedFile packed = ServedFile::of(gzipped(one));
  const Bytes page = bytes("<html><body>200</body></html>");
  const Reply inGzip{.file = packed, .contentEncoding = "gzip"};
  const Reply inGzipCut{.file = packed, .contentEncoding = "gzip", .closeAfter = cut};
  const Reply pageInstead{
      .file = ServedFile::of(page), .ignoresRange = true, .contentType = "text/html; charset=utf-8"};
  const Reply noneOf{.contentEncoding = "aws-chunked"};
  const Reply noneOfCut{.contentEncoding = "aws-chunked", .closeAfter = cut};
  const Reply pageInGzip{.file = ServedFile::of(gzipped(page)),
                         .ignoresRange = true,
                         .contentType = "text/html",
                         .contentEncoding = "gzip"};
  const Reply pageCut{.contentType = "text/html", .closeAfter = cut};
  const Reply bomb{.file = ServedFile::of(gzipped(Bytes(largestFile - 1))), .contentEncoding = "gzip"};
  const char* const undone = "coding that cannot be undone";
  return {
      {"gzip unasked", {}, inGzip, one, 1},
      {"gzip unasked, cut short", {inGzipCut}, inGzip, one, 2},
      {"gzip unasked, where the file was begun", {cutShort, inGzip}, {}, one, 3},
      {"gzip that is none", {}, {.contentEncoding = "gzip"}, undone, 1},
      {"six codings", {}, {.file = packed, .contentEncoding = "gzip,gzip,gzip,gzip,gzip,gzip"}, undone, 1},
      {"a bomb in gzip", {}, bomb, "unpacks to more than", 1},
      {"a coding that is none", {}, noneOf, one, 2},
      {"a coding that is none, then gzip", {noneOf}, inGzip, one, 3},
      {"a coding that is not known", {}, {.contentEncoding = "compress"}, undone, 1},
      {"a page where a file was begun", {cutShort, pageInstead}, {}, one, 3, range + tag},
      {"a page where a file was begun, always", {cutShort}, pageInstead, "a web page in place", 5, range + tag},
      {"a page in gzip, no coding begun", {noneOf, noneOfCut, pageInGzip}, noneOf, one, 4, range + tag},
      {"another page where a page was begun", {pageCut}, pageInstead, page, 2, range + tag},
  };
}

/// Of this process, since the last reset, in bytes.
uint64_t peakMemory() {
  const std::string status = contentOf("/proc/self/status");
  return std::stoull(status.substr(status.find("VmHWM:") + 6)) * 1024;
}

class LyingServers : public testing::Test {
 protected:
  void SetUp() override {
    std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before_), 0);
    const rlimit limit{largestFile, before_.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  void TearDown() override { ::setrlimit(RLIMIT_FSIZE, &before_); }

  /// Lets a transfer hear the lie.
  void hear(const Lie& lie, const std::string& host = "127.0.0.1") {
    SCOPED_TRACE(lie.name);
    FaultServer server(0, {}, tls_);
    server.serve("/file", ServedFile::of(one), lie.replies, lie.afterwards);
    std::string url = server.url("/file");
    url.replace(url.find("127.0.0.1"), 9, host);
    Harness harness;
    const bool isSlowOnce = !lie.replies.empty() && lie.replies[0].stallAfter;
    const bool isSlow = lie.afterwards.stallAfter || lie.afterwards.pause > 0ms;
    if (isSlow || isSlowOnce) harness.options.stallTime = isSlow ? 250ms : 1000ms;
    if (isSlow) harness.options.maximumTries = 2;
    harness.start();
    std::ofstream("/proc/self/clear_refs") << "5";
    const uint64_t memory = peakMemory();
    const Heard heard = harness.fetch(url);
    EXPECT_LT(peakMemory(), memory + mostMemory);
    EXPECT_TRUE(heard.isInOrder()) << heard.events;
    EXPECT_EQ(harness.filesLeft(), 0U);
    const auto* const whole = std::get_if<Bytes>(&lie.ending);
    EXPECT_TRUE(whole ? heard.file == *whole : !heard.file) << (heard.file ? heard.file->size() : 0);
    EXPECT_TRUE(!heard.file || heard.total == static_cast<int64_t>(heard.file->size())) << heard.total;
    EXPECT_THAT(wordsOf(heard), HasSubstr(whole ? "" : std::get<const char*>(lie.ending)));
    EXPECT_EQ(server.requests().size(), lie.requests);
    for (const ReceivedRequest& request : server.requests()) {
      if (request.headers.empty()) continue;  // HTTP/2
      EXPECT_EQ(request.header("accept-encoding"), "identity");
      EXPECT_TRUE(request.header("user-agent").starts_with("tarn/"));
    }
    if (!server.requests().empty()) {
      const ReceivedRequest last = server.requests().back();
      EXPECT_EQ(last.header("range") + last.header("if-range"), lie.last);
    }
  }

  void hear(const std::vector<Lie>& lies) {
    for (const Lie& lie : lies) hear(lie);
  }

  /// The failure, and what is advised.
  static std::string wordsOf(const Heard& heard) {
    if (!heard.error) return {};
    const auto failure = std::make_exception_ptr(*heard.error);
    const auto advice = adviceFor(RunOutcome::failed(1, RunOutcome::Where::transfer, failure));
    return heard.error->description() + " | " + advice.words;
  }

  std::optional<ServerTLS> tls_;

 private:
  rlimit before_{};
};

TEST_F(LyingServers, OverHTTP) {
  for (const auto& table : {liesOfStatus, liesOfHeads, liesOfLength, liesOfVersion, liesOfRange, liesOfCoding}) {
    hear(table());
  }
}

TEST_F(LyingServers, WhereverABodyIsCutItGoesOn) {
  for (uint64_t end = 0; end <= videoSize; end = end < 600 ? end * 2 + 1 : end + 37'409) {
    const bool isKept = end > 512;
    const std::string again = isKept ? "bytes=" + std::to_string(end - 512) + "-" + tag : "";
    hear({("cut at " + std::to_string(end)).c_str(), {{.closeAfter = end}}, {}, one, 2, again});
  }
}

/// A server whose certificate, made for this test, is for 127.0.0.1.
class LyingSecuredServers : public LyingServers {
 protected:
  void SetUp() override {
    LyingServers::SetUp();
    const std::string key = place_ / "key.pem", certificate = place_ / "certificate.pem";
    const ProcessResult made = runProcess(
        {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
         "-subj", "/CN=tarn test", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out", certificate});
    ASSERT_EQ(made.exitCode, 0) << made.output;
    tls_ = {certificate, key};
    ::setenv("CURL_CA_BUNDLE", certificate.c_str(), 1);
    ::setenv("no_proxy", "127.0.0.1,localhost", 1);
  }
  void TearDown() override {
    ::unsetenv("CURL_CA_BUNDLE");
    LyingServers::TearDown();
  }

 private:
  TempDirectory place_;
};

TEST_F(LyingSecuredServers, OverTLS) {
  hear({"a faultless answer", {}, {}, one, 1});
  hear({"no length, torn off", {{.omitsLength = true, .closeAfter = cut}}, {}, one, 2, range + tag});
  const Reply tornOff{.omitsValidators = true, .omitsLength = true, .closeAfter = cut};
  hear({"no length, always torn off", {}, tornOff, "did not end it", 6});
  hear({"no head", {}, {.raw = "HTTP/1.1 200 OK\r\n"}, "Server returned nothing", 5});
  const char* const unproven = "the server's certificate is for another name";
  hear({"another name", {}, {}, unproven, 0}, "localhost");
  hear({"another name", {}, {}, "The server cannot prove who it is: check the address", 0}, "localhost");
  ::unsetenv("CURL_CA_BUNDLE");
  hear({"nobody's certificate", {}, {}, "nobody whom this machine trusts has signed the server's certificate", 0});
}

/// A frame of HTTP/2 (RFC 9113 4.1).
std::string frame(uint8_t type, uint8_t flags, const std::string& payload, uint8_t stream = 1) {
  const size_t size = payload.size();
  const Bytes head{uint8_t(size >> 16), uint8_t(size >> 8), uint8_t(size), type, flags, 0, 0, 0, stream};
  return std::string(head.begin(), head.end()) + payload;
}

/// A field that enters no table (RFC 7541 6.2.2).
std::string field(const std::string& name, const std::string& value) {
  return std::string(1, '\0') + char(name.size()) + name + char(value.size()) + value;
}

std::vector<Lie> liesOfHTTP2() {
  constexpr uint8_t data = 0, headers = 1, reset = 3, settings = 4, ping = 6, away = 7, more = 9;
  constexpr uint8_t ends = 1, headIsWhole = 4;
  const std::string ready = frame(settings, 0, "", 0), number(4, '\0'), status = "\x88" + field("etag", tag);
  const std::string unending = ready + frame(headers, headIsWhole, status);
  const std::string head = ready + frame(headers, headIsWhole, status + field("content-length", "300000"));
  std::string body;
  for (uint64_t at = 0; at < videoSize; at += 10'000) {
    body += frame(data, at + 10'000 == videoSize ? ends : uint8_t{0}, std::string(textOf(one).substr(at, 10'000)));
  }
  const std::string some = head + body.substr(0, 10'009 * 9), most = head + body.substr(0, 10'009 * 29);
  const char* const nothing = "Empty reply";
  const Reply whole{.raw = head + body};
  return {
      {"a faultless answer", {}, whole, one, 1},
      {"cut within a frame", {says(some + body.substr(0, 1000))}, whole, one, 2},
      {"a reset in place of a head", {}, says(ready + frame(reset, 0, number)), nothing, 5},
      {"a reset in the body", {says(some + frame(reset, 0, number))}, whole, one, 2},
      {"gone away in the body", {says(some + frame(away, 0, number + number, 0))}, whole, one, 2},
      {"a body beyond its length", {}, says(most + frame(data, ends, std::string(10'001, 'x'))), "remaining", 6},
      {"a head without end", {}, says(ready + frame(headers, 0, status), frame(more, 0, "")), "CONTINUATION", 5},
      {"pings without end", {}, says(ready, frame(ping, 0, "12345678", 0), 1ms), "Timeout", 2},
      {"an endless body", {}, says(unending, frame(data, 0, std::string(1000, 'x'))), "File too large", 1},
  };
}

TEST_F(LyingSecuredServers, OverHTTP2) {
  tls_->speaksHTTP2 = true;
  hear(liesOfHTTP2());
}

TEST_F(LyingServers, ToTheCommand) {
  const Bytes& movie = damagedMovie("avc1");
  const ServedFile clip = ServedFile::of(movie);
  const auto named = [](const std::string& name) { return Reply{.disposition = "attachment; filename=" + name}; };
  const Reply page{.file = ServedFile::of(bytes("<!DOCTYPE html><title>Sign in</title>"))};
  // How it ends, and the words of the failure or the name in the album.
  const std::tuple<const char*, Reply, int, std::string> rows[] = {
      {"a name above", named("\"../../../../tmp/x.mp4\""), 0, "x.mp4"},
      {"a name that steers a terminal", named("\"\x1b[31mx.mp4\""), 0, "[31mx.mp4"},
      {"a name that reads backwards", named("x; filename*=UTF-8''x%E2%80%AE4pm.exe"), 0, "x4pm.exe.mp4"},
      {"a name of 10,000 letters", named(std::string(10'000, 'x') + ".mp4"), 0, std::string(196, 'x') + ".mp4"},
      {"a page to log in as a video", page, 4, "the address needs a login"},
      {"forbidden", {.status = 403}, 1, "`--cookie-file`"},
      {"gone", {.status = 410}, 1, "Check the address"},
      {"trouble", {.status = 500}, 75, "try again later"},
      {"a redirect in a circle", to("/clip.mp4"), 1, "leads in a circle"},
      {"a redirect to a file", to("file:///etc/passwd"), 1, "http or https"},
      {"a redirect with secrets", to("//me:seCret@127.0.0.1:1/?k=seCret"), 75, "nothing answers"},
      {"a length of 8 EiB", states("9223372036854775807"), 75, "The disk is full"},
  };
  for (const auto& [name, reply, code, words] : rows) {
    SCOPED_TRACE(name);
    const TempDirectory place;
    const Path home = place / "home";
    FaultServer server;
    server.serve("/clip.mp4", clip, {}, reply);
    const TarnResult result = runTarn(home, {"save", server.url("/clip.mp4"), "--album", "Trips", "--retries", "0"});
    EXPECT_EQ(result.exitCode, code) << result.errors;
    EXPECT_EQ(savedFiles(home), std::vector<std::string>(code == 0 ? 1 : 0, "Trips/" + words));
    EXPECT_THAT(result.errors, HasSubstr(code == 0 ? "" : words));
    EXPECT_EQ(result.output.empty(), code != 0);
    EXPECT_EQ(result.errors.find("seCret"), std::string::npos) << result.errors;
    EXPECT_EQ(contentOf(home / "log/tarn.log").find("seCret"), std::string::npos);
    EXPECT_EQ(leftIn(home), "");
    EXPECT_TRUE(code != 0 || contentOf(home / "Photos/Trips" / words) == textOf(movie));
  }
}

}  // namespace
}  // namespace tarn::test
