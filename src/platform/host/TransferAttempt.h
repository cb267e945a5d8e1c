#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Bytes.h"
#include "platform/Error.h"
#include "platform/host/RangeRules.h"
#include "platform/host/TLSClosure.h"
#include "platform/host/TransferRequest.h"
#include "platform/host/TransferStore.h"

namespace tarn {

/// One HTTP exchange for a transfer: asks for what its partial file lacks, holds the answer against what was asked, and
/// writes the body straight to the part. The last bytes that are there are asked for once more and must come as they
/// are, since some servers give two versions of a file one tag. Belongs to one thread.
class TransferAttempt {
 public:
  using Clock = std::chrono::steady_clock;

  /// Called after each piece with the size of the part, and of the whole file when it is known.
  using Progress = std::function<void(uint64_t received, std::optional<uint64_t> expected)>;

  enum class End {
    redirected,  ///< the request has been turned to where the server sent it: carry it out again
    whole,       ///< the part is the whole file
    transient,   ///< worth another try
    final,       ///< there will be no file
  };
  struct Outcome {
    End end;
    std::optional<Error> error = {};  ///< URLError or PosixError; nothing if whole
    std::string why = {};             ///< of a transient failure, in words for people
  };

  /// Opens the part and makes the request ready. `record` is kept up to date, in the store too, and must outlive the
  /// attempt. Throws PosixError.
  TransferAttempt(FileManager& files, TransferStore& store, TransferRecord& record, const std::string& userAgent,
                  Progress progress);
  ~TransferAttempt();
  TransferAttempt(const TransferAttempt&) = delete;
  TransferAttempt& operator=(const TransferAttempt&) = delete;

  /// The request, as libcurl's easy handle (CURL*). It must have left its multi handle before the attempt is destroyed.
  void* easy() const { return request_.easy(); }

  /// Judges the exchange after libcurl has ended it with `code` (CURLcode).
  Outcome finish(int code);

  /// When a body goes on that came faster than its rate; nothing while none waits. libcurl's own limit does not hold
  /// (7.88).
  std::optional<Clock::time_point> heldUntil() const { return heldUntil_; }
  /// Lets it go on. Returns libcurl's code (CURLcode): not 0 if the exchange ends here, since libcurl itself then would
  /// only skip the piece that waited.
  int goOn();

  /// Bytes were thrown away, because they could not be continued.
  bool hasStartedOver() const { return hasStartedOver_; }
  /// The part has grown, by more than drops.
  bool hasProgressed() const { return position_ >= base_ + leastPiece; }
  /// When the server had sent some bytes more, not just drops, or the request began.
  Clock::time_point lastHeard() const { return lastHeard_; }

 private:
  static constexpr uint64_t leastPiece = 512;

  void openPart();
  void prepare();
  int status() const;
  bool endsWithConnection() const;
  ResponseHead responseHead() const;
  void decide();
  void emptyPart();
  bool holdBack();
  bool takeHead(std::string_view line);
  bool take(ByteView piece);
  bool isProven(ByteView& piece);
  bool isBomb(ByteView piece) const;
  void requireSense(const ResponseHead& head) const;
  void hear(size_t count);
  Outcome follow(const std::string& url);
  Outcome judge(int code) const;
  URLError refusal() const;
  Outcome judgeBody(int code) const;
  Outcome curlFailure(int code) const;
  static Outcome transient(URLError error);

  static size_t onBody(char* bytes, size_t one, size_t count, void* attempt);
  static size_t onHeader(char* bytes, size_t one, size_t count, void* attempt);

  FileManager& files_;
  TransferStore& store_;
  TransferRecord& record_;
  const Progress progress_;
  std::unique_ptr<FileHandle> part_;
  uint64_t base_ = 0;      ///< size of the part where this attempt's body begins
  uint64_t position_ = 0;  ///< size of the part
  bool hasStartedOver_ = false;
  ResumePoint asked_;
  std::optional<BodyUse> use_;  ///< once the final response's head is there
  Bytes proof_;                 ///< bytes of the part that the body must begin with, and has not yet
  bool isCoded_ = false;        ///< the body comes in a coding
  TLSClosure closure_;          ///< that must have come at the end of the body; nothing if its end is known otherwise
  bool isBomb_ = false;
  bool isOverlong_ = false;
  bool isHeadWhole_ = false;
  size_t headSize_ = 0;   ///< bytes of all heads, redirects' left out
  uint64_t unheard_ = 0;  ///< bytes since lastHeard_
  std::optional<Error> fileFailure_;
  Clock::time_point lastHeard_ = Clock::now();
  std::array<char, 256> curlText_{};  ///< libcurl's words on a failure
  std::optional<Clock::time_point> bodyBegan_;
  std::optional<Clock::time_point> heldUntil_;
  size_t passedOver_ = 0;  ///< bytes of a redirect's body
  TransferRequest request_;
};

}  // namespace tarn
