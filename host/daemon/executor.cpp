#include "daemon/executor.h"

#include <utility>

namespace fxm
{

executor::executor(size_t max_threads, size_t per_card, size_t max_queued)
    : max_threads_(max_threads), per_card_(per_card), max_queued_(max_queued)
{
}

executor::~executor() { close(); }

// Gives the card a turn if it has a task that may begin. The caller holds the mutex.
void executor::list(uint64_t card, card_queue *queue)
{
    if (queue->listed || queue->waiting.empty() || queue->running >= per_card_)
        return;
    queue->listed = true;
    turns_.push_back(card);
}

bool executor::submit(uint64_t card, std::function<void()> task, std::function<void()> dropped)
{
    {
        std::lock_guard guard(mutex_);
        if (closed_)
            return false;
        card_queue &queue = cards_[card];
        if (queue.waiting.size() >= max_queued_)
            return false;
        queue.waiting.push_back({std::move(task), std::move(dropped)});
        list(card, &queue);
        if (turns_.size() > idle_ && threads_.size() < max_threads_)
            threads_.emplace_back([this] { run(); });
    }
    work_.notify_one();
    return true;
}

void executor::run()
{
    std::unique_lock guard(mutex_);
    for (;;) {
        ++idle_;
        work_.wait(guard, [this] { return closed_ || !turns_.empty(); });
        --idle_;
        if (turns_.empty())
            return;
        const uint64_t card = turns_.front();
        turns_.pop_front();
        card_queue &queue = cards_[card];
        queue.listed = false;
        entry next = std::move(queue.waiting.front());
        queue.waiting.pop_front();
        queue.running += 1;
        list(card, &queue);
        guard.unlock();
        next.task();
        next = {};
        guard.lock();
        // The map may have moved on, its entries do not move.
        queue.running -= 1;
        list(card, &queue);
        if (queue.waiting.empty() && queue.running == 0)
            cards_.erase(card);
    }
}

void executor::close()
{
    std::vector<entry> dropped;
    std::vector<std::thread> threads;
    {
        std::lock_guard guard(mutex_);
        closed_ = true;
        for (auto &[card, queue] : cards_) {
            for (entry &waiting : queue.waiting)
                dropped.push_back(std::move(waiting));
            queue.waiting.clear();
            queue.listed = false;
        }
        turns_.clear();
        threads.swap(threads_);
    }
    work_.notify_all();
    for (const entry &waiting : dropped)
        waiting.dropped();
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace fxm
