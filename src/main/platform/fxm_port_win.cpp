// From an interface index to an open capture, and the link state of a port. Opens on the caller's thread of
// fxm_init_manager; the link watcher reads the state.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"
#include "platform/fxm_platform.h"
#include "wire/fxm_port.h"

// No check reads past the 496 bytes of the longest frame. The length on the wire comes with each frame.
constexpr int FXM_SNAP_LENGTH = 1024;
constexpr int FXM_READ_TIMEOUT = 1000;

// The capture ring. In immediate mode each frame takes a slot of the snap length's size, so libpcap's default of 2 MiB
// holds 1,900 frames, which is 4 ms of a port at full speed. 64 MiB hold 60,000 frames: one announcement from each card
// of a fabric of that size, all at once. The ring is kernel memory, 64 MiB for each open port.
constexpr int FXM_CAPTURE_RING = 64 * 1024 * 1024;

// The adapter list, in one counted buffer.
struct adapter_list_t {
    adapter_list_t() = default;
    ~adapter_list_t() { _fxm_mem_free(FXM_MEM_ADDRS, first); }
    adapter_list_t(const adapter_list_t &) = delete;
    adapter_list_t &operator=(const adapter_list_t &) = delete;
    fxm_adapter_t *first = nullptr;
};

// Asks for the size, then fetches the list; tries once more when the list has grown in between. 0, ENOMEM or EPROTO.
static int _get_adapter_list(const char *func, adapter_list_t *list)
{
    uint32_t size = 0;
    uint32_t err = _fxm_get_adapters(nullptr, &size);
    if (err != FXM_ADAPTER_OVERFLOW) {
        fxm_log_error("%s: ERROR_BUFFER_OVERFLOW was not returned to GetAdaptersAddresses(). err=%lu", func,
                      static_cast<unsigned long>(err));
        return EPROTO;
    }
    for (int attempt = 0; attempt < 2; ++attempt) {
        list->first = static_cast<fxm_adapter_t *>(_fxm_mem_alloc(FXM_MEM_ADDRS, size));
        if (list->first == nullptr) {
            fxm_log_error("%s: Failed to malloc()", func);
            return ENOMEM;
        }
        err = _fxm_get_adapters(list->first, &size);
        if (err == 0)
            return 0;
        _fxm_mem_free(FXM_MEM_ADDRS, list->first);
        list->first = nullptr;
        if (err != FXM_ADAPTER_OVERFLOW)
            break;
    }
    fxm_log_error("%s: Failed to GetAdaptersAddresses() err=%lu", func, static_cast<unsigned long>(err));
    return EPROTO;
}

static int _log_end(const char *func, int err)
{
    if (err == 0)
        fxm_log_trace("%s: end. ret=%d", func, err);
    else
        fxm_log_error("%s: end. ret=%d", func, err);
    return err;
}

// The adapter on which a port can be opened, or null.
static const fxm_adapter_t *_find_usable(const char *func, const fxm_adapter_t *list, uint32_t if_index)
{
    for (const fxm_adapter_t *adapter = list; adapter != nullptr; adapter = adapter->Next) {
        if (adapter->IfIndex != if_index)
            continue;
        if (adapter->IfType == FXM_IF_TYPE_LOOPBACK)
            fxm_log_warn("%s: Interface is loopback. if_index=%u", func, if_index);
        else if (adapter->PhysicalAddressLength == 0)
            fxm_log_warn("%s: PhysicalAddressLength is 0. if_index=%u", func, if_index);
        else
            return adapter;
    }
    return nullptr;
}

// Opens `device` so that every frame is delivered at once; pcap_open_live would hold frames back for up to its
// time-out.
static pcap_t *_open_capture(const char *device, char *errbuf)
{
    pcap_t *handle = pcap_create(device, errbuf);
    if (handle == nullptr)
        return nullptr;
    // These cannot fail before the activation.
    pcap_set_snaplen(handle, FXM_SNAP_LENGTH);
    pcap_set_promisc(handle, 1);
    pcap_set_timeout(handle, FXM_READ_TIMEOUT);
    pcap_set_immediate_mode(handle, 1);
    pcap_set_buffer_size(handle, FXM_CAPTURE_RING);
    const int status = pcap_activate(handle); // above 0: open, with a warning
    if (status >= 0) {
        _fxm_capture_close_on_exec(handle);
        return handle;
    }
    const char *reason = pcap_geterr(handle);
    snprintf(errbuf, PCAP_ERRBUF_SIZE, "%s", reason[0] != '\0' ? reason : pcap_statustostr(status));
    pcap_close(handle);
    return nullptr;
}

