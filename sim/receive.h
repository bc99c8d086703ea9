// What a card does with the frames that reach it.
#ifndef SIM_RECEIVE_H
#define SIM_RECEIVE_H

#include "card.h"

// Takes a frame from the wire and has the card that it is addressed to, if any, act on it and answer.
void receive_frame(unsigned port, const u8 *frame, size_t size);

#endif
