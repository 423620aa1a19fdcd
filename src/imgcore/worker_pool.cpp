#include "imgcore/worker_pool.h"

#include <system_error>

WorkerPool::WorkerPool(int threads) {
    for (int i = 1; i < threads; ++i) {
        try {
            threads_.emplace_back([this, i] { loop(i); });
        } catch (const std::system_error&) {
            break;
        }
    }
}

WorkerPool::~WorkerPool() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    for (std::thread& t : threads_) t.join();
}

void WorkerPool::run(int tasks, const std::function<void(int, int)>& task) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        task_ = &task;
        tasks_ = tasks;
        next_ = 0;
        busy_ = static_cast<int>(threads_.size());
        ++generation_;
    }
    wake_.notify_all();
    work(0);
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this] { return busy_ == 0; });
    task_ = nullptr;
}

void WorkerPool::work(int worker) {
    for (;;) {
        int i;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (next_ >= tasks_) return;
            i = next_++;
        }
        (*task_)(worker, i);
    }
}

void WorkerPool::loop(int worker) {
    long seen = 0;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [&] { return stop_ || generation_ != seen; });
            if (stop_) return;
            seen = generation_;
        }
        work(worker);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            --busy_;
        }
        done_.notify_one();
    }
}
