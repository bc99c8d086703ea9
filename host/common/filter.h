// The filter of cards and events, as the command line, the API and the page write it; docs/api.md has the
// syntax, and filter_cases.txt the cases that hold this code and that of the page to it.
#pragma once

#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "common/facts.h"

namespace fxm
{

struct filter_key {
    const char *name;
    const char *values; // for people; the words with commas between, if there are only these
};
std::span<const filter_key> filter_keys();

class filter
{
  public:
    filter() = default; // matches every card

    // Throws api_error FXM_API_EINVAL, which names the word and what may stand there.
    static filter parse(std::string_view text);
    void add(std::string_view key, std::string_view value, bool negated = false); // the same for one word

    static bool is_key(std::string_view key);

    bool matches(const facts &card) const;
    bool empty() const { return tests_.empty(); }

  private:
    struct range {
        uint64_t first, last;
    };
    struct test {
        int key;
        bool negated;
        std::vector<range> ranges; // one must hold the card's value; for `int`, a mask in `first`
    };
    std::vector<test> tests_;
};

} // namespace fxm
