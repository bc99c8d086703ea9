// What every operation on a card may say: the retries of its frames, and whether to look for a living channel first.
#pragma once

#include <cstdint>
#include <optional>

#include "fxm.h"

namespace fxm
{

struct operation {
    std::optional<fxm_retry_param_t> retry; // absent: as configured
    uint32_t flags = 0;                     // FXM_FLAG_LIVECHECK, and what the operation adds

    const fxm_retry_param_t *param() const { return retry ? &*retry : nullptr; }
};

} // namespace fxm
