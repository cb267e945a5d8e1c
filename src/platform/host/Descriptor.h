#pragma once

#include <unistd.h>

#include <utility>

namespace tarn {

/// Owns a descriptor of the system, or none.
class Descriptor {
 public:
  Descriptor() = default;
  /// Takes what an opening call has returned; below 0 it has failed.
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (isOpen()) ::close(number_);
  }
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  bool isOpen() const { return number_ >= 0; }
  int operator*() const { return number_; }

  /// Hands it over to the caller, who closes it.
  int release() { return std::exchange(number_, -1); }

 private:
  int number_ = -1;
};

}  // namespace tarn
