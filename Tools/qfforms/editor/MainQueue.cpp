#include "MainQueue.h"

#include <utility>

namespace qfforms {

bool MainQueue::post(std::function<void()> job) {
    {
        std::lock_guard lock(mutex_);
        if (closed_) return false;
        jobs_.push_back(std::move(job));
    }
    ready_.notify_one();
    return true;
}

void MainQueue::serve() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(mutex_);
            ready_.wait(lock, [this] { return closed_ || !jobs_.empty(); });
            if (closed_) return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job();
    }
}

void MainQueue::close() {
    std::deque<std::function<void()>> dropped; // destroyed outside the lock
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
        dropped.swap(jobs_);
    }
    ready_.notify_all();
}

} // namespace qfforms
