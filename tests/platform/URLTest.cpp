#include <gtest/gtest.h>

#include <sstream>
#include <utility>

#include "platform/DateText.h"
#include "platform/URL.h"

namespace tarn {
namespace {

TEST(URL, takesAbsoluteWebAddressesApart) {
  const std::pair<const char*, const char*> rows[] = {
      {"http://h/clip.mp4", "http /clip.mp4 clip.mp4"},
      {"HTTPS://user:p@H.example:8443/a/b%20c.mp4?x=/y#/z", "https /a/b%20c.mp4 b c.mp4"},
      {"http://[::1]:80/a/../b/./c", "http /a/../b/./c c"},
      {"http://h?q=1", "http / "},
      {"http://h/dir/", "http /dir/ "},
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
      {"token=1 mail@h", "token=1 mail@h"},
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

}  // namespace
}  // namespace tarn
