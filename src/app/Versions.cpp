#include "app/Versions.h"

#include <curl/curl.h>
#include <fmt/format.h>
#include <magic.h>
#include <openssl/crypto.h>
#include <sqlite3.h>
#include <tarn/tarn.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/avutil.h>
#include <libswresample/swresample.h>
}

#include <string_view>

namespace tarn {
namespace {

std::string ofAV(const char* library, unsigned number) {
  return fmt::format("{} {}.{}.{}\n", library, AV_VERSION_MAJOR(number), AV_VERSION_MINOR(number),
                     AV_VERSION_MICRO(number));
}

}  // namespace

std::string versionText() {
  constexpr std::string_view commit = TARN_COMMIT;
  std::string text = fmt::format("tarn {}", version());
  if (!commit.empty()) text += fmt::format(", commit {}", commit);
  text += "\n";
  text += ofAV("libavcodec", avcodec_version()) + ofAV("libavutil", avutil_version()) +
          ofAV("libswresample", swresample_version());
  text += fmt::format("libcurl {}\n", curl_version_info(CURLVERSION_NOW)->version);
  text += fmt::format("libmagic {}.{:02}\n", magic_version() / 100, magic_version() % 100);
  text += fmt::format("{}\n", OpenSSL_version(OPENSSL_VERSION));
  text += fmt::format("SQLite {}", sqlite3_libversion());
  return text;
}

}  // namespace tarn
