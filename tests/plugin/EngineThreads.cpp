#include "plugin/EngineThreads.h"

#include <algorithm>
#include <thread>

namespace tarn::test {

using Kind = ModelStep::Kind;
using namespace std::chrono_literals;

constexpr size_t lead = 8;  ///< steps that may be done ahead of one that is not

std::optional<std::string> EngineThreads::brokenBy(const std::vector<ModelStep>& steps) {
  EngineThreads engine;
  for (auto from = steps.begin();;) {
    const auto to = std::ranges::find(from, steps.end(), Kind::restart, &ModelStep::kind);
    engine.runPhase(std::vector<ModelStep>(from, to));
    engine.storeFault_.reset();
    if (engine.broken_ || to == steps.end()) break;
    engine.restart();
    from = std::next(to);
  }
  if (!engine.broken_) engine.comeToAnEnd();
  return engine.broken_;
}

EngineThreads::EngineThreads() {
  EngineThreads::startProcess();
}

EngineThreads::~EngineThreads() {
  EngineThreads::endProcess();
}

void EngineThreads::startProcess() {
  queues_ = std::make_unique<CountedDispatch>();
  openProcess(*queues_);
  // Transfers whose end the last process did not hear go with the making of the session: not while one is driven.
  plugin_->downloadManager().handleEventsForBackgroundURLSession();
}

/// As a kill does: of the work that has not begun nothing is done.
void EngineThreads::endProcess() {
  queues_->stop();
  plugin_.reset();
  application_.reset();
  queues_.reset();
}

EngineThreads::Thread EngineThreads::threadOf(const ModelStep& step) {
  switch (step.kind) {
    case Kind::start:
      return step.argument % 2 ? firstPage : secondPage;
    case Kind::limit:
    case Kind::failStore:
    case Kind::jump:
      return firstPage;
    case Kind::cancel:
    case Kind::cancelAll:
    case Kind::clearAll:
      return secondPage;
    case Kind::hide:
    case Kind::show:
    case Kind::expire:
    case Kind::second:
      return application;
    case Kind::progress:
    case Kind::finish:
    case Kind::complete:
    case Kind::failTransfer:
    case Kind::cancellations:
    case Kind::failRun:
      return transfers;
    default:
      return static_cast<Thread>(step.argument % threads);
  }
}

void EngineThreads::runPhase(const std::vector<ModelStep>& steps) {
  stepsDone_ = 0;
  std::vector<std::thread> running;
  for (size_t thread = 0; thread < Thread::threads; ++thread) {
    running.emplace_back([&, thread] { drive(steps, static_cast<Thread>(thread)); });
  }
  for (std::thread& thread : running) thread.join();
}

void EngineThreads::drive(const std::vector<ModelStep>& steps, Thread thread) {
  for (size_t at = 0; at < steps.size(); ++at) {
    if (threadOf(steps[at]) != thread) continue;
    {
      std::unique_lock lock(turnMutex_);
      turned_.wait(lock, [&] { return stepsDone_ + lead >= at; });
    }
    perform(steps[at]);
    if (thread == firstPage && storeFault_ && storeFiles_.fired()) {
      storeFiles_.disarm();
      storeFault_.reset();
    }
    std::lock_guard guard(turnMutex_);
    ++stepsDone_;
    turned_.notify_all();
  }
}

void EngineThreads::perform(const ModelStep& step) {
  std::optional<Disturbance> disturbance;
  if (step.kind == Kind::jump) disturbance.emplace(*this);
  if (step.kind == Kind::failStore) {
    storeFault_.reset();
    storeFault_ = std::make_unique<Disturbance>(*this);
  }
  EngineDriver::perform(step);
  // Which may come at any moment.
  if (step.kind == Kind::turn) plugin_->downloadManager().checkAndResumePendingProcessing();
  if (step.kind == Kind::settle) std::this_thread::sleep_for(1ms);
}

void EngineThreads::inTheMiddleOfARun(uint64_t number) {
  for (uint64_t i = 0; i < number % 4; ++i) std::this_thread::sleep_for(300us);
}

EngineThreads::Disturbance::Disturbance(EngineThreads& engine) : engine_(engine) {
  std::lock_guard guard(engine_.mutex_);
  ++engine_.disturbances_;
  ++engine_.disturbancesNow_;
}

EngineThreads::Disturbance::~Disturbance() {
  std::lock_guard guard(engine_.mutex_);
  --engine_.disturbancesNow_;
}

std::optional<uint64_t> EngineThreads::start(uint32_t argument) {
  size_t before = 0;
  bool isDisturbed = false;
  {
    std::lock_guard guard(mutex_);
    before = disturbances_;
    isDisturbed = disturbancesNow_ > 0;
  }
  const auto number = EngineDriver::start(argument);
  if (!number) return number;
  note(*number, [&](Download& download) {
    if (isDisturbed || disturbances_ != before) download.mayBeLost = download.mayStayUntold = true;
  });
  return number;
}

void EngineThreads::cancel(uint64_t number, int64_t id) {
  note(number, [](Download& download) { download.mayBeLost = download.mayStayUntold = true; });
  call("cancel", {{"id", id}});
}

void EngineThreads::cancelEverything(const std::string& method) {
  const Disturbance disturbance(*this);
  giveUp(true);
  call(method);
  giveUp(true);
}

void EngineThreads::letTimePass() {
  require(queues_->waitUntilIdle(), "the queues come to rest");
}

bool EngineThreads::isLate(int round) {
  const auto now = std::chrono::steady_clock::now();
  if (round == 0) deadline_ = now + 1min;
  return now > deadline_;
}

}  // namespace tarn::test
