// A card as a room keeps it. A large fleet has more than a million of them, so the text is compressed against what all
// documents have in common, and what filters look at takes no more room than it needs.
#pragma once

#include <boost/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>

#include "common/facts.h"

namespace fxm::fleet
{

// The members of a document without "schema", "site", "id" and "health", each with a comma in front.
struct card_members {
    std::string text;
    size_t listed = 0; // bytes of those that a list shows; they stand first
    std::string_view row() const { return std::string_view(text).substr(0, listed); }
};

struct room_card {
    plain_facts known;    // of the document
    uint64_t rev = 0;     // number of the last event that is in it
    uint32_t reading = 0; // the last whole reading of the bucket that named it
    uint32_t length = 0;  // of the text
    std::string packed;   // known.partner_count ids, and the compressed text of the members that were sent

    facts all_facts() const;
    card_members members() const;
};

// `parsed` is the document.
room_card read_card(uint64_t id, const boost::json::object &parsed, std::string_view document);

} // namespace fxm::fleet
