#include "serve/detail/PageHub.h"

#include <algorithm>
#include <utility>

namespace tarn {

PageHub::PageHub(std::string plugin, std::string epoch, Time start, Call call)
    : plugin_(std::move(plugin)), epoch_(std::move(epoch)), call_(std::move(call)), presence_(start) {}

void PageHub::connect(const PageGreeting& greeting, Connection connection) {
  const auto missed = greeting.epoch == epoch_ ? ring_.since(greeting.lastSeen) : std::nullopt;
  const Replay replay = greeting.epoch.empty() ? Replay::none : missed ? Replay::complete : Replay::lost;
  PageSession& page = session(greeting.page);
  page.connect(std::move(connection));
  page.send(std::make_shared<std::string>(helloText(epoch_, ring_.lastNumber(), replay)));
  if (!missed) return;
  for (const PageText& event : *missed) page.send(event);
}

void PageHub::disconnect(const std::string& page, const PageConnection& connection, Time now) {
  const auto found = sessions_.find(page);
  if (found != sessions_.end() && found->second.disconnect(connection)) presence_.leave(page, now);
}

void PageHub::forget(const std::string& page) {
  sessions_.erase(page);
  std::erase(sessionOrder_, page);
}

void PageHub::receive(const std::string& page, const PageConnection& connection, std::string_view text) {
  const auto found = sessions_.find(page);
  if (found == sessions_.end() || !found->second.isOn(connection)) return;
  PageMessage message = parsePageMessage(text);
  if (auto* command = std::get_if<PageCommand>(&message)) {
    run(page, found->second, std::move(*command));
  } else if (const auto* visibility = std::get_if<PageVisibility>(&message)) {
    presence_.show(page, visibility->isVisible);
  } else {
    found->second.send(std::make_shared<std::string>(refusalText(std::get<BadMessage>(message))));
  }
}

void PageHub::run(const std::string& page, PageSession& session, PageCommand command) {
  const auto admission = session.admit(command.id);
  if (admission == PageSession::Admission::full) {
    session.send(std::make_shared<std::string>(refusalText({command.id, "Too many commands are under way"})));
  } else if (admission == PageSession::Admission::run) {
    call_(page, std::move(command));
  }
}

void PageHub::answer(const std::string& page, const std::string& id, const CAPPluginCall::Answer& answer) {
  const auto found = sessions_.find(page);
  if (found != sessions_.end()) found->second.answer(id, std::make_shared<std::string>(answerText(id, answer)));
}

void PageHub::sendEventOf(const std::string& plugin, const std::string& event, const JSObject& data) {
  auto text = std::make_shared<std::string>(eventText(ring_.nextNumber(), plugin, event, data));
  ring_.add(text);
  for (auto& [page, session] : sessions_) session.send(text);
}

PageSession& PageHub::session(const std::string& page) {
  std::erase(sessionOrder_, page);
  sessionOrder_.push_back(page);
  if (sessionOrder_.size() > mostPages) {
    // More pages than connections: at least one is away.
    auto oldest =
        std::ranges::find_if(sessionOrder_, [this](const std::string& name) { return !sessions_[name].isConnected(); });
    sessions_.erase(*oldest);
    sessionOrder_.erase(oldest);
  }
  return sessions_[page];
}

}  // namespace tarn