// The device with exactly that name, else the first whose name contains it. So a name with a prefix is found, and eth1
// is not taken for eth10.
static const pcap_if_t *_find_device(const pcap_if_t *devices, const char *adapter_name)
{
    for (const pcap_if_t *device = devices; device != nullptr; device = device->next) {
        if (strcmp(device->name, adapter_name) == 0)
            return device;
    }
    for (const pcap_if_t *device = devices; device != nullptr; device = device->next) {
        if (strstr(device->name, adapter_name) != nullptr)
            return device;
    }
    return nullptr;
}

int get_pcap(const char *adapter_name, pcap_t **handle)
{
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_if_t *devices = nullptr;
    if (pcap_findalldevs(&devices, errbuf) != 0) {
        fxm_log_error("%s: Failed to pcap_findalldevs(). %s", __func__, errbuf);
        return EPROTO;
    }
    int err = ENOENT;
    const pcap_if_t *device = _find_device(devices, adapter_name);
    if (device != nullptr) {
        if (device->description != nullptr)
            fxm_log_info("%s: Setting device name=%s (%s)", __func__, device->name, device->description);
        else
            fxm_log_info("%s: Setting device name=%s", __func__, device->name);
        pcap_t *opened = _open_capture(device->name, errbuf);
        if (opened == nullptr) {
            fxm_log_error("%s: Failed to pcap_open_live(). %s", __func__, errbuf);
            err = EPROTO;
        } else {
            *handle = opened;
            err = 0;
        }
    }
    pcap_freealldevs(devices);
    return err;
}

// Fills `port` from the adapter of that index.
static int _open_adapter(const char *func, uint32_t if_index, fxm_port_t *port)
{
    adapter_list_t list;
    int err = _get_adapter_list(func, &list);
    if (err != 0)
        return err;
    const fxm_adapter_t *adapter = _find_usable(func, list.first, if_index);
    if (adapter == nullptr)
        return ENOENT;
    uint64_t mac = 0;
    for (uint32_t i = 0; i < adapter->PhysicalAddressLength; ++i)
        mac = (mac << 8) + adapter->PhysicalAddress[i];

    err = get_pcap(adapter->AdapterName, &port->pt_pcap);
    if (err != 0) {
        fxm_log_error("%s: Failed to get_pcap(). err=%d", func, err);
        return EPROTO;
    }
    port->pt_if_index = adapter->IfIndex;
    port->pt_link = adapter->OperStatus == FXM_IF_OPER_UP ? 1 : 0;
    port->pt_mac = mac;
    fxm_log_info("%s: Success. IF name=%s, IF index=%u, IF status=%u, IF MAC=%.12llx", func, adapter->AdapterName,
                 port->pt_if_index, port->pt_link.load(), _ull(mac));
    return 0;
}

int _fxm_socket_open_win(uint32_t if_index, fxm_port_t *port)
{
    fxm_log_trace("%s: start. if_index=%u", __func__, if_index);
    return _log_end(__func__, _open_adapter(__func__, if_index, port));
}

static int _get_linkstate(const char *func, uint32_t port, uint32_t *state)
{
    adapter_list_t list;
    const int err = _get_adapter_list(func, &list);
    if (err != 0)
        return err;
    const fxm_adapter_t *adapter = list.first;
    while (adapter != nullptr && adapter->IfIndex != fxm_ports[port].pt_if_index)
        adapter = adapter->Next;
    if (adapter == nullptr)
        return ENOENT;
    *state = adapter->OperStatus == FXM_IF_OPER_UP ? 1 : 0;
    fxm_log_trace("%s: Success. port=%u, IF_status=%u", func, port, *state);
    return 0;
}

int _fxm_get_linkstate_win(uint32_t port, uint32_t *state)
{
    fxm_log_trace("%s: start. port=%u", __func__, port);
    return _log_end(__func__, _get_linkstate(__func__, port, state));
}
