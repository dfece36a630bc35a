// How the host's background threads (the periodic jobs, the hard limit, the
// cleanup history, the reconciler) are stopped: each sleeps on a condition
// variable until its period ends or its stop flag is set, and stop() must
// set the flag under the mutex (or the thread could test it, miss the
// notification and sleep a whole period), wake it and join it. Once here,
// so that no class forgets the mutex.
//
// Thread-safety: call from the owner's thread, never from the thread joined.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace faitra_host::detail {

inline void stop_and_join(std::mutex& mutex, std::condition_variable& cv, bool& stopping, std::thread& thread) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
  }
  cv.notify_all();
  if (thread.joinable()) thread.join();
}

}  // namespace faitra_host::detail
