#include "bare_log.h"

#include <log4cxx/fileappender.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/patternlayout.h>

static log4cxx::LoggerPtr logger()
{
    static const log4cxx::LoggerPtr bare = log4cxx::Logger::getLogger("bare");
    return bare;
}

void open_bare_log(const std::filesystem::path &file, const std::string &pattern)
{
    const auto layout = std::make_shared<log4cxx::PatternLayout>(pattern);
    logger()->setAdditivity(false);
    logger()->addAppender(std::make_shared<log4cxx::FileAppender>(layout, file.string(), true));
}

void write_bare_log(const std::string &text) { logger()->forcedLog(log4cxx::Level::getInfo(), text, LOG4CXX_LOCATION); }

void close_bare_log() { logger()->removeAllAppenders(); }
