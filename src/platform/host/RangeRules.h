#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarn {

/// A Content-Range field (RFC 9110 14.4): "bytes 5-9/10", or "bytes */10" where a range could not be satisfied.
struct ContentRange {
  struct Span {
    uint64_t first = 0;  ///< offset of the first byte
    uint64_t last = 0;   ///< offset of the last byte, at least `first`
  };
  std::optional<Span> span;       ///< nothing for "*"
  std::optional<uint64_t> total;  ///< size of the whole file in bytes; nothing for "*"

  /// Nothing for text that is no byte range, or contradicts itself.
  static std::optional<ContentRange> parse(std::string_view text);
};

/// What a server's last response says, without its body. Fields that were not sent are empty.
struct ResponseHead {
  int status = 0;
  std::optional<uint64_t> contentLength;  ///< bytes of this response's body
  std::optional<ContentRange> contentRange;
  std::string etag;
  std::string lastModified;
  std::string date;
  bool isPage = false;  ///< the body is a web page, by its Content-Type

  /// What tells this version of the file from any other, fit for If-Range (RFC 9110 13.1.5): a strong entity tag, else
  /// a modification date at least a second before the response, else empty.
  /// Empty too if it is so long that a server may refuse a request with it.
  std::string validator() const;
};

/// What was asked for: the bytes from `offset` on, if the file is still of the version that `validator` names.
struct ResumePoint {
  uint64_t offset = 0;                   ///< at most as many bytes are there already; 0 asks for the whole file
  std::string validator;                 ///< as ResponseHead::validator; never empty if `offset` is not 0
  std::optional<uint64_t> expectedSize;  ///< size of the whole file as told before
  bool isPage = false;                   ///< the bytes already there came as a web page
};

enum class BodyUse {
  append,       ///< the body goes to the offset that was asked for
  replace,      ///< the body is the whole file; bytes already there belong to nothing
  startOver,    ///< the bytes already there cannot be continued safely: ask again, for the whole file
  pageInstead,  ///< a web page where another file is to be continued: its bytes stay, and the server may relent
  retry,        ///< the server is in trouble for the time being
  refuse,       ///< there is no file to be had
};

/// Decides over a response to that request. Never answers `append` unless the response proves that its first byte is
/// the one at the offset, of the same version and the same total size.
BodyUse bodyUse(const ResponseHead& head, const ResumePoint& asked);

}  // namespace tarn
