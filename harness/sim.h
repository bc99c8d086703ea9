// A client of fxmsim: starts it, gives it commands, ends it.
#ifndef HARNESS_SIM_H
#define HARNESS_SIM_H

#include <sys/types.h>

#include <string>

class sim_t
{
  public:
    sim_t() = default;
    ~sim_t() { stop(); }
    sim_t(const sim_t &) = delete;
    sim_t &operator=(const sim_t &) = delete;

    // With these options, as on its command line, such as "--port0 card0 --period 100". Returns when it is ready.
    void start(const std::string &options);

    // One command, see sim/README.md; returns what follows "ok". An error is a failure of the harness.
    std::string command(const std::string &line);

    void stop(); // if it runs

  private:
    std::string read_line(const std::string &command);

    pid_t id = -1;
    int in = -1, out = -1;
    std::string text; // read, and not yet a line
};

#endif
