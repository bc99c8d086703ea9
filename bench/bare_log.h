// The log of a bare program: log4cxx alone, with an appender and a layout like those of the library's logs.
#ifndef BENCH_BARE_LOG_H
#define BENCH_BARE_LOG_H

#include <filesystem>
#include <string>

// Each line goes to the file at once. `pattern` is that of log4cxx. One at a time; other loggers stay as they are.
void open_bare_log(const std::filesystem::path &file, const std::string &pattern);
void write_bare_log(const std::string &text); // any thread
void close_bare_log();

#endif
