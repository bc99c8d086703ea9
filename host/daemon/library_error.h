// What a result of the library means for somebody who has asked for an operation on a card.
#pragma once

#include <cstdint>
#include <string>

#include "common/error.h"

namespace fxm
{

const char *result_name(int result); // "FXM_API_ETIMEDOUT"

// `what` says what failed, such as "cannot read register 0x1000".
api_error library_error(int result, const std::string &what, uint64_t card);
[[noreturn]] void throw_result(int result, const std::string &what, uint64_t card);

} // namespace fxm
