#include "platform/host/TransferAttempt.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "platform/ContentDisposition.h"
#include "platform/UTF8.h"
#include "platform/host/TransferFailure.h"

namespace tarn {
namespace {

constexpr size_t longestCoding = 40;              // in a message
constexpr size_t largestRedirectBody = 64 << 10;  // beyond that a new connection costs less
constexpr size_t largestHead = 256 << 10;
constexpr uint64_t proofSize = 512;
constexpr uint64_t mostExpansion = 200;  // of a body in a coding; a video hardly expands at all
constexpr uint64_t freeExpansion = 16 << 20;

/// Whether a body is in a coding (RFC 9110 8.4.1). Some servers put other words there and send the file as it is.
bool isEncoded(std::string_view contentEncoding) {
  constexpr std::array codings = {"gzip", "deflate", "compress", "br", "zstd"};
  const std::string lower = lowered(contentEncoding);
  return std::ranges::any_of(codings, [&](const char* coding) { return lower.find(coding) != lower.npos; });
}

URLError statusError(int status) {
  const int code = status >= 400 ? status : static_cast<int>(CURLE_WEIRD_SERVER_REPLY);
  return {code, fmt::format("the server answered with HTTP status {}", status)};
}

URLError headError() {
  return {CURLE_WEIRD_SERVER_REPLY, "the head of the server's answer is too long"};
}

}  // namespace

TransferAttempt::TransferAttempt(FileManager& files, TransferStore& store, TransferRecord& record,
                                 const std::string& userAgent, Progress progress)
    : files_(files), store_(store), record_(record), progress_(std::move(progress)), request_(record, userAgent) {
  openPart();
  prepare();
}

TransferAttempt::~TransferAttempt() = default;

/// What an earlier attempt or process has left is used as far as it is on the disk, whatever it was thought to be.
void TransferAttempt::openPart() {
  const Path path = store_.partFile(record_.taskIdentifier);
  part_ = files_.open(path, files_.fileExists(path) ? OpenMode::updating : OpenMode::creating);
  position_ = part_->seekToEnd();
  const bool isTooLong = record_.expectedSize && position_ > *record_.expectedSize;
  if (position_ > 0 && (record_.validator.empty() || isTooLong)) emptyPart();
  base_ = position_;
  const uint64_t known = position_ - std::min(position_, proofSize);
  asked_ = {known, record_.validator, record_.expectedSize, record_.isPage};
}

void TransferAttempt::prepare() {
  CURL* easy = request_.easy();
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, curlText_.data());
  static_assert(CURL_ERROR_SIZE <= std::tuple_size_v<decltype(curlText_)>);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &TransferAttempt::onBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &TransferAttempt::onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  request_.ask(asked_);
}

size_t TransferAttempt::onHeader(char* bytes, size_t one, size_t count, void* attempt) {
  auto* const self = static_cast<TransferAttempt*>(attempt);
  return self->takeHead({bytes, one * count}) ? one * count : 0;
}

/// A line of a head or of a trailer. False ends the exchange.
bool TransferAttempt::takeHead(std::string_view line) {
  hear(line.size());
  headSize_ += line.size();
  if (line.starts_with("HTTP/")) isHeadWhole_ = false;
  if (line == "\r\n" || line == "\n") {
    isHeadWhole_ = true;
    if (status() >= 200) lastHeard_ = Clock::now();
  }
  return headSize_ <= largestHead;
}

/// A server that sends drops would hold a transfer for ever.
void TransferAttempt::hear(size_t count) {
  unheard_ += count;
  if (unheard_ < leastPiece) return;
  unheard_ = 0;
  lastHeard_ = Clock::now();
}

size_t TransferAttempt::onBody(char* bytes, size_t one, size_t count, void* attempt) {
  const ByteView piece(reinterpret_cast<const uint8_t*>(bytes), one * count);
  auto* const self = static_cast<TransferAttempt*>(attempt);
  if (self->holdBack()) return CURL_WRITEFUNC_PAUSE;
  return self->take(piece) ? piece.size() : CURL_WRITEFUNC_ERROR;
}

/// True while more bytes have come than the rate allows by now; libcurl then keeps the piece.
bool TransferAttempt::holdBack() {
  const auto& rate = record_.options.bytesPerSecond;
  if (!rate) return false;
  const auto now = Clock::now();
  if (!bodyBegan_) bodyBegan_ = now;
  const std::chrono::duration<double> allowed(static_cast<double>(position_ - base_) / static_cast<double>(*rate));
  const auto due = *bodyBegan_ + std::chrono::ceil<std::chrono::milliseconds>(allowed);
  if (due <= now) return false;
  heldUntil_ = due;
  return true;
}

int TransferAttempt::goOn() {
  heldUntil_.reset();
  return curl_easy_pause(request_.easy(), CURLPAUSE_CONT);
}

