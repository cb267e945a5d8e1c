#include "platform/memory/ManualDispatch.h"

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

namespace tarn {

class ManualDispatch::Queue : public DispatchQueue, public std::enable_shared_from_this<Queue> {
 public:
  Queue(ManualDispatch& dispatch, std::string label, bool serial)
      : label_(std::move(label)), dispatch_(dispatch), serial_(serial) {}

  void async(Work work) override { asyncAfter(std::chrono::nanoseconds(0), std::move(work)); }

  void asyncAfter(std::chrono::nanoseconds delay, Work work) override {
    dispatch_.post(shared_from_this(), delay, std::move(work));
  }

  void sync(const Work& work) override {
    if (serial_) {
      if (running_) throw std::logic_error("sync on the queue \"" + label_ + "\" from itself waits for ever");
      while (dispatch_.runFirst(this)) {
      }
    }
    run(work);
  }

  // Work that throws ends the process here as on a thread.
  void run(const Work& work) noexcept {
    const bool outer = std::exchange(running_, true);
    work();
    running_ = outer;
  }

  /// Whether work can begin: nothing of a serial queue while its earlier work waits in a sync() further up the stack.
  bool ready() const { return !held_ && !(serial_ && running_); }

  bool isSerial() const { return serial_; }
  const std::string& label() const { return label_; }
  void setHeld(bool held) { held_ = held; }

 private:
  const std::string label_;
  ManualDispatch& dispatch_;
  const bool serial_;
  bool held_ = false;
  bool running_ = false;
};

ManualDispatch::ManualDispatch()
    : main_(makeQueue("main", true)),
      userInitiated_(makeQueue("userInitiated", false)),
      background_(makeQueue("background", false)) {}

ManualDispatch::~ManualDispatch() {
  // What dropped work owns may hand in more work while it goes.
  std::list<Entry> dropped;
  dropped.swap(entries_);
}

DispatchQueue& ManualDispatch::mainQueue() {
  return *main_;
}

DispatchQueue& ManualDispatch::globalQueue(QualityOfService qualityOfService) {
  return qualityOfService == QualityOfService::background ? *background_ : *userInitiated_;
}

std::shared_ptr<DispatchQueue> ManualDispatch::makeSerialQueue(std::string label, bool) {
  return makeQueue(std::move(label), true);
}

std::shared_ptr<ManualDispatch::Queue> ManualDispatch::makeQueue(std::string label, bool serial) {
  queues_.push_front(std::make_shared<Queue>(*this, std::move(label), serial));
  return queues_.front();
}

DispatchQueue& ManualDispatch::serialQueue(const std::string& label) {
  for (const auto& queue : queues_) {
    if (queue->label() == label) return *queue;
  }
  throw std::out_of_range("no queue with the label \"" + label + "\"");
}

void ManualDispatch::post(std::shared_ptr<Queue> queue, std::chrono::nanoseconds delay, DispatchQueue::Work work) {
  std::lock_guard guard(mutex_);
  const auto due = now_ + delay;
  const auto place =
      std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.due > due; });
  entries_.insert(place, Entry{std::move(queue), std::move(work), due});
}

std::list<ManualDispatch::Entry> ManualDispatch::takeFirst(const Queue* only) {
  std::lock_guard guard(mutex_);
  std::list<Entry> taken;
  for (auto entry = entries_.begin(); entry != entries_.end() && entry->due <= now_; ++entry) {
    if (only ? entry->queue.get() != only : !entry->queue->ready()) continue;
    taken.splice(taken.begin(), entries_, entry);
    break;
  }
  return taken;
}

bool ManualDispatch::runFirst(const Queue* only) {
  const auto taken = takeFirst(only);
  for (const Entry& entry : taken) entry.queue->run(entry.work);
  return !taken.empty();
}

bool ManualDispatch::runNext() {
  return runFirst(nullptr);
}

bool ManualDispatch::runOne(const std::function<size_t(size_t)>& choose) {
  std::list<Entry> taken;
  {
    std::lock_guard guard(mutex_);
    std::vector<std::list<Entry>::iterator> ready;
    for (auto entry = entries_.begin(); entry != entries_.end() && entry->due <= now_; ++entry) {
      const auto isSame = [&](const auto& other) { return other->queue == entry->queue; };
      const bool isBehind = entry->queue->isSerial() && std::ranges::any_of(ready, isSame);
      if (entry->queue->ready() && !isBehind) ready.push_back(entry);
    }
    if (ready.empty()) return false;
    taken.splice(taken.begin(), entries_, ready[choose(ready.size())]);
  }
  for (const Entry& entry : taken) entry.queue->run(entry.work);
  return true;
}

size_t ManualDispatch::runUntilIdle() {
  size_t count = 0;
  while (runNext()) ++count;
  return count;
}

void ManualDispatch::advance(std::chrono::nanoseconds duration) {
  const auto end = now_ + duration;
  while (true) {
    runUntilIdle();
    std::lock_guard guard(mutex_);
    const auto next =
        std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.due > now_; });
    if (next == entries_.end() || next->due > end) break;
    now_ = next->due;
  }
  std::lock_guard guard(mutex_);
  now_ = end;
}

void ManualDispatch::hold(DispatchQueue& queue) {
  dynamic_cast<Queue&>(queue).setHeld(true);
}

void ManualDispatch::release(DispatchQueue& queue) {
  dynamic_cast<Queue&>(queue).setHeld(false);
}

}  // namespace tarn
