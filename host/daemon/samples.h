// Families of metrics, as tables: what each is called and means, and where its samples come from.
#pragma once

#include <prometheus/client_metric.h>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "daemon/timing.h"

namespace fxm
{

using prometheus::ClientMetric;
using prometheus::MetricType;
using label_list = std::vector<ClientMetric::Label>;

// The samples of one family.
class samples
{
  public:
    explicit samples(MetricType type) : type_(type) {}

    template <typename Number> void add(Number value, label_list labels = {})
    {
        ClientMetric &sample = next(std::move(labels));
        if (type_ == MetricType::Counter)
            sample.counter.value = static_cast<double>(value);
        else
            sample.gauge.value = static_cast<double>(value);
    }

    void add_histogram(const register_timing::numbers &of, label_list labels)
    {
        ClientMetric::Histogram &histogram = next(std::move(labels)).histogram;
        histogram.sample_count = of.count;
        histogram.sample_sum = static_cast<double>(of.sum_us) / 1e6;
        uint64_t sum = 0;
        for (size_t i = 0; i < register_timing::BOUNDS.size(); ++i) {
            sum += of.buckets[i];
            histogram.bucket.push_back({sum, register_timing::BOUNDS[i] / 1e6});
        }
    }

    std::vector<ClientMetric> take() { return std::move(made_); }

  private:
    ClientMetric &next(label_list labels)
    {
        made_.emplace_back().label = std::move(labels);
        return made_.back();
    }

    const MetricType type_;
    std::vector<ClientMetric> made_;
};

template <typename Reading> struct family_of {
    const char *name;
    MetricType type;
    const char *help;
    void (*fill)(const Reading &now, samples *out);
};

template <typename Reading>
std::string text_of_families(std::span<const family_of<Reading>> families, const Reading &now)
{
    std::vector<prometheus::MetricFamily> document;
    document.reserve(families.size());
    for (const family_of<Reading> &each : families) {
        samples made(each.type);
        each.fill(now, &made);
        document.push_back({each.name, each.help, each.type, made.take()});
    }
    return prometheus::TextSerializer().Serialize(document);
}

} // namespace fxm
