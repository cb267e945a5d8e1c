#include "platform/host/HostApplication.h"

#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace tarn {

class HostApplication::Life : public std::enable_shared_from_this<Life> {
 public:
  using Notification = void (UIApplicationObserver::*)();

  Life(Dispatch& dispatch, std::optional<std::chrono::seconds> limit) : main_(dispatch.mainQueue()), limit_(limit) {}

  UIApplicationState state() {
    std::lock_guard guard(mutex_);
    return state_;
  }

  UIBackgroundTaskIdentifier begin(std::function<void()> expiration) {
    std::lock_guard guard(mutex_);
    const UIBackgroundTaskIdentifier identifier = ++lastTask_;
    handlers_.emplace(identifier, std::move(expiration));
    if (state_ == UIApplicationState::background && timeIsUp_) postExpiration({identifier});
    return identifier;
  }

  void end(UIBackgroundTaskIdentifier identifier) {
    decltype(handlers_)::node_type ended;  // goes after the lock, since what a handler owns may call back as it goes
    std::lock_guard guard(mutex_);
    ended = handlers_.extract(identifier);
  }

  void add(std::weak_ptr<UIApplicationObserver> observer) {
    std::lock_guard guard(mutex_);
    std::erase_if(observers_, [](const auto& held) { return held.expired(); });
    observers_.push_back(std::move(observer));
  }

  void enterBackground() {
    std::lock_guard guard(mutex_);
    if (state_ == UIApplicationState::background) return;
    state_ = UIApplicationState::background;
    post(&UIApplicationObserver::appDidEnterBackground);
    if (!limit_) return;
    main_.asyncAfter(*limit_, [weak = weak_from_this(), stay = ++stay_] {
      if (const auto life = weak.lock()) life->limitHasPassed(stay);
    });
  }

  void enterForeground() {
    std::lock_guard guard(mutex_);
    state_ = UIApplicationState::active;
    timeIsUp_ = false;
    ++stay_;
    post(&UIApplicationObserver::appWillEnterForeground);
  }

  void terminate() {
    std::lock_guard guard(mutex_);
    post(&UIApplicationObserver::appWillTerminate);
  }

  void expire() {
    main_.async([weak = weak_from_this()] {
      if (const auto life = weak.lock()) life->expireAll();
    });
  }

 private:
  // The mutex is held by the callers of the two.
  void post(Notification notification) {
    main_.async([weak = weak_from_this(), notification] {
      if (const auto life = weak.lock()) life->notify(notification);
    });
  }

  void postExpiration(std::vector<UIBackgroundTaskIdentifier> identifiers) {
    main_.async([weak = weak_from_this(), identifiers = std::move(identifiers)] {
      if (const auto life = weak.lock()) life->runHandlers(identifiers);
    });
  }

  void notify(Notification notification) {
    std::vector<std::weak_ptr<UIApplicationObserver>> observers;
    {
      std::lock_guard guard(mutex_);
      observers = observers_;
    }
    for (const auto& weak : observers) {
      if (const auto observer = weak.lock()) ((*observer).*notification)();
    }
  }

  void limitHasPassed(uint64_t stay) {
    {
      std::lock_guard guard(mutex_);
      if (stay != stay_) return;  // back in the foreground since
    }
    expireAll();
  }

  void expireAll() {
    std::vector<UIBackgroundTaskIdentifier> identifiers;
    {
      std::lock_guard guard(mutex_);
      timeIsUp_ = state_ == UIApplicationState::background;
      for (const auto& task : handlers_) identifiers.push_back(task.first);
    }
    runHandlers(identifiers);
  }

  /// Runs each handler once, outside the lock, unless its task has ended by then.
  void runHandlers(const std::vector<UIBackgroundTaskIdentifier>& identifiers) {
    for (const auto identifier : identifiers) {
      std::function<void()> handler;
      {
        std::lock_guard guard(mutex_);
        const auto task = handlers_.find(identifier);
        if (task == handlers_.end()) continue;
        handler = std::move(task->second);
        handlers_.erase(task);
      }
      if (handler) handler();
    }
  }

  DispatchQueue& main_;
  const std::optional<std::chrono::seconds> limit_;

  std::mutex mutex_;  // guards all below; never held while a handler or an observer runs
  UIApplicationState state_ = UIApplicationState::active;
  bool timeIsUp_ = false;
  uint64_t stay_ = 0;  // counts changes of the state, so that an old limit finds out that it is one
  UIBackgroundTaskIdentifier lastTask_ = UIBackgroundTaskInvalid;
  std::map<UIBackgroundTaskIdentifier, std::function<void()>> handlers_;
  std::vector<std::weak_ptr<UIApplicationObserver>> observers_;
};

HostApplication::HostApplication(Dispatch& dispatch) : HostApplication(dispatch, Settings()) {}

HostApplication::HostApplication(Dispatch& dispatch, Settings settings)
    : bundleIdentifier_(std::move(settings.bundleIdentifier)),
      life_(std::make_shared<Life>(dispatch, settings.backgroundLimit)) {}

HostApplication::~HostApplication() = default;

UIApplicationState HostApplication::applicationState() {
  return life_->state();
}

std::string HostApplication::bundleIdentifier() {
  return bundleIdentifier_;
}

UIBackgroundTaskIdentifier HostApplication::beginBackgroundTask(const std::string&, std::function<void()> expiration) {
  return life_->begin(std::move(expiration));
}

void HostApplication::endBackgroundTask(UIBackgroundTaskIdentifier identifier) {
  life_->end(identifier);
}

void HostApplication::addObserver(std::weak_ptr<UIApplicationObserver> observer) {
  life_->add(std::move(observer));
}

void HostApplication::enterBackground() {
  life_->enterBackground();
}

void HostApplication::enterForeground() {
  life_->enterForeground();
}

void HostApplication::terminate() {
  life_->terminate();
}

void HostApplication::expireBackgroundTime() {
  life_->expire();
}

}  // namespace tarn