/// False ends the exchange.
bool TransferAttempt::take(ByteView piece) {
  hear(piece.size());
  try {
    if (!use_ && request_.redirection()) return (passedOver_ += piece.size()) <= largestRedirectBody;
    if (!use_) decide();
    if (use_ != BodyUse::append && use_ != BodyUse::replace) return false;
    if (!isProven(piece)) return false;
    isBomb_ = isBomb(piece);
    if (isBomb_) return false;
    isOverlong_ = record_.expectedSize && piece.size() > *record_.expectedSize - position_;
    if (isOverlong_) return false;
    part_->write(piece);
    position_ += piece.size();
  } catch (const Error& failure) {
    fileFailure_ = failure;
    return false;
  }
  progress_(position_, record_.expectedSize);
  return true;
}

/// Takes what is there already from the piece. Another version is thrown away.
bool TransferAttempt::isProven(ByteView& piece) {
  const size_t count = std::min(piece.size(), proof_.size());
  if (!std::ranges::equal(piece.first(count), ByteView(proof_).first(count))) {
    use_ = BodyUse::startOver;
    emptyPart();
    return false;
  }
  proof_.erase(proof_.begin(), proof_.begin() + static_cast<std::ptrdiff_t>(count));
  piece = piece.subspan(count);
  return true;
}

bool TransferAttempt::isBomb(ByteView piece) const {
  curl_off_t came = 0;
  curl_easy_getinfo(request_.easy(), CURLINFO_SIZE_DOWNLOAD_T, &came);
  return isCoded_ && position_ + piece.size() > freeExpansion + static_cast<uint64_t>(came) * mostExpansion;
}

int TransferAttempt::status() const {
  long status = 0;
  curl_easy_getinfo(request_.easy(), CURLINFO_RESPONSE_CODE, &status);
  return static_cast<int>(status);
}

/// True for a body that has neither a length nor an end of its own (RFC 9112 6.3).
bool TransferAttempt::endsWithConnection() const {
  long version = 0;
  curl_easy_getinfo(request_.easy(), CURLINFO_HTTP_VERSION, &version);
  const bool hasFrames = version != CURL_HTTP_VERSION_1_0 && version != CURL_HTTP_VERSION_1_1;
  return !hasFrames && request_.header("Content-Length").empty() && request_.header("Transfer-Encoding").empty();
}

