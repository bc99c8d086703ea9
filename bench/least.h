// What the library's reception is compared with: a capture that is opened as the library opens its own, and the least
// that any manager of these cards does with a frame.
#ifndef BENCH_LEAST_H
#define BENCH_LEAST_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <unordered_map>

// The frames of every card, the time of its channel, and two counters. Nothing is decoded and nobody is told of a change.
struct least_registry_t {
    void take(const uint8_t *frame, uint32_t length);

    struct card_t {
        int64_t heard_ms; // by the wall clock
        uint32_t length;
        uint8_t frame[512]; // the longest announcement has 496 bytes
    };
    std::mutex cards_lock;
    std::unordered_map<uint64_t, card_t> cards; // by the 48-bit id
    std::mutex counters_lock;
    uint64_t all = 0;
    uint64_t by_subtype[256] = {};
};

// A capture holds fewer frames than this. The first touch of its memory costs far more than a frame, so all of it is used
// once before anything is measured.
constexpr uint64_t CAPTURE_FRAMES = 65536;

// The last frame of a flood comes from a card of its own, one for each port. Its flow id says which flood has ended.
constexpr uint64_t FENCE = 0x02000000ff00;

// A thread that reads the frames of an interface until there are none, and then sleeps in poll. With a registry it does
// the least that a manager does, without one nothing.
struct capture_loop_t {
    capture_loop_t(const char *interface, least_registry_t *registry, int poll_ms);
    ~capture_loop_t(); // within poll_ms
    capture_loop_t(const capture_loop_t &) = delete;
    capture_loop_t &operator=(const capture_loop_t &) = delete;

    int64_t cpu_ns();              // of the thread
    std::atomic<uint8_t> fence{0}; // flow id of the last fence
    std::atomic<uint64_t> received{0};

  private:
    void read_frames();
    struct pcap *handle;
    least_registry_t *registry;
    int poll_ms;
    std::atomic<bool> stop{false};
    std::thread reader;
};

#endif
