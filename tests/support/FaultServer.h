#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Bytes.h"

namespace tarn::test {

/// A file that the server has, in one version.
struct ServedFile {
  std::shared_ptr<const Bytes> bytes;
  std::string etag = "\"v1\"";

  static ServedFile of(Bytes bytes);
  ServedFile withETag(std::string tag) const;
};

/// How one request is answered. The default is a faultless answer.
struct Reply {
  std::optional<int> status = {};                ///< this status with a short HTML page in place of the file
  std::string location = {};                     ///< Location field, for a redirect
  std::optional<ServedFile> file = {};           ///< this version in place of the path's own
  bool ignoresRange = false;                     ///< the whole file with 200, whatever was asked
  bool ignoresIfRange = false;                   ///< the range, whatever version was asked
  int64_t rangeShift = 0;                        ///< a range starts that many bytes off, and says so
  std::optional<std::string> contentRange = {};  ///< Content-Range text in place of the true one
  bool omitsValidators = false;                  ///< neither ETag nor Last-Modified
  std::optional<uint64_t> statedLength = {};     ///< Content-Length of a 200 in place of the true one
  bool omitsLength = false;                      ///< no Content-Length; the end of the connection ends the body
  bool chunked = false;                          ///< chunked coding
  std::string contentType = "video/mp4";         ///< Content-Type field
  std::string disposition = {};                  ///< Content-Disposition field
  std::string fields = {};                       ///< further lines of the head, each with its line end
  std::string contentEncoding = {};              ///< Content-Encoding field; the file is taken to be in that coding
  std::optional<uint64_t> closeAfter = {};       ///< closes the connection after that many bytes of the body
  std::optional<uint64_t> stallAfter = {};       ///< falls silent after that many bytes of the body, until the client
                                                 ///< leaves, or until release()
  uint64_t bytesPerSecond = 0;                   ///< 0: as fast as it goes
  std::string raw = {};                          ///< just these bytes in place of head and body, and then the end
  std::string endless = {};                      ///< behind `raw`, again and again until the client leaves
  std::chrono::milliseconds pause{0};            ///< between two of these
};

/// A certificate and its key, in PEM files.
struct ServerTLS {
  std::string certificate;
  std::string key;
  bool speaksHTTP2 = false;  ///< nothing else: each connection is taken for a GET of "/file" and answered with `raw`
};

struct ReceivedRequest {
  std::string target;
  std::map<std::string, std::string> headers;  ///< names in lower case

  /// The field's value; empty when it was not sent.
  std::string header(const std::string& name) const;
};

/// An HTTP/1.1 server on 127.0.0.1, over TLS if it has a certificate, with faults at will: GET, Range and If-Range (RFC
/// 9110 13 and 14), persistent connections. Runs from construction to destruction, each connection on a thread. A path
/// that is not served is answered with 404. Thread-safe. Takes the loopback out of any proxy that the environment
/// names.
class FaultServer {
 public:
  /// Listens on `port`, or on a free port for 0. The files are served from the first connection on.
  explicit FaultServer(uint16_t port = 0, const std::map<std::string, ServedFile>& files = {},
                       const std::optional<ServerTLS>& tls = {});
  ~FaultServer();
  FaultServer(const FaultServer&) = delete;
  FaultServer& operator=(const FaultServer&) = delete;

  std::string url(const std::string& path) const;

  /// Serves a file, or its next version. The path's first requests get these replies one by one, all later ones
  /// `afterwards`. Counting begins anew.
  void serve(const std::string& path, ServedFile file, std::vector<Reply> replies = {}, Reply afterwards = {});

  /// Replies that have fallen silent go on to their end, and those that would fall silent do not.
  void release();

  /// What has been asked so far, in order.
  std::vector<ReceivedRequest> requests() const;

  /// Connections that neither side has ended.
  size_t openConnections() const;

  /// A port on which nobody listens.
  static uint16_t closedPort();

 private:
  struct Core;
  std::unique_ptr<Core> core_;
};

}  // namespace tarn::test
