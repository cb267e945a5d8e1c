#include "serve/detail/PageSession.h"

namespace tarn {

void PageSession::connect(Connection connection) {
  if (connection_) connection_->close();
  connection_ = std::move(connection);
  ++connections_;
}

bool PageSession::disconnect(const PageConnection& connection) {
  if (!isOn(connection)) return false;
  connection_.reset();
  return true;
}

void PageSession::send(PageText text) {
  if (connection_) connection_->send(std::move(text));
}

PageSession::Admission PageSession::admit(const std::string& id) {
  if (const auto known = answers_.find(id); known != answers_.end()) {
    // An answer that went out on this very connection has crossed the command on its way.
    if (known->second.sentOn != connections_) deliver(known->second);
    return Admission::done;
  }
  if (running_.contains(id)) return Admission::done;
  if (running_.size() == mostRunning) return Admission::full;
  running_.insert(id);
  return Admission::run;
}

void PageSession::answer(const std::string& id, PageText text) {
  if (running_.erase(id) == 0) return;
  answerBytes_ += text->size();
  Answer& kept = answers_[id] = {std::move(text), 0};
  answered_.push_back(id);
  deliver(kept);
  dropOldAnswers();
}

void PageSession::deliver(Answer& answer) {
  if (!connection_) return;
  answer.sentOn = connections_;
  connection_->send(answer.text);
}

void PageSession::dropOldAnswers() {
  while (answered_.size() > mostAnswers || (answerBytes_ > mostAnswerBytes && answered_.size() > 1)) {
    const auto oldest = answers_.find(answered_.front());
    answerBytes_ -= oldest->second.text->size();
    answers_.erase(oldest);
    answered_.pop_front();
  }
}

}  // namespace tarn
