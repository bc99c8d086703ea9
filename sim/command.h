// The commands of standard input and of scenarios. Each is done when it is answered.
#ifndef SIM_COMMAND_H
#define SIM_COMMAND_H

#include <string_view>

#include "card.h"

// No line of commands is longer.
constexpr size_t COMMAND_MAX = 65536;

// Carries out one command and gives its answer, one line without its end: "ok", "ok ..." or "error: ...".
std::string command_run(std::string_view line);

// Carries out all commands of a file. On failure `why` names the line.
bool command_scenario(const char *path, std::string &why);

// Set once `quit` has been asked for.
extern bool command_quit;

#endif
