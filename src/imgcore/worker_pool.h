#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// A fixed set of threads that run the tasks of one step together with the caller
// and return when all are done. Each task must write only its own data, so that
// results do not depend on which thread runs which task. Threads that cannot be
// started leave the work to the others (at worst the caller alone).
class WorkerPool {
public:
    explicit WorkerPool(int threads);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Threads working, the caller's included.
    int count() const { return static_cast<int>(threads_.size()) + 1; }
    // Runs task(worker, i) for every i in [0, tasks); worker is in [0, count()).
    void run(int tasks, const std::function<void(int, int)>& task);

private:
    void work(int worker);
    void loop(int worker);

    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::condition_variable wake_, done_;
    const std::function<void(int, int)>* task_ = nullptr;
    int tasks_ = 0, next_ = 0, busy_ = 0;
    long generation_ = 0;
    bool stop_ = false;
};
