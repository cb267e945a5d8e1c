#pragma once

#include <string>

#include "platform/Error.h"

namespace tarn::test {

/// How the failure of a piece of work is described; empty where it comes to its end.
template <typename Work>
std::string failureOf(Work work) {
  try {
    work();
    return "";
  } catch (const Error& error) {
    return error.description();
  }
}

}  // namespace tarn::test
