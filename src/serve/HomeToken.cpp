#include "serve/HomeToken.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "platform/Error.h"
#include "platform/SHA256.h"
#include "platform/host/Descriptor.h"
#include "platform/host/PosixCalls.h"

namespace tarn {
namespace {

constexpr size_t tokenBytes = 32;

bool isToken(std::string_view text) {
  return text.size() == 2 * tokenBytes &&
         std::ranges::all_of(text, [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

std::optional<std::string> storedToken(const Path& path) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat facts {};
  if (!file.isOpen() || ::fstat(*file, &facts) != 0) return std::nullopt;
  if (!S_ISREG(facts.st_mode) || (facts.st_mode & 077) != 0 || facts.st_uid != ::geteuid()) return std::nullopt;
  std::string text(2 * tokenBytes + 1, '\0');
  const ssize_t count = ::read(*file, text.data(), text.size());
  text.resize(count < 0 ? 0 : static_cast<size_t>(count));
  return isToken(text) ? std::optional(std::move(text)) : std::nullopt;
}

std::string hex(ByteView bytes) {
  std::string text;
  for (const uint8_t byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

}  // namespace

std::string homeToken(const Path& home) {
  const Path path = home / "token";
  if (auto stored = storedToken(path)) return *stored;
  std::string token = randomHex(tokenBytes);
  storeSecret(path, token);
  return token;
}

void storeSecret(const Path& path, const std::string& secret) {
  const Path fresh = hiddenSibling(path);
  const Descriptor file(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file.isOpen()) throw PosixError(errno, fresh.string());
  if (!writeAll(*file, secret) || ::fsync(*file) != 0 || ::rename(fresh.c_str(), path.c_str()) != 0) {
    const int failure = errno;
    ::unlink(fresh.c_str());
    throw PosixError(failure, path.string());
  }
}

std::string randomHex(size_t count) {
  Bytes bytes(count);
  if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw PosixError(errno, "random bytes for a secret");
  }
  return hex(bytes);
}

std::string pageKey(const std::string& homeToken) {
  return hex(hmacSHA256(bytesOf(homeToken), bytesOf("the key of this home's pages")));
}

std::string pageProof(const std::string& pageKey, const std::string& challenge, const std::string& origin) {
  return hex(hmacSHA256(bytesOf(pageKey), bytesOf(challenge + "\n" + origin)));
}

bool isSameSecret(std::string_view secret, std::string_view given) {
  size_t difference = secret.size() ^ given.size();
  for (size_t i = 0; i < given.size(); ++i) {
    const char expected = secret.empty() ? '\0' : secret[i % secret.size()];
    difference |= static_cast<unsigned char>(expected ^ given[i]);
  }
  return difference == 0;
}

}  // namespace tarn
