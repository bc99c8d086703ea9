/* The claim on the ports of the management network. Two managers on one port give each other wrong register values, so
 * each binds the abstract Unix socket "@fxm-port-INDEX" for each of its ports, from before its start to its end. fxmd
 * does the same. The kernel frees the name with the process, and each network namespace has its own names. */
#ifndef CLAIM_H
#define CLAIM_H

#include <stdbool.h>

/* Claims the ports that DIR/conf/fxm.conf names. False, with the holder on stderr, if another process has one of them.
 * A port that does not exist is left to the library, which reports it. */
bool claim_ports(const char *dir);

/* Drops the connections of those who have asked for the holder. Call it about once a second: the kernel names the
 * holder only while its queue has room. */
void claim_drop_visitors(void);

#endif /* CLAIM_H */
