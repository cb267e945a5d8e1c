#include "inspect/FailureAdvice.h"

#include <curl/curl.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>

#include "audio/AudioTrackReplacerError.h"
#include "audio/AudioTranscoderError.h"
#include "audio/FastPathAudioBuilder.h"
#include "audio/SilentAACSampleCache.h"
#include "mp4/MP4RemuxError.h"
#include "platform/Error.h"
#include "sync/ErrorTypes.h"

namespace tarn {
namespace {

using Where = RunOutcome::Where;

FailureAdvice tryAgain(const char* words) {
  return {.words = words, .mayTryAgain = true};
}

FailureAdvice fullDisk() {
  return tryAgain("The disk is full: make room, then try again.");
}

template <size_t count>
bool isOneOf(int code, const std::array<int, count>& codes) {
  return std::ranges::find(codes, code) != codes.end();
}

FailureAdvice ofStatus(int status) {
  switch (status) {
    case 404:
    case 410:
      return {"Check the address: the server has no such file."};
    case 401:
    case 403:
      return {"The address needs a login: pass on what a browser sends there (`tarn save --header`, `--cookie-file`)."};
    case 407:
      return {"The proxy needs a login: put it into the proxy's address."};
    default:
      break;
  }
  const bool isForTheTimeBeing = status == 408 || status == 425 || status == 429 || status >= 500;
  if (isForTheTimeBeing) return tryAgain("The server is busy or has a fault: try again later.");
  return {"Check the address: the server refuses to send it."};
}

FailureAdvice ofTransfer(int code) {
  constexpr std::array<int, 6> certificate{CURLE_PEER_FAILED_VERIFICATION, CURLE_SSL_CACERT_BADFILE,
                                           CURLE_SSL_ISSUER_ERROR,         CURLE_SSL_CERTPROBLEM,
                                           CURLE_SSL_PINNEDPUBKEYNOTMATCH, CURLE_SSL_INVALIDCERTSTATUS};
  constexpr std::array<int, 10> network{CURLE_PARTIAL_FILE, CURLE_OPERATION_TIMEDOUT, CURLE_SSL_CONNECT_ERROR,
                                        CURLE_GOT_NOTHING,  CURLE_SEND_ERROR,         CURLE_RECV_ERROR,
                                        CURLE_HTTP2,        CURLE_HTTP2_STREAM,       CURLE_RANGE_ERROR,
                                        CURLE_AGAIN};
  if (code >= 400) return ofStatus(code);
  if (isOneOf(code, certificate)) {
    return {
        "The server cannot prove who it is: check the address, and the clock of this machine. If you know better, "
        "name the file of its certificate in SSL_CERT_FILE."};
  }
  if (isOneOf(code, network)) return tryAgain("Check the network, then try again.");
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return tryAgain("Check the name of the server and the network, then try again.");
    case CURLE_COULDNT_RESOLVE_PROXY:
      return tryAgain("Check the address of the proxy and the network, then try again.");
    case CURLE_COULDNT_CONNECT:
      return tryAgain("Check the address, or try again later: nothing answers there.");
    case CURLE_TOO_MANY_REDIRECTS:
      return {"The address leads in a circle: give that of the video itself, or a login (`tarn save --cookie-file`)."};
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
      return {"Give an http or https address."};
    case CURLE_WEIRD_SERVER_REPLY:
      return {"Open the address in a browser: it may need a login (`tarn save --cookie-file`), or be another one."};
    case CURLE_OUT_OF_MEMORY:
      return tryAgain("The memory is full: try again later.");
    case -1:
      return tryAgain("Check the free space and the rights of the home directory, then try again.");
    default:
      return {};
  }
}

FailureAdvice tooLarge(Where where) {
  if (where != Where::repair) return {"The file system takes no file of this size: use a home on another one."};
  return {.words = "The file system takes no file as large as the repaired one would be: use a home on another one.",
          .maySaveAsItCame = true};
}

FailureAdvice ofSystem(int number, Where where) {
  constexpr std::array<int, 4> rights{EACCES, EPERM, EROFS, ENOTDIR};
  constexpr std::array<int, 7> busy{EMFILE, ENFILE, ENOMEM, EAGAIN, EBUSY, ETXTBSY, ENOBUFS};
  if (number == ENOSPC || number == EDQUOT) return fullDisk();
  if (number == EFBIG) return tooLarge(where);
  if (number == ENAMETOOLONG) return {"Give a shorter name with `--filename`."};
  if (isOneOf(number, rights)) return {"Check who may write there, the home directory included."};
  if (isOneOf(number, busy)) return tryAgain("The machine is busy: try again later.");
  return {};
}

FailureAdvice ofLibrary(int extendedCode) {
  switch (extendedCode & 0xFF) {
    case SQLITE_FULL:
      return fullDisk();
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_NOMEM:
      return tryAgain("The library is busy: try again later.");
    default:
      return {"Check the free space and the rights of the home directory."};
  }
}

/// The name or the album that the user gave.
FailureAdvice ofRequest(Where where) {
  if (where == Where::saving) return {"Name an album with `--album`."};
  return {"Give a name without \"/\" with `--filename`."};
}

bool isOfSound(const Error& error) {
  return dynamic_cast<const AudioTranscoderError*>(&error) || dynamic_cast<const AudioTrackReplacerError*>(&error) ||
         dynamic_cast<const FastPathError*>(&error) || dynamic_cast<const SilentFrameError*>(&error) ||
         dynamic_cast<const AVSyncError*>(&error) || dynamic_cast<const MP4EditListStripperError*>(&error);
}

FailureAdvice ofRepair(const Error& error) {
  if (error.domain() == "Repair") return tryAgain("Try again when nothing changes the file.");
  const auto* const remux = dynamic_cast<const MP4RemuxError*>(&error);
  if (remux && remux->code() == ENOSPC) return fullDisk();
  if (isOfSound(error)) {
    return {.words = "The sound cannot be repaired: without that (`--skip-audio-fix`) it stays as it came.",
            .maySaveAsItCame = true};
  }
  return {.words = "The video cannot be repaired: without that (`--skip-video-fix`) it stays as it came.",
          .maySaveAsItCame = true};
}

/// The failure of a transfer has lost its type on its way, but never its domain and code.
FailureAdvice ofError(const Error& error, Where where) {
  const std::string& domain = error.domain();
  if (domain == "NSURLErrorDomain") return ofTransfer(error.code());
  if (domain == "NSPOSIXErrorDomain") return ofSystem(error.code(), where);
  if (domain == "SQLite") return ofLibrary(error.code());
  if (domain == "TarnFetch") return ofRequest(where);
  if (domain == "Home" && error.code() == EWOULDBLOCK) return tryAgain("Wait for it, or use another home (`--home`).");
  if (where == Where::repair) return ofRepair(error);
  return {};
}

}  // namespace

FailureAdvice adviceFor(const RunOutcome& outcome) {
  // The words of a refusal carry the way out.
  if (outcome.kind != RunOutcome::Kind::failed || outcome.isRefused || !outcome.failure) return {};
  if (outcome.isDiskFull) return fullDisk();
  try {
    std::rethrow_exception(outcome.failure);
  } catch (const Error& error) {
    return ofError(error, outcome.where);
  } catch (const std::bad_alloc&) {
    return tryAgain("The memory is full: try again later.");
  } catch (...) {
    return {};
  }
}

}  // namespace tarn
