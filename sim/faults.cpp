// Selects the fault for a frame.
#include "faults.h"

static access_t _access_of(fault_kind_t kind)
{
    switch (kind) {
    case FAULT_IGNORE_WRITE:
        return ACCESS_WRITE;
    case FAULT_IGNORE_VLAN:
        return ACCESS_VLAN;
    default:
        return ACCESS_READ;
    }
}

const fault_t *fault_next(card_t &card, access_t access, u32 address)
{
    for (fault_t &fault : card.faults) {
        if (_access_of(fault.kind) != access || (!fault.any_address && fault.address != address))
            continue;
        if (!fault.for_ever && fault.left == 0)
            continue;
        if (++fault.cases < fault.every)
            continue;
        fault.cases = 0;
        if (!fault.for_ever)
            fault.left--;
        return &fault;
    }
    return nullptr;
}
