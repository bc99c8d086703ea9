/* The public header by itself, in a program written in C: it compiles, its records have the layout that hosts and
 * bindings of other languages count on, and the library links. */
#include "fxm.h"

#include <stddef.h>

#define AT(type, field, offset) (offsetof(type, field) == (offset))

_Static_assert(sizeof(fxm_retry_param_t) == 8 && AT(fxm_retry_param_t, retry_int, 4), "fxm_retry_param_t");

#define CARD(field, offset) AT(fxm_card_data_t, fcd_##field, offset)
_Static_assert(sizeof(fxm_card_data_t) == 104 && CARD(id, 0) && CARD(recvtime, 8) && CARD(updatetime, 40) &&
                   CARD(state, 48) && CARD(uidsw, 64) && CARD(power, 68) && CARD(port0_link, 72) &&
                   CARD(port1_link, 76) && CARD(vlan_id, 80) && CARD(macaddr, 82) && CARD(swstatus, 88) &&
                   CARD(vlan_mode, 91) && CARD(flowid, 92) && CARD(type, 93) && CARD(linkstatus, 94) &&
                   CARD(int_vector, 95) && CARD(ver, 96),
               "fxm_card_data_t");

#define PCI(field, offset) AT(fxm_pci_config_t, fcp_##field, offset)
_Static_assert(sizeof(fxm_pci_config_t) == 20 && PCI(pre_limit_upper, 4) && PCI(memory_base, 8) &&
                   PCI(memory_limit, 10) && PCI(pre_memory_base, 12) && PCI(pre_memory_limit, 14) &&
                   PCI(pri_bus_num, 16) && PCI(command, 19),
               "fxm_pci_config_t");

_Static_assert(sizeof(fxm_down_port_t) == 28 && AT(fxm_down_port_t, fdp_port_status, 20) &&
                   AT(fxm_down_port_t, fdp_io_mac, 22),
               "fxm_down_port_t");

_Static_assert(sizeof(fxm_fxsv_t) == 576 && AT(fxm_fxsv_t, fsv_up_port, 104) && AT(fxm_fxsv_t, fsv_down_port, 124),
               "fxm_fxsv_t");

#define FXIO(field, offset) AT(fxm_fxio_t, fio_##field, offset)
_Static_assert(sizeof(fxm_fxio_t) == 128 && FXIO(class_code, 104) && FXIO(device_id, 108) && FXIO(vendor_id, 110) &&
                   FXIO(mr_resource_num, 112) && FXIO(sermacaddr, 114) && FXIO(substate, 120) &&
                   FXIO(link0fault, 122) && FXIO(link1fault, 123) && FXIO(pcie_presence, 124),
               "fxm_fxio_t");

int main(void)
{
    /* Twice, like a host that waits for the library to come up. Whatever is printed fails the test. */
    return fxm_free_idlist(NULL) != FXM_API_SUCCESS || fxm_start_manager() != FXM_API_ENOSYS ||
           fxm_start_manager() != FXM_API_ENOSYS;
}
