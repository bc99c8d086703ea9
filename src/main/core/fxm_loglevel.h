// Setting the filter of the log.
#ifndef FXM_LOGLEVEL_H
#define FXM_LOGLEVEL_H

#include "fxm_log4cxxif.h"

bool _fxm_loglevel_valid(int32_t level);
void _fxm_set_loglevel(fxm_log_level_t level); // -1 stands for the configured level

#endif
