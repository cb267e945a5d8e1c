#include <gtest/gtest.h>

#include "platform/URL.h"

namespace tarn {
namespace {

TEST(URL, takesAbsoluteWebAddressesApart) {
  struct Row {
    const char *text, *scheme, *path, *last;
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
  for (const std::string_view text : {"",
                                      "clip.mp4",
                                      "/clip.mp4",
                                      "//h/clip.mp4",
                                      "ftp://h/a",
                                      "file:///etc/passwd",
                                      "data:video/mp4,x",
                                      "http:/h/a",
                                      "http:h",
                                      "http://",
                                      "http:///a",
                                      "http://:80/a",
                                      "http://h:99999/a",
                                      "http://h:x/a",
                                      "http://?q",
                                      "http://user@/a",
                                      "http://[::1/a",
                                      " http://h/a",
                                      "http://h/a ",
                                      "http://h/a b",
                                      "http://h/a\nb",
                                      "http://h\t/a",
                                      "http://h/a\x7F"}) {
    EXPECT_FALSE(URL::parse(text)) << text;
  }
  EXPECT_FALSE(URL::parse(std::string_view("http://h/a\0b", 12)));
}

}  // namespace
}  // namespace tarn
