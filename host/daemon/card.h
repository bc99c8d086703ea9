// A card as fxmd keeps it: a copy of the library's record, and what documents and events say of it. Plain functions; the
// model owns the cards.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "common/facts.h"
#include "fxm.h"

namespace fxm
{

// An FXSV record is four times as large as an FXIO record, so it is not stored in place.
using record = std::variant<fxm_fxio_t, std::unique_ptr<fxm_fxsv_t>>;

struct card {
    uint64_t id = 0;
    record data;
    bool monitored = true;
    bool gone = false; // the library stopped by itself, and the card has not announced itself since
};

// The record that the library holds now: the FXSV record if both tables have the id. Empty if none has.
std::optional<record> read_record(uint64_t id);

record copy(const record &data);
const fxm_card_data_t &common(const record &data);
const fxm_fxsv_t *fxsv(const record &data); // null for an FXIO card
const fxm_fxio_t *fxio(const record &data); // null for an FXSV card

facts facts_of(const card &card);
health health_of(const card &card);
int64_t seen_ms(const record &data); // time of the last frame on any channel; 0 never

// Takes all channels down, as the end of the library does.
void take_channels_down(record *data);

// ---------------------------------------------------------------------------------------------------------- documents

// The members of a CARD document that a list shows, by their place in the document. `id` is always shown.
class member_set
{
  public:
    static member_set all();
    static member_set parse(std::string_view names); // with commas between; throws api_error for an unknown one
    std::vector<std::string_view> names() const;     // without "id"

  private:
    friend void write_card(std::string *out, const card &card, const member_set &members);
    friend void write_names(std::string *out, const member_set &members);
    friend void write_row(std::string *out, const card &card, const member_set &members);
    std::vector<size_t> members_;
};

// Appends `"id":"...",...`, without braces.
void write_card(std::string *out, const card &card, const member_set &members);

// The same as a row: the names once, and the values of each card in their order, as arrays.
void write_names(std::string *out, const member_set &members);
void write_row(std::string *out, const card &card, const member_set &members);

// Appends the members of the full document that write_card does not have, with a comma in front.
void write_details(std::string *out, const card &card);

// A card that has announced nothing: of the smaller generation, all else 0.
card blank_card(card_class kind);

// The full document in brief: without the members that have the value of a blank card of its class. `id`, `class` and
// `health` always stand there.
void write_brief(std::string *out, const card &card);

// Appends what differs between two records of one card, as `"vlan":[100,300],...`.
void write_changes(std::string *out, const card &before, const card &after);

} // namespace fxm
