#include "wait.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

using namespace std::chrono_literals;

static void print_and_exit(const std::string &what)
{
    fprintf(stderr, "%s\n", what.c_str());
    exit(1);
}

void (*on_failure)(const std::string &what) = print_and_exit;

void harness_failed(const std::string &what) { on_failure(what); }

bool poll_until(const std::function<bool()> &done)
{
    const auto limit = std::chrono::steady_clock::now() + 30s;
    std::chrono::microseconds pause = 1ms; // it grows, because each look costs something
    for (; !done(); pause = std::min<std::chrono::microseconds>(pause + pause / 8, 8ms)) {
        if (std::chrono::steady_clock::now() > limit)
            return false;
        std::this_thread::sleep_for(pause);
    }
    return true;
}

uint64_t now_ms()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}
