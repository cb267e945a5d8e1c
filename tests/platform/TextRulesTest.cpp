// Texts that come from outside: addresses, dates, and what users and servers say about a transfer.

#include <gtest/gtest.h>

#include <sstream>
#include <utility>

#include "platform/ContentDisposition.h"
#include "platform/DateText.h"
#include "platform/TransferRules.h"
#include "platform/URL.h"

namespace tarn::test {
namespace {

TEST(URL, takesAbsoluteWebAddressesApart) {
  const std::pair<const char*, const char*> rows[] = {
      {"http://h/clip.mp4", "http /clip.mp4 clip.mp4"},
      {"HTTPS://user:p@H.example:8443/a/b%20c.mp4?x=/y#/z", "https /a/b%20c.mp4 b c.mp4"},
      {"http://[::1]:80/a/../b/./c", "http /a/../b/./c c"},
      {"http://h?q=1", "http / "},
      {"http://h/..%2F..%2fx", "http /..%2F..%2fx ../../x"},
      {"http://h/100%.mp4", "http /100%.mp4 100%.mp4"},
      {"http://h/vid\xC3\xA9o.mp4", "http /vid\xC3\xA9o.mp4 vid\xC3\xA9o.mp4"},
  };
  for (const auto& [text, parts] : rows) {
    const auto url = URL::parse(text);
    ASSERT_TRUE(url) << text;
    EXPECT_EQ(url->scheme + " " + url->path + " " + url->lastPathComponent(), parts);
  }
}

TEST(URL, refusesEverythingElse) {
  std::istringstream words(
      "clip.mp4 /clip.mp4 //h/clip.mp4 ftp://h/a file:///etc/passwd data:video/mp4,x http:/h/a http:h http:// "
      "http:///a http://:80/a http://h:99999/a http://h:x/a http://?q http://user@/a http://[::1/a http://h/a\x7F");
  for (std::string text; words >> text;) EXPECT_FALSE(URL::parse(text)) << text;
  for (const char* text : {"", " http://h/a", "http://h/a ", "http://h/a b", "http://h/a\nb", "http://h\t/a"}) {
    EXPECT_FALSE(URL::parse(text)) << text;
  }
  EXPECT_FALSE(URL::parse(std::string_view("http://h/a\0b", 12)));
}

TEST(URL, losesItsSecretsInTextsAndNothingElse) {
  const std::pair<const char*, const char*> rows[] = {
      {"starting download https://user:pa%40ss@h:8/a?token=T&x=1#y",
       "starting download https://***@h:8/a?token=***&x=***#***"},
      {"HTTP://user@h", "HTTP://***@h"},
      {"http://a@b@h/c@d?e@f=g@h", "http://***@h/c@d?e@f=***"},
      {"https://h/?ticket=1&%74oken=2&a=&=3&t=4=5?u=6", "https://h/?ticket=***&%74oken=***&a=&=***&t=***?u=***"},
      {"https://h/a?secret&#api.key=3#", "https://h/a?***&#api.key=***#"},
      {"(see http://h/a?b=c), or 'https://h/?d': http://h...",
       "(see http://h/a?b=***), or 'https://h/?***': http://h..."},
      {"from \"http://a:b@h/1\" to http://c:d@h/2, then", "from \"http://***@h/1\" to http://***@h/2, then"},
      {"ftp://a:b@h?token=1 :// http:// https://", "ftp://a:b@h?token=1 :// http:// https://"},
      {"", ""},
  };
  for (const auto& [text, safe] : rows) EXPECT_EQ(withoutSecrets(text), safe);
}

TEST(DateText, isReadAsItWasWrittenAndNothingElseIs) {
  const Date date{std::chrono::seconds(1'714'566'600)};
  EXPECT_EQ(dateText(date + std::chrono::milliseconds(999)), "2024-05-01T12:30:00Z");
  EXPECT_EQ(dateOfText("2024-05-01T12:30:00Z"), date);
  for (const char* text : {"", "yesterday", "2024-05-01", "2024-05-01T12:30:00", "2024-05-01T12:30:00Z+02:00",
                           "2023-02-31T12:30:00Z", "7607-05-01T12:30:00Z", "0001-01-01T00:00:00Z"}) {
    EXPECT_EQ(dateOfText(text), Date{}) << text;
  }
}

TEST(TransferRulesTest, WhatWouldHarmTheExchangeIsRefusedInWordsWithoutIt) {
  const std::string line = "h.org\tFALSE\t/\tFALSE\t0\tsid\tseCret";
  const TransferOptions refused[] = {
      {.headers = {"X-A: 1\r\nX-B: seCret"}},
      {.headers = {std::string("X-A: seCret\0", 12)}},
      {.headers = {"seCret"}},
      {.headers = {"X A: seCret"}},
      {.headers = {"X-A : seCret"}},
      {.headers = {"X-A: seCret\xff"}},
      {.headers = {"rAnGe: seCret"}},
      {.headers = {"Host: seCret"}},
      {.headers = std::vector<std::string>(101, "X-A: seCret")},
      {.headers = {"X-A: " + std::string(70'000, 's')}},
      {.cookies = "sid=seCret"},
      {.cookies = line + "\n\n" + line + "\r\r\n"},
      {.cookies = line + std::string("\0", 1)},
      {.referer = "http://h/\r\nseCret"},
      {.userAgent = "a\nseCret"},
      {.bytesPerSecond = 0},
      {.bytesPerSecond = UINT64_MAX},
      {.retries = -1},
      {.retries = 1'000'000},
  };
  for (const TransferOptions& options : refused) {
    const auto why = whyRefused(options);
    ASSERT_TRUE(why) << objectOf(options).json();
    EXPECT_EQ(why->find("seCret"), std::string::npos) << *why;
  }
  const TransferOptions taken{.headers = {"X-Empty:", "Cookie: a=b", "x!#$%&'*+-.^_`|~9:\ttab"},
                              .cookies = "# comment\n\n" + line + "\r\n#HttpOnly_" + line,
                              .referer = "http://h/\xC3\xA4",
                              .userAgent = "",
                              .bytesPerSecond = 1024,
                              .retries = 0};
  EXPECT_EQ(whyRefused(taken), std::nullopt);
  EXPECT_EQ(transferOptions(*JSObject::parse(objectOf(taken).json())), taken);
  EXPECT_TRUE(objectOf(TransferOptions()).empty());
}

TEST(TransferRulesTest, OnlyTheCookiesOfTheHostAreKeptAndEachOnItsLine) {
  const auto of = [](const std::string& domain) { return domain + "\tFALSE\t/\tFALSE\t0\tsid\t1"; };
  const std::string jar = "# comment\n" + of("a.org") + "\n" + of("b.org") + "\r\n" + of("#HttpOnly_.B.org") + "\n" +
                          of("w.b.org") + "\n" + of("ab.org") + "\nno cookie\n" + of("a.org") + "\n";
  EXPECT_EQ(cookiesFor("http://V.b.org:81/a b", jar),
            "\n\n" + of("b.org") + "\n" + of("#HttpOnly_.B.org") + "\n\n\nno cookie");
  EXPECT_EQ(cookieLines(jar).size(), 7U);
}

TEST(TransferRulesTest, NamesOfServersAreOneNameOrNone) {
  const std::pair<const char*, std::optional<std::string>> rows[] = {
      {"attachment; filename=clip.mp4", "clip.mp4"},
      {"inline;FileName = \"a b.mp4\" ; size=7", "a b.mp4"},
      {"attachment; filename=\"a\\\"b;c.mp4\"", "a\"b;c.mp4"},
      {"attachment; filename=plain.mp4; filename*=UTF-8''%C3%A4%20b.mp4", "\xC3\xA4 b.mp4"},
      {"attachment; filename*=iso-8859-1'de'%E4.mp4", "\xC3\xA4.mp4"},
      {"attachment; filename=\"\xE4.mp4\"", "\xC3\xA4.mp4"},
      {"attachment; filename*=UTF-8''%FF.mp4; filename=plain.mp4", "plain.mp4"},
      {"attachment; filename*=UTF-8''%zz; filename=plain.mp4", "plain.mp4"},
      {"attachment; filename*=koi8-r''a.mp4; filename=plain.mp4", "plain.mp4"},
      {"attachment; filename=\"/etc/passwd\"", "passwd"},
      {"attachment; filename*=UTF-8''..%2F..%5Cx.mp4", "x.mp4"},
      {"attachment; filename*=UTF-8''a%00%0A%1B%E2%80%AEb.mp4", "a b.mp4"},
      {"attachment; filename=\"..\"", std::nullopt},
      {"attachment; filename=\"a/\"", std::nullopt},
      {"attachment; filename=\"unended", "unended"},
      {"attachment; filename*=UTF-8''%E2%80%AE", std::nullopt},
      {"filename=clip.mp4", std::nullopt},
      {"attachment; filename", std::nullopt},
      {"attachment; =;;=\"", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [field, name] : rows) EXPECT_EQ(filenameOfDisposition(field), name) << field;
}

TEST(TransferRulesTest, AURLMayBeWrittenAsPeopleWriteIt) {
  const std::pair<const char*, const char*> rows[] = {
      {" http://h.org/a b.mp4?q=\"x y\"#z ", "http://h.org/a%20b.mp4?q=%22x%20y%22#z"},
      {"http://h.org/100%/%41%zz", "http://h.org/100%25/%41%25zz"},
      {"https://h.org/\xC3\xA4[1]|2", "https://h.org/%C3%A4[1]%7C2"},
      {"http://h.org", "http://h.org"},
  };
  for (const auto& [text, url] : rows) {
    EXPECT_EQ(encodedURL(text), url);
    EXPECT_TRUE(URL::parse(url)) << url;
  }
  for (const char* text : {"http://a b/", "http:///x", "no url", "http://h.org/a\nb", ""}) {
    EXPECT_FALSE(URL::parse(encodedURL(text))) << text;
  }
}

TEST(TransferRulesTest, AnOriginIsSchemeHostAndPort) {
  const auto origin = [](const char* url) { return URL::parse(url)->origin(); };
  EXPECT_EQ(origin("HTTP://me:pw@H.org/x"), "http://h.org:80");
  EXPECT_EQ(origin("https://h.org/"), "https://h.org:443");
  EXPECT_EQ(origin("http://[::1]:81"), "http://[::1]:81");
  EXPECT_EQ(resolvedURL("https://h.org/a/b?c", "//i.org/d e"), "https://i.org/d%20e");
  EXPECT_EQ(resolvedURL("https://h.org/a/b?c", "../d"), "https://h.org/d");
}

}  // namespace
}  // namespace tarn::test
