// What a card is told to do wrong with single frames.
#ifndef SIM_FAULTS_H
#define SIM_FAULTS_H

#include "card.h"

enum access_t { ACCESS_READ, ACCESS_WRITE, ACCESS_VLAN };

// The first fault that applies to this frame, or null. Every call is a case of the faults that it looks at.
const fault_t *fault_next(card_t &card, access_t access, u32 address);

#endif
