#include "daemon/library_files.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cerrno>
#include <fstream>
#include <system_error>

#include "daemon/config.h"

namespace fxm
{

namespace fs = std::filesystem;

static void write_file(const fs::path &path, const std::string &text)
{
    errno = 0;
    std::ofstream file(path, std::ios::trunc);
    file << text;
    file.close();
    if (file.fail())
        throw std::system_error(errno, std::generic_category(), fmt::format("cannot write {}", path.string()));
}

std::string report_file(const config &settings) { return settings.run_dir + "/library/status.log"; }

void write_library_files(const config &settings, const fs::path &dir)
{
    std::string text = "# Written by fxmd at each start; change the configuration of fxmd instead.\n";
    text += fmt::format("ether_port = {}\n", fmt::join(settings.ports, " "));
    for (const auto &[name, value] : settings.library)
        text += fmt::format("{} = {}\n", name, value);
    fs::create_directories(dir / "conf");
    write_file(dir / "conf/fxm.conf", text);

    std::string properties = "# Written by fxmd at each start.\nlog4j.rootLogger=OFF\n";
    for (const char *logger : {"logfile", "syslogfile"})
        properties += fmt::format("log4j.logger.{}=WARN, ERR\nlog4j.additivity.{}=false\n", logger, logger);
    properties += "log4j.appender.ERR=org.apache.log4j.ConsoleAppender\nlog4j.appender.ERR.Target=System.err\n"
                  "log4j.appender.ERR.layout=org.apache.log4j.PatternLayout\n"
                  "log4j.appender.ERR.layout.ConversionPattern=libfxm %p %m%n\n";
    // Off until somebody asks for a report: one of 65,536 cards at each start and stop is of no use.
    properties += fmt::format("log4j.logger.statslogfile=OFF, STATS\nlog4j.additivity.statslogfile=false\n"
                              "log4j.appender.STATS=org.apache.log4j.FileAppender\nlog4j.appender.STATS.File={}\n"
                              "log4j.appender.STATS.layout=org.apache.log4j.PatternLayout\n"
                              "log4j.appender.STATS.layout.ConversionPattern=%m%n\n",
                              report_file(settings));
    write_file(dir / "conf/fxm_log4c_win.properties", properties);
}

} // namespace fxm
