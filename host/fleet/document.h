// Reading the documents of a fleet: of cards, sites and beats, and the lines of events.
#pragma once

#include <boost/json.hpp>

#include <cstdint>
#include <optional>
#include <string_view>

#include "common/facts.h"

namespace fxm::fleet
{

// Nothing, if the text is no object.
std::optional<boost::json::object> object_of(std::string_view text, boost::json::storage_ptr memory = {});

std::string_view text_of(const boost::json::object &from, std::string_view name); // empty, if it is no text

// 0 for what is no number, or below 0.
uint64_t number_of(const boost::json::value *value);
uint64_t number_of(const boost::json::object &from, std::string_view name);

// Takes one member of a document or of a change over. What a filter does not look at is passed over.
void set_fact(facts *of, std::string_view name, const boost::json::value &value);

// Lists and events are lines. No site sends line ends in a document, but JSON allows them.
bool has_control(std::string_view text);

} // namespace fxm::fleet
