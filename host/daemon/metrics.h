// What fxmd counts, as text for Prometheus. docs/monitoring.md describes every family.
#pragma once

#include <cstddef>
#include <string>

namespace fxm
{

struct services;

inline constexpr const char *METRICS_TYPE = "text/plain; version=0.0.4; charset=utf-8";

// Series that name a card; further cards in error are only counted. All other series are the same at any size.
constexpr size_t MOST_CARD_SERIES = 1000;

// Reads every service once, under short locks, and looks at no card that is not in error. Any thread.
std::string metrics_text(services &all);

} // namespace fxm