ResponseHead TransferAttempt::responseHead() const {
  curl_off_t length = -1;
  curl_easy_getinfo(request_.easy(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);

  ResponseHead head;
  head.status = status();
  const std::string type = lowered(request_.header("Content-Type"));
  head.isPage = type.starts_with("text/html") || type.starts_with("application/xhtml");
  // Size, range and version are those of the coded bytes, of which the part has none: it cannot be continued.
  if (isEncoded(request_.header("Content-Encoding"))) return head;
  if (length >= 0) head.contentLength = static_cast<uint64_t>(length);
  if (!type.starts_with("multipart/")) head.contentRange = ContentRange::parse(request_.header("Content-Range"));
  head.etag = request_.header("ETag");
  head.lastModified = request_.header("Last-Modified");
  head.date = request_.header("Date");
  return head;
}

/// The record is on the disk before the first byte that it describes, so that a part is never taken for bytes of
/// another version than its own.
void TransferAttempt::decide() {
  const ResponseHead head = responseHead();
  const std::string codings = request_.header("Content-Encoding");
  isCoded_ = isEncoded(codings);
  use_ = bodyUse(head, asked_);
  const bool takesBody = use_ == BodyUse::append || use_ == BodyUse::replace;
  // Bytes that are taken as they are would stay in their coding: ask again, to have them decoded.
  if (takesBody && record_.isTakenAsItIs && isCoded_) use_ = BodyUse::startOver;
  if (use_ == BodyUse::startOver || use_ == BodyUse::replace) emptyPart();

  if (use_ == BodyUse::replace) {
    record_.validator = head.validator();
    record_.expectedSize = head.contentLength;
    record_.isPage = head.isPage;
  } else if (use_ == BodyUse::append) {
    if (asked_.offset == 0) record_.validator = head.validator();
    record_.expectedSize = head.contentRange->total;
    part_->seek(asked_.offset);
    proof_ = part_->read(position_ - asked_.offset);
  }
  if (takesBody) requireSense(head);
  if (endsWithConnection()) closure_ = closureOf(request_.easy());
  const auto name = takesBody ? filenameOfDisposition(request_.header("Content-Disposition")) : std::nullopt;
  if (name) record_.suggestedFilename = *name;
  if (takesBody || use_ == BodyUse::startOver) record_.isTakenAsItIs = !codings.empty() && !isCoded_;
  if (store_.record(record_.taskIdentifier) != record_) store_.save(record_);
}

/// Throws if the server says what cannot be held against the body, or what the disk cannot take.
void TransferAttempt::requireSense(const ResponseHead& head) const {
  const bool isChunked = !request_.header("Transfer-Encoding").empty();
  const bool isNone = !head.contentLength && !isCoded_ && !isChunked && !request_.header("Content-Length").empty();
  if (isNone || request_.contradicts("Content-Length")) {
    throw URLError(CURLE_WEIRD_SERVER_REPLY, "the server told a length that is none, or two lengths");
  }
  const auto space = files_.freeSpace(store_.partFile(record_.taskIdentifier).parent_path());
  const uint64_t missing = record_.expectedSize.value_or(0) - std::min(position_, record_.expectedSize.value_or(0));
  if (space && missing > *space) {
    throw PosixError(ENOSPC, fmt::format("{} bytes are to come and {} are free on the disk", missing, *space));
  }
}

/// Flushed, so that after a power cut the old bytes never stand beside the new version's record.
void TransferAttempt::emptyPart() {
  if (position_ == 0) return;
  part_->truncate(0);
  part_->seek(0);
  part_->synchronize();
  base_ = position_ = 0;
  hasStartedOver_ = true;
}

TransferAttempt::Outcome TransferAttempt::finish(int code) {
  // libcurl has no memory, as it says, for a line that it finds too long.
  if (headSize_ > largestHead || code == CURLE_OUT_OF_MEMORY) return {End::final, headError()};
  if (code == CURLE_OK && !isHeadWhole_) return curlFailure(CURLE_GOT_NOTHING);
  if (!use_ && (code == CURLE_OK || code == CURLE_WRITE_ERROR)) {
    if (const auto url = request_.redirection()) return follow(*url);
  }
  try {
    if (!use_ && (code == CURLE_OK || code == CURLE_BAD_CONTENT_ENCODING)) decide();  // no body came through
  } catch (const Error& failure) {
    fileFailure_ = failure;
  }
  if (fileFailure_) return {End::final, fileFailure_};
  return use_ ? judge(code) : curlFailure(code);
}

TransferAttempt::Outcome TransferAttempt::follow(const std::string& url) {
  if (!request_.follow(url)) {
    return {End::final, URLError(CURLE_TOO_MANY_REDIRECTS, "the server sent the transfer from place to place")};
  }
  passedOver_ = headSize_ = 0;
  lastHeard_ = Clock::now();
  return {End::redirected};
}

TransferAttempt::Outcome TransferAttempt::judge(int code) const {
  switch (*use_) {
    case BodyUse::startOver:
      return transient(URLError(CURLE_RANGE_ERROR, "the server sent another range than was asked for"));
    case BodyUse::pageInstead:
      return transient(URLError(CURLE_WEIRD_SERVER_REPLY,
                                "the server answered with a web page in place of the rest of the file; the address may "
                                "need a new login"));
    case BodyUse::retry:
      return {End::transient, statusError(status()), fmt::format("the server answered {}", status())};
    case BodyUse::refuse:
      return {End::final, refusal()};
    case BodyUse::append:
    case BodyUse::replace:
      break;
  }
  return judgeBody(code);
}

URLError TransferAttempt::refusal() const {
  const bool isRedirect = status() < 400 && !request_.header("Location").empty();
  if (!isRedirect) return statusError(status());
  return {CURLE_UNSUPPORTED_PROTOCOL, "the server sent the transfer to an address that is none of http or https"};
}

TransferAttempt::Outcome TransferAttempt::transient(URLError error) {
  std::string why = error.description();
  return {End::transient, std::move(error), std::move(why)};
}

TransferAttempt::Outcome TransferAttempt::judgeBody(int code) const {
  if (isBomb_) {
    const auto text = fmt::format("what the server sent unpacks to more than {} times its size", mostExpansion);
    return {End::final, URLError(CURLE_WEIRD_SERVER_REPLY, text)};
  }
  if (isOverlong_) return transient(URLError(CURLE_RANGE_ERROR, "the server sent more bytes than it announced"));
  if (code == CURLE_BAD_CONTENT_ENCODING) {
    if (record_.isTakenAsItIs) return transient(URLError(code, "the server sent an unknown coding"));
    const std::string coding = plainLine(request_.header("Content-Encoding"), longestCoding);
    return {End::final, URLError(code, fmt::format("the server sent the file in a coding that cannot be undone "
                                                   "(\"{}\"); give another address of it",
                                                   coding))};
  }
  if (code != CURLE_OK) return curlFailure(code);
  if (closure_ && !*closure_) {
    return transient(URLError(CURLE_PARTIAL_FILE, "the connection ended, and the server did not end it"));
  }
  if (!proof_.empty() || (record_.expectedSize && position_ < *record_.expectedSize)) {
    const auto text = fmt::format("the server sent {} of {} bytes", position_, record_.expectedSize.value_or(0));
    return transient(URLError(CURLE_PARTIAL_FILE, text));
  }
  return {End::whole};
}

TransferAttempt::Outcome TransferAttempt::curlFailure(int code) const {
  long systemError = 0, verification = 0;
  curl_easy_getinfo(request_.easy(), CURLINFO_OS_ERRNO, &systemError);
  curl_easy_getinfo(request_.easy(), CURLINFO_SSL_VERIFYRESULT, &verification);
  const char* text = curlText_.front() != '\0' ? curlText_.data() : curl_easy_strerror(static_cast<CURLcode>(code));
  const TransferFailure failure{
      .code = code, .systemError = static_cast<int>(systemError), .verification = verification, .text = text};
  return {failure.isTransient() ? End::transient : End::final, failure.error(), failure.why()};
}

}  // namespace tarn
