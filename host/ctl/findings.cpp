#include "ctl/findings.h"

#include <fmt/format.h>

#include <boost/json.hpp>

#include <algorithm>

#include "ctl/output.h"

namespace fxm
{

bool report::good() const
{
    return std::none_of(findings_.begin(), findings_.end(), [](const finding &f) { return f.how == verdict::wrong; });
}

void report::print(bool as_json, bool colour) const
{
    namespace json = boost::json;
    constexpr const char *words[] = {"ok", "warning", "WRONG"};
    if (as_json) {
        json::array list;
        for (const finding &entry : findings_)
            list.push_back(
                json::object{{"verdict", entry.how == verdict::wrong ? "wrong" : words[static_cast<int>(entry.how)]},
                             {"about", entry.about},
                             {"what", entry.what},
                             {"advice", entry.advice.empty() ? json::value(nullptr) : json::value(entry.advice)}});
        put(json::serialize(json::object{{"schema", "fxm/1"}, {"findings", std::move(list)}}) + "\n");
        return;
    }
    constexpr const char *colours[] = {"32", "33", "31;1"};
    for (const finding &entry : findings_) {
        const auto index = static_cast<size_t>(entry.how);
        const std::string mark = colour ? fmt::format("\x1b[{}m{:<8}\x1b[0m", colours[index], words[index])
                                        : fmt::format("{:<8}", words[index]);
        put(fmt::format("{} {}: {}\n", mark, entry.about, entry.what));
        if (!entry.advice.empty())
            put(fmt::format("         {}\n", entry.advice));
    }
}

} // namespace fxm
