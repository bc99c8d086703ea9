// Threads for what talks to a card or to a file. Tasks of one card begin in the order of their submission; cards take
// turns, so that a card that does not answer holds up itself alone. Any thread submits.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fxm
{

class executor
{
  public:
    // At most `max_threads` tasks run at once, `per_card` of them for one card, and `max_queued` wait for one card.
    // `failed` receives what left a task as an exception, on the thread of the task.
    executor(size_t max_threads, size_t per_card, size_t max_queued,
             std::function<void(const std::string &what)> failed = {});
    ~executor();
    executor(const executor &) = delete;
    executor &operator=(const executor &) = delete;

    // False if the card's queue is full, the executor is closed or the system gives it no thread; neither function is
    // called then. Otherwise exactly one of them is called: `task` on a thread of the executor, or `dropped`, which may
    // be empty, on the thread that closes it.
    bool submit(uint64_t card, std::function<void()> task, std::function<void()> dropped = {});

    // Refuses further tasks, drops those that wait, and returns when those that run have ended.
    void close();

  private:
    struct entry {
        std::function<void()> task;
        std::function<void()> dropped;
    };
    struct card_queue {
        std::deque<entry> waiting;
        size_t running = 0;
        bool listed = false; // in turns_
    };

    void run();
    void list(uint64_t card, card_queue *queue);
    bool call_thread();
    void guarded(const std::function<void()> &function) const;

    const size_t max_threads_;
    const size_t per_card_;
    const size_t max_queued_;
    const std::function<void(const std::string &)> failed_;

    std::mutex mutex_; // guards everything below
    std::condition_variable work_;
    std::map<uint64_t, card_queue> cards_; // with a task that waits or runs
    std::deque<uint64_t> turns_;           // cards that may begin a task
    std::vector<std::thread> threads_;     // made when needed, kept until the end
    size_t idle_ = 0;
    size_t woken_ = 0; // idle threads that have been called and do not run yet
    bool closed_ = false;
};

} // namespace fxm
