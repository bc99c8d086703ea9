// The cards' ends of the cables: raw packet sockets. Single thread; nothing here waits.
#ifndef SIM_WIRE_H
#define SIM_WIRE_H

#include "card.h"

// Takes port 0 or 1 to an interface. On failure `why` says what to do about it.
bool wire_open(unsigned port, const char *interface, std::string &why);
bool wire_is_open(unsigned port);
int wire_fd(unsigned port); // to poll for reading; -1 if not open

// A cable that is down or gone loses the frame, as it would lose it from a real card.
void wire_send(unsigned port, const u8 *frame, size_t size);

// The same for a stream of frames, which leave in large batches, the last of them at the flush.
void wire_queue(unsigned port, const u8 *frame, size_t size);
void wire_flush();

// Hands over the frames that have come in, with their VLAN tag in place. It leaves some for the next call if they come
// in faster than they are taken.
void wire_receive(unsigned port, void (*take)(unsigned port, const u8 *frame, size_t size));

#endif
