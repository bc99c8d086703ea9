// The commands of standard input and of scenarios. A command is complete when it is answered.
#ifndef SIM_COMMAND_H
#define SIM_COMMAND_H

#include <string_view>

#include "card.h"

// The longest line, in bytes.
constexpr size_t COMMAND_MAX = 65536;

// Runs one command. Returns its answer as one line without a line end: "ok", "ok ..." or "error: ...".
std::string command_run(std::string_view line);

// Runs all commands of a file. On failure `why` names the line.
bool command_scenario(const char *path, std::string &why);

// True after `quit`.
extern bool command_quit;

#endif
