/* The public header by itself, in a program written in C: it compiles, its records have the layout that hosts and
 * bindings of other languages count on, and the library links. */
#include "fxm.h"

#include <stddef.h>
#include <stdio.h>

#define AT(type, field, offset) _Static_assert(offsetof(type, field) == (offset), #field)

_Static_assert(sizeof(fxm_retry_param_t) == 8, "fxm_retry_param_t");
_Static_assert(sizeof(fxm_card_data_t) == 104, "fxm_card_data_t");
_Static_assert(sizeof(fxm_pci_config_t) == 20, "fxm_pci_config_t");
_Static_assert(sizeof(fxm_down_port_t) == 28, "fxm_down_port_t");
_Static_assert(sizeof(fxm_fxsv_t) == 576, "fxm_fxsv_t");
_Static_assert(sizeof(fxm_fxio_t) == 128, "fxm_fxio_t");

AT(fxm_retry_param_t, retry_int, 4);

AT(fxm_card_data_t, fcd_id, 0);
AT(fxm_card_data_t, fcd_recvtime, 8);
AT(fxm_card_data_t, fcd_updatetime, 40);
AT(fxm_card_data_t, fcd_state, 48);
AT(fxm_card_data_t, fcd_uidsw, 64);
AT(fxm_card_data_t, fcd_power, 68);
AT(fxm_card_data_t, fcd_port0_link, 72);
AT(fxm_card_data_t, fcd_port1_link, 76);
AT(fxm_card_data_t, fcd_vlan_id, 80);
AT(fxm_card_data_t, fcd_macaddr, 82);
AT(fxm_card_data_t, fcd_swstatus, 88);
AT(fxm_card_data_t, fcd_vlan_mode, 91);
AT(fxm_card_data_t, fcd_flowid, 92);
AT(fxm_card_data_t, fcd_type, 93);
AT(fxm_card_data_t, fcd_linkstatus, 94);
AT(fxm_card_data_t, fcd_int_vector, 95);
AT(fxm_card_data_t, fcd_ver, 96);

AT(fxm_pci_config_t, fcp_pre_limit_upper, 4);
AT(fxm_pci_config_t, fcp_memory_base, 8);
AT(fxm_pci_config_t, fcp_memory_limit, 10);
AT(fxm_pci_config_t, fcp_pre_memory_base, 12);
AT(fxm_pci_config_t, fcp_pre_memory_limit, 14);
AT(fxm_pci_config_t, fcp_pri_bus_num, 16);
AT(fxm_pci_config_t, fcp_command, 19);

AT(fxm_down_port_t, fdp_port_status, 20);
AT(fxm_down_port_t, fdp_io_mac, 22);

AT(fxm_fxsv_t, fsv_up_port, 104);
AT(fxm_fxsv_t, fsv_down_port, 124);

AT(fxm_fxio_t, fio_class_code, 104);
AT(fxm_fxio_t, fio_device_id, 108);
AT(fxm_fxio_t, fio_vendor_id, 110);
AT(fxm_fxio_t, fio_mr_resource_num, 112);
AT(fxm_fxio_t, fio_sermacaddr, 114);
AT(fxm_fxio_t, fio_substate, 120);
AT(fxm_fxio_t, fio_link0fault, 122);
AT(fxm_fxio_t, fio_link1fault, 123);
AT(fxm_fxio_t, fio_pcie_presence, 124);

int main(void)
{
    const int freed = fxm_free_idlist(NULL);
    const int started = fxm_start_manager();
    const int again = fxm_start_manager(); /* as a host does that waits for the library to come up */
    if (freed == FXM_API_SUCCESS && started == FXM_API_ENOSYS && again == FXM_API_ENOSYS)
        return 0;
    fprintf(stderr, "%d %d %d\n", freed, started, again);
    return 1;
}
