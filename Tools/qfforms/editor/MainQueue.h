// Jobs for the thread that owns the host and the module: the network thread posts them, the
// main thread runs them one at a time, in the order they came.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace qfforms {

class MainQueue {
  public:
    // Queues job for serve(). False once the queue is closed: job is then destroyed on the
    // calling thread. [thread-safe]
    bool post(std::function<void()> job);
    // Runs the jobs on the calling thread until close(). [main thread]
    void serve();
    // Ends serve() after the job it is running and destroys the jobs still waiting, on the
    // calling thread. Idempotent. [thread-safe]
    void close();

  private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> jobs_;
    bool closed_ = false;
};

} // namespace qfforms
