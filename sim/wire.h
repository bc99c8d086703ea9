// The cards' ends of the cables: raw packet sockets. Single thread; nothing here waits.
#ifndef SIM_WIRE_H
#define SIM_WIRE_H

#include "card.h"

// Opens an interface as port 0 or 1. On failure `why` has the reason and what to do.
bool wire_open(unsigned port, const char *interface, std::string &why);
bool wire_is_open(unsigned port);
int wire_fd(unsigned port); // to poll for reading; -1 if not open

// Sends a frame. If the cable is down or gone, the frame is lost, as it would be on a real cable.
void wire_send(unsigned port, const u8 *frame, size_t size);

// Sends frames in large batches; wire_flush sends the last batch.
void wire_queue(unsigned port, const u8 *frame, size_t size);
void wire_flush();

// Hands over the received frames, with their VLAN tags in place. If frames arrive faster than they are taken, the rest
// waits for the next call.
void wire_receive(unsigned port, void (*take)(unsigned port, const u8 *frame, size_t size));

#endif
