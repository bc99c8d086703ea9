// The fields of a card that commands set: FIELD=VALUE.
#ifndef SIM_FIELDS_H
#define SIM_FIELDS_H

#include <string_view>

#include "card.h"

// Sets one field of the card. On failure the card is unchanged and `why` has the reason.
bool field_set(card_t &card, std::string_view assignment, std::string &why);

#endif
