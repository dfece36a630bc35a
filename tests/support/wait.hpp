// Polling: tests wait for conditions, never for fixed times.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace faitra_test {

// Polls `condition` every millisecond until it holds or `timeout` passes;
// returns whether it held. The deadline only bounds a failing test.
inline bool wait_until(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace faitra_test
