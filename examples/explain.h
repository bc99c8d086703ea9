/* Explains a failed start. fxm_init_manager returns one result for many causes, so this module looks at the
 * installation directory and at the network interfaces itself. Runs on the main thread. */
#ifndef EXPLAIN_H
#define EXPLAIN_H

/* Prints on stderr why fxm_init_manager returned `result` for the installation directory `dir`, and what to do. */
void explain_start(const char *dir, int result);

/* Warns on stderr about each configured port that the running manager had to leave out. One port is enough to run. */
void explain_ports(const char *dir);

#endif /* EXPLAIN_H */
