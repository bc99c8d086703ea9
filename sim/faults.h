// The requested faults, which affect single frames.
#ifndef SIM_FAULTS_H
#define SIM_FAULTS_H

#include "card.h"

enum access_t { ACCESS_READ, ACCESS_WRITE, ACCESS_VLAN };

// The first fault that applies to this frame, or null. Counts the frame as a case of every fault that it checks.
const fault_t *fault_next(card_t &card, access_t access, u32 address);

#endif
