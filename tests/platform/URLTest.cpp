#include <gtest/gtest.h>

#include "platform/URL.h"

namespace tarn {
namespace {

TEST(URL, takesAbsoluteWebAddressesApart) {
  struct Row {
    const char* text;
    const char* scheme;
    const char* path;
    const char* last;
  };
  for (const Row& row : {
           Row{"http://h/clip.mp4", "http", "/clip.mp4", "clip.mp4"},
           {"HTTPS://user:p@H.example:8443/a/b%20c.mp4?x=/y#/z", "https", "/a/b%20c.mp4", "b c.mp4"},
           {"http://[::1]:80/a/../b/./c", "http", "/a/../b/./c", "c"},
           {"http://h", "http", "/", ""},
           {"http://h?q=1", "http", "/", ""},
           {"http://h/dir/", "http", "/dir/", ""},
           {"http://h/..%2F..%2fx", "http", "/..%2F..%2fx", "../../x"},
           {"http://h/100%.mp4", "http", "/100%.mp4", "100%.mp4"},
           {"http://h/vid\xC3\xA9o.mp4", "http", "/vid\xC3\xA9o.mp4", "vid\xC3\xA9o.mp4"},
       }) {
    const auto url = URL::parse(row.text);
    ASSERT_TRUE(url) << row.text;
    EXPECT_EQ(url->text, row.text);
    EXPECT_EQ(url->scheme, row.scheme) << row.text;
    EXPECT_EQ(url->path, row.path) << row.text;
    EXPECT_EQ(url->lastPathComponent(), row.last) << row.text;
  }
}

TEST(URL, refusesEverythingElse) {
  for (const std::string& text : {std::string(),
                                  std::string("clip.mp4"),
                                  std::string("/clip.mp4"),
                                  std::string("//h/clip.mp4"),
                                  std::string("ftp://h/a"),
                                  std::string("file:///etc/passwd"),
                                  std::string("data:video/mp4,x"),
                                  std::string("http:/h/a"),
                                  std::string("http:h"),
                                  std::string("http://"),
                                  std::string("http:///a"),
                                  std::string("http://:80/a"),
                                  std::string("http://h:99999/a"),
                                  std::string("http://h:x/a"),
                                  std::string("http://?q"),
                                  std::string("http://user@/a"),
                                  std::string("http://[::1/a"),
                                  std::string(" http://h/a"),
                                  std::string("http://h/a "),
                                  std::string("http://h/a b"),
                                  std::string("http://h/a\nb"),
                                  std::string("http://h\t/a"),
                                  std::string("http://h/a\0b", 12),
                                  std::string("http://h/a\x7F")}) {
    EXPECT_FALSE(URL::parse(text)) << text;
  }
}

}  // namespace
}  // namespace tarn
