#include "serve/detail/HostDesk.h"

#include <chrono>
#include <utility>

#include "platform/Error.h"

namespace tarn {

namespace asio = boost::asio;

namespace {

constexpr std::chrono::seconds answerTime{60};

SiteAnswer rejection(int status, std::string words) {
  return SiteAnswer::json({{"message", std::move(words)}}, status);
}

/// Of a picture that the host has made; never a type that a browser would run.
std::string pictureType(const Path& file) {
  const std::string type = contentType(file);
  return type == "image/png" || type == "image/webp" ? type : "image/jpeg";
}

}  // namespace

HostDesk::~HostDesk() {
  pool_.stop();
  pool_.join();
}

void HostDesk::stop() {
  isStopped_ = true;
  for (const auto& wait : waits_) wait->timer->cancel();
}

asio::awaitable<SiteAnswer> HostDesk::answer(HostCall call) {
  if (isStopped_) co_return rejection(504, "The host is ending.");
  const bool isPoster = call.method == "getPoster";
  asio::steady_timer timer(context_, answerTime);
  const auto wait = std::make_shared<Wait>(Wait{.timer = &timer});
  const auto place = waits_.insert(waits_.end(), wait);
  run(std::move(call), wait);
  co_await timer.async_wait(quietly);
  wait->timer = nullptr;
  waits_.erase(place);
  if (!wait->answer) co_return rejection(504, "The host does not answer.");
  const CAPPluginCall::Answer& answer = *wait->answer;
  if (!answer.resolved) co_return rejection(answer.message == "not implemented" ? 404 : 409, answer.message);
  if (isPoster) co_return poster(answer);
  co_return SiteAnswer::json(answer.data);
}

void HostDesk::run(HostCall call, const std::shared_ptr<Wait>& wait) {
  auto done = [mailbox = mailbox_, wait](const CAPPluginCall::Answer& given) {
    mailbox->post([wait, given] {
      wait->answer = given;
      if (wait->timer) wait->timer->cancel();
    });
  };
  callOn(pool_, host_,
         std::make_shared<CAPPluginCall>(std::move(call.method), std::move(call.options), std::move(done)));
}

SiteAnswer HostDesk::poster(const CAPPluginCall::Answer& answer) const {
  const auto* path = valueAt<std::string>(answer.data, "path");
  if (!path) return rejection(404, "There is no picture of it.");
  try {
    return SiteAnswer::whole(files_, *path, pictureType(*path));
  } catch (const PosixError&) {
    return rejection(404, "There is no picture of it.");
  }
}

}  // namespace tarn
