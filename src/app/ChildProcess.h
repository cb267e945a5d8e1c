#pragma once

#include <string>
#include <vector>

namespace tarn {

/// Runs a program of the PATH, without standard input, its output on this process's, and returns its exit code; 128 and
/// more for one that was killed. Throws Error when it cannot be started.
int runProgram(const std::vector<std::string>& arguments);

}  // namespace tarn
