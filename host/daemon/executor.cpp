#include "daemon/executor.h"

#include <exception>
#include <system_error>
#include <utility>

namespace fxm
{

executor::executor(size_t max_threads, size_t per_card, size_t max_queued,
                   std::function<void(const std::string &what)> failed)
    : max_threads_(max_threads), per_card_(per_card), max_queued_(max_queued), failed_(std::move(failed))
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

// Calls a thread to one more task that may begin. Where all threads exist and are busy, the next one that is free takes
// it. The caller holds the mutex.
bool executor::call_thread()
{
    if (idle_ > woken_) {
        ++woken_;
        work_.notify_one();
        return true;
    }
    if (threads_.size() < max_threads_) {
        try {
            threads_.emplace_back([this] { run(); });
        } catch (const std::system_error &) {
            return !threads_.empty();
        }
    }
    return true;
}

bool executor::submit(uint64_t card, std::function<void()> task, std::function<void()> dropped)
{
    std::lock_guard guard(mutex_);
    if (closed_)
        return false;
    card_queue &queue = cards_[card];
    const bool begins = queue.waiting.size() + queue.running < per_card_;
    if (!begins && queue.waiting.size() >= max_queued_)
        return false;
    // One call for each task that may begin: a card may begin several, so its turn alone does not tell how many.
    if (begins && !call_thread()) {
        if (queue.waiting.empty() && queue.running == 0)
            cards_.erase(card);
        return false;
    }
    queue.waiting.push_back({std::move(task), std::move(dropped)});
    list(card, &queue);
    return true;
}

void executor::guarded(const std::function<void()> &function) const
{
    try {
        if (function)
            function();
    } catch (const std::exception &failure) {
        if (failed_)
            failed_(failure.what());
    } catch (...) {
        if (failed_)
            failed_("an exception of an unknown type");
    }
}

void executor::run()
{
    std::unique_lock guard(mutex_);
    for (;;) {
        while (turns_.empty()) {
            if (closed_)
                return;
            ++idle_;
            work_.wait(guard, [this] { return closed_ || woken_ != 0; });
            --idle_;
            if (woken_ != 0)
                --woken_;
        }
        const uint64_t card = turns_.front();
        turns_.pop_front();
        card_queue &queue = cards_[card];
        queue.listed = false;
        entry next = std::move(queue.waiting.front());
        queue.waiting.pop_front();
        queue.running += 1;
        list(card, &queue);
        guard.unlock();
        guarded(next.task);
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
        guarded(waiting.dropped);
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace fxm
