// The files that the library reads when it starts, made from the configuration of fxmd.
#pragma once

#include <filesystem>
#include <string>

namespace fxm
{

struct config;

// Where the library writes the report of its state, when it is asked to.
std::string report_file(const config &settings);

// Writes conf/fxm.conf and the log properties of the library below `dir`. Throws std::runtime_error.
void write_library_files(const config &settings, const std::filesystem::path &dir);

} // namespace fxm
