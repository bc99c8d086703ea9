// A capture file of the fabric's frames, taken beside fxmd on its ports. Nothing is sent.
#include <dlfcn.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>

#include "common/card_id.h"
#include "ctl/commands.h"
#include "fxm.h"

namespace fxm
{

namespace json = boost::json;

static uint64_t now_ns()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

// ------------------------------------------------------------------------------------------------------------ the file

// Writes pcapng: a section header, a description of each port, the frames with their port and direction, and at the end
// what each port has dropped. Every number is in the byte order of the machine, as the section header tells readers.
class capture_file
{
  public:
    enum class direction : uint32_t { inbound = 1, outbound = 2 };

    // "-" is the standard output. A file that exists is EXIT_USAGE without `force`, as for an EEPROM.
    capture_file(const std::string &path, bool force) : path_(path)
    {
        const int fd = path == "-"
                           ? dup(STDOUT_FILENO)
                           : open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (force ? O_TRUNC : O_EXCL), 0644);
        if (fd < 0 && errno == EEXIST)
            throw ctl_error(EXIT_USAGE, fmt::format("{} exists already", path), "give another name, or --force");
        if (fd < 0)
            throw ctl_error(errno == EACCES ? EXIT_DENIED : EXIT_FAILED,
                            fmt::format("cannot write {}: {}", path, strerror(errno)));
        file_.reset(fdopen(fd, "wb"));
        begin(SECTION);
        put32(0x1a2b3c4d); // shows readers the byte order
        put32(1);          // version 1.0
        put32(~0u);        // the section's length is not known yet
        put32(~0u);
        option(4, "fxmctl " FXM_VERSION);
        end_options();
        finish();
    }

    void add_port(const std::string &name, const std::string &description, int snap_length)
    {
        begin(INTERFACE);
        put16(DLT_EN10MB);
        put16(0); // reserved
        put32(static_cast<uint32_t>(snap_length));
        option(2, name);
        option(3, description);
        option(9, "\x09"); // times are in 10^-9 s
        end_options();
        finish();
    }

    void add_frame(uint32_t port, uint64_t time_ns, std::string_view bytes, uint32_t length, direction way)
    {
        begin(FRAME);
        put32(port);
        put_time(time_ns);
        put32(static_cast<uint32_t>(bytes.size()));
        put32(length);
        put_bytes(bytes.data(), bytes.size());
        const auto flags = static_cast<uint32_t>(way);
        option(2, std::string_view(reinterpret_cast<const char *>(&flags), sizeof(flags)));
        end_options();
        finish();
    }

    void add_statistics(uint32_t port, uint64_t received, uint64_t dropped)
    {
        begin(STATISTICS);
        put32(port);
        put_time(now_ns());
        option(4, std::string_view(reinterpret_cast<const char *>(&received), sizeof(received)));
        option(5, std::string_view(reinterpret_cast<const char *>(&dropped), sizeof(dropped)));
        end_options();
        finish();
    }

    // A reader of a pipe sees the frames as they come.
    void flush()
    {
        if (fflush(file_.get()) != 0)
            fail();
    }

  private:
    enum : uint32_t { SECTION = 0x0a0d0d0a, INTERFACE = 1, STATISTICS = 5, FRAME = 6 };

    [[noreturn]] void fail() const
    {
        throw ctl_error(EXIT_FAILED, fmt::format("cannot write {}: {}", path_, strerror(errno)));
    }

    void put16(size_t value)
    {
        const auto number = static_cast<uint16_t>(value);
        block_.append(reinterpret_cast<const char *>(&number), sizeof(number));
    }
    void put32(uint32_t value) { block_.append(reinterpret_cast<const char *>(&value), sizeof(value)); }
    void put_bytes(const void *bytes, size_t size)
    {
        block_.append(static_cast<const char *>(bytes), size);
        block_.append(-size % 4, '\0');
    }
    void put_time(uint64_t ns)
    {
        put32(static_cast<uint32_t>(ns >> 32));
        put32(static_cast<uint32_t>(ns));
    }
    void option(size_t code, std::string_view value)
    {
        put16(code);
        put16(value.size());
        put_bytes(value.data(), value.size());
    }
    void end_options() { put32(0); }

    // A block has its length in front and behind.
    void begin(uint32_t type)
    {
        block_.clear();
        put32(type);
        put32(0);
    }
    void finish()
    {
        const auto size = static_cast<uint32_t>(block_.size() + 4);
        memcpy(block_.data() + 4, &size, sizeof(size));
        put32(size);
        if (fwrite(block_.data(), 1, block_.size(), file_.get()) != block_.size())
            fail();
    }

    struct closer {
        void operator()(FILE *file) const { fclose(file); }
    };
    const std::string path_;
    std::unique_ptr<FILE, closer> file_;
    std::string block_;
};

// ----------------------------------------------------------------------------------------------------------- the ports

// No frame of the fabric is longer than 496 bytes.
constexpr int SNAP_LENGTH = 2048;
constexpr int RING_BYTES = 16 * 1024 * 1024;

// libpcap and what it needs take 5 ms to load, which is more than most commands run. So it is loaded here and not with
// the program; its header gives the types.
struct pcap_library {
    static void *load()
    {
        // The name of Debian, and that of everybody else.
        for (const char *name : {"libpcap.so.0.8", "libpcap.so.1"}) {
            if (void *loaded = dlopen(name, RTLD_NOW))
                return loaded;
        }
        throw ctl_error(EXIT_FAILED, fmt::format("cannot load libpcap: {}", dlerror()), "install libpcap0.8");
    }

    template <typename Function> Function *find(const char *name) const
    {
        void *found = dlsym(loaded, name);
        if (found == nullptr)
            throw ctl_error(EXIT_FAILED, fmt::format("libpcap has no {}", name));
        return reinterpret_cast<Function *>(found);
    }

    void *const loaded = load(); // and never unloaded; the functions follow
#define FXM_PCAP(name) decltype(pcap_##name) *const name = find<decltype(pcap_##name)>("pcap_" #name)
    FXM_PCAP(activate);
    FXM_PCAP(close);
    FXM_PCAP(compile);
    FXM_PCAP(create);
    FXM_PCAP(datalink);
    FXM_PCAP(dispatch);
    FXM_PCAP(freecode);
    FXM_PCAP(get_selectable_fd);
    FXM_PCAP(geterr);
    FXM_PCAP(set_buffer_size);
    FXM_PCAP(set_immediate_mode);
    FXM_PCAP(set_promisc);
    FXM_PCAP(set_snaplen);
    FXM_PCAP(set_tstamp_precision);
    FXM_PCAP(setfilter);
    FXM_PCAP(setnonblock);
    FXM_PCAP(stats);
#undef FXM_PCAP
};

static const pcap_library &libpcap()
{
    static const pcap_library library;
    return library;
}

struct handle_closer {
    void operator()(pcap_t *handle) const { libpcap().close(handle); }
};

struct open_port {
    std::string name;
    int64_t number;
    uint64_t mac; // 0: not known
    std::unique_ptr<pcap_t, handle_closer> handle;
    uint32_t index = 0; // in the file
};

static std::unique_ptr<pcap_t, handle_closer> open_handle(const std::string &name, uint16_t ether_type)
{
    std::array<char, PCAP_ERRBUF_SIZE> why{};
    std::unique_ptr<pcap_t, handle_closer> handle(libpcap().create(name.c_str(), why.data()));
    if (handle == nullptr)
        throw ctl_error(EXIT_FAILED, fmt::format("cannot capture on {}: {}", name, why.data()));
    // As fxmd does it: cards send to more addresses than those of the port. Immediate mode leaves no frame behind in a
    // block of the kernel when the capture ends.
    libpcap().set_snaplen(handle.get(), SNAP_LENGTH);
    libpcap().set_promisc(handle.get(), 1);
    libpcap().set_immediate_mode(handle.get(), 1);
    libpcap().set_buffer_size(handle.get(), RING_BYTES);
    libpcap().set_tstamp_precision(handle.get(), PCAP_TSTAMP_PRECISION_NANO);
    const int status = libpcap().activate(handle.get());
    if (status == PCAP_ERROR_PERM_DENIED || status == PCAP_ERROR_PROMISC_PERM_DENIED)
        throw ctl_error(EXIT_DENIED, fmt::format("no permission to capture on {}: that takes CAP_NET_RAW", name),
                        "run fxmctl capture with sudo");
    if (status == PCAP_ERROR_NO_SUCH_DEVICE)
        throw ctl_error(EXIT_FAILED, fmt::format("there is no interface {} here", name),
                        "run fxmctl capture in the network namespace of fxmd");
    if (status < 0)
        throw ctl_error(EXIT_FAILED, fmt::format("cannot capture on {}: {}", name, libpcap().geterr(handle.get())));
    if (libpcap().datalink(handle.get()) != DLT_EN10MB)
        throw ctl_error(EXIT_FAILED, fmt::format("{} is no Ethernet interface", name));
    // Behind a VLAN tag, or in front of it. The kernel takes the tag in front out of a frame that it receives before this
    // filter sees it, and libpcap puts it back behind the filter.
    const std::string wanted =
        fmt::format("ether[12:2] = {0} or (ether[12:2] = 0x8100 and ether[16:2] = {0})", ether_type);
    bpf_program program{};
    const bool is_set = libpcap().compile(handle.get(), &program, wanted.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0 &&
                        libpcap().setfilter(handle.get(), &program) == 0;
    libpcap().freecode(&program);
    if (!is_set || libpcap().setnonblock(handle.get(), 1, why.data()) != 0)
        throw ctl_error(EXIT_FAILED, fmt::format("cannot filter on {}: {}", name, libpcap().geterr(handle.get())));
    return handle;
}

// Those that cannot be opened are named on stderr; none at all, or no permission, is a failure.
static std::vector<open_port> open_ports(const json::object &document)
{
    const auto ether_type = static_cast<uint16_t>(number(document, "ether_type"));
    std::vector<open_port> ports;
    for (const json::value &entry : array(document, "ports")) {
        const json::object &port = entry.as_object();
        try {
            ports.push_back({text(port, "name"), number(port, "port"), parse_id(text(port, "mac")).value_or(0),
                             open_handle(text(port, "name"), ether_type)});
            ports.back().index = static_cast<uint32_t>(ports.size() - 1);
        } catch (const ctl_error &failure) {
            if (failure.exit == EXIT_DENIED || (ports.empty() && &entry == &array(document, "ports").back()))
                throw;
            fmt::print(stderr, "fxmctl: {}; going on without it\n", failure.what());
        }
    }
    return ports;
}

// --------------------------------------------------------------------------------------------------------- the capture

struct capture_options {
    std::string card, file;
    int seconds = 0; // 0: no limit
    uint64_t count = 0;
    bool force = false;
};

constexpr size_t SOURCE = 6;
constexpr size_t SUBTYPE = 18;
constexpr u_char RESET = 0x30;

static uint64_t mac_at(const u_char *bytes)
{
    uint64_t mac = 0;
    for (size_t i = 0; i < 6; ++i)
        mac = mac << 8 | bytes[i];
    return mac;
}

// A frame that is not in the file yet.
struct held_frame {
    uint64_t time_ns;
    uint32_t port;
    uint32_t length; // on the wire
    std::string bytes;
    capture_file::direction way;
};

// The frames of both ports, in the order of their times.
class capture
{
  public:
    capture(std::vector<open_port> ports, capture_file *file, const capture_options &how, uint64_t card, bool two_macs)
        : ports_(std::move(ports)), file_(file), how_(how), card_(card), ignored_bits_(two_macs ? 1 : 0)
    {
        for (const open_port &port : ports_)
            file_->add_port(port.name, fmt::format("port {} of fxmd", port.number), SNAP_LENGTH);
        file_->flush();
    }

    void run()
    {
        const bool terminal = isatty(STDERR_FILENO) != 0;
        using namespace std::chrono;
        const auto began = steady_clock::now();
        int64_t shown_ms = 0;
        while (!interrupted() && !is_full() && std::any_of(ports_.begin(), ports_.end(), is_open)) {
            const int64_t passed_ms = duration_cast<milliseconds>(steady_clock::now() - began).count();
            if (how_.seconds != 0 && passed_ms >= how_.seconds * int64_t{1000})
                break;
            if (terminal && passed_ms - shown_ms >= 200) {
                fmt::print(stderr, "\r\x1b[K{} frames, {}", with_commas(frames_), format_duration(passed_ms));
                shown_ms = passed_ms;
            }
            wait();
            take();
        }
        // What came until now may still be in the rings. If the clock was set back, frames are held that seem to come
        // later.
        for (const uint64_t end = now_ns(); !is_full() && take() < end;)
            ;
        write(UINT64_MAX);
        if (terminal)
            fmt::print(stderr, "\r\x1b[K");
        for (const open_port &port : ports_) {
            pcap_stat seen{};
            if (!is_open(port) || libpcap().stats(port.handle.get(), &seen) != 0)
                continue;
            dropped_ += seen.ps_drop;
            file_->add_statistics(port.index, seen.ps_recv, seen.ps_drop);
        }
        file_->flush();
        if (!failure_.empty() && std::none_of(ports_.begin(), ports_.end(), is_open))
            throw ctl_error(EXIT_FAILED, failure_, "the file is complete up to there");
    }

    uint64_t frames() const { return frames_; }
    uint64_t dropped() const { return dropped_; }

  private:
    static bool is_open(const open_port &port) { return port.handle != nullptr; }
    bool is_full() const { return how_.count != 0 && frames_ == how_.count; }

    void wait() const
    {
        std::vector<pollfd> ready;
        for (const open_port &port : ports_) {
            if (is_open(port))
                ready.push_back({libpcap().get_selectable_fd(port.handle.get()), POLLIN, 0});
        }
        // A signal ends it, or this time: the next look at the clock, or at the frames that are held.
        poll(ready.data(), ready.size(), held_.empty() ? 100 : 2);
    }

    // Takes what is in the rings and writes what is certain to come first: a frame of one port may be in its ring when
    // older ones of the other port are not. Returns the time up to which all frames have been written.
    uint64_t take()
    {
        constexpr int AT_ONCE = 1000;
        constexpr uint64_t ON_THE_WAY_NS = 1000000; // between its time and its place in the ring
        uint64_t until = now_ns() - ON_THE_WAY_NS;
        for (open_port &port : ports_) {
            if (!is_open(port))
                continue;
            seen_ = &port;
            const int taken = libpcap().dispatch(
                port.handle.get(), AT_ONCE,
                [](u_char *to, const pcap_pkthdr *head, const u_char *bytes) {
                    reinterpret_cast<capture *>(to)->see(*head, bytes);
                },
                reinterpret_cast<u_char *>(this));
            if (taken == AT_ONCE)
                until = std::min(until, last_ns_);
            if (taken < 0) {
                failure_ =
                    fmt::format("the capture on {} has ended: {}", port.name, libpcap().geterr(port.handle.get()));
                port.handle.reset();
                if (std::any_of(ports_.begin(), ports_.end(), is_open))
                    fmt::print(stderr, "fxmctl: {}; going on without it\n", failure_);
            }
        }
        write(until);
        return until;
    }

    void write(uint64_t until)
    {
        std::stable_sort(held_.begin(), held_.end(),
                         [](const held_frame &a, const held_frame &b) { return a.time_ns < b.time_ns; });
        auto next = held_.begin();
        for (; next != held_.end() && next->time_ns <= until && !is_full(); ++next) {
            file_->add_frame(next->port, next->time_ns, next->bytes, next->length, next->way);
            ++frames_;
        }
        held_.erase(held_.begin(), next);
        file_->flush();
    }

    void see(const pcap_pkthdr &head, const u_char *bytes)
    {
        // With the precision that was asked for, the microseconds are nanoseconds.
        last_ns_ = static_cast<uint64_t>(head.ts.tv_sec) * 1000000000 + static_cast<uint64_t>(head.ts.tv_usec);
        if (head.caplen <= SUBTYPE || !concerns(bytes))
            return;
        const bool is_ours = mac_at(bytes + SOURCE) == seen_->mac;
        held_.push_back({last_ns_, seen_->index, head.len,
                         std::string(reinterpret_cast<const char *>(bytes), head.caplen),
                         is_ours ? capture_file::direction::outbound : capture_file::direction::inbound});
    }

    // A Reset goes to a group and not to a card, so it may be for any of them.
    bool concerns(const u_char *bytes) const
    {
        return card_ == 0 || (mac_at(bytes) & ~ignored_bits_) == card_ ||
               (mac_at(bytes + SOURCE) & ~ignored_bits_) == card_ || bytes[SUBTYPE] == RESET;
    }

    std::vector<open_port> ports_;
    capture_file *file_;
    const capture_options &how_;
    const uint64_t card_; // 0: all
    const uint64_t ignored_bits_;
    std::vector<held_frame> held_;
    const open_port *seen_ = nullptr; // whose frames are being taken
    uint64_t last_ns_ = 0;            // the time of the last of them
    uint64_t frames_ = 0;
    uint64_t dropped_ = 0;
    std::string failure_;
};

static int run_capture(session *all, const capture_options &how)
{
    const bool to_stdout = how.file == "-";
    if (to_stdout && isatty(STDOUT_FILENO) != 0)
        throw ctl_error(EXIT_USAGE, "a capture is not for a terminal", "write -w FILE, or a pipe behind -w -");
    if (all->where.is_room)
        throw ctl_error(EXIT_USAGE, "a capture is made at the ports of this machine", "run it at the site");
    uint64_t card = 0;
    bool two_macs = false;
    if (!how.card.empty()) {
        const json::object found = all->api().get(card_path(how.card));
        card = parse_id(text(found, "id")).value_or(0);
        two_macs = text(found, "generation") == "40G";
    }
    std::vector<open_port> ports = open_ports(all->api().get("/v1/ports"));
    catch_interrupt(true);
    capture_file file(how.file, how.force);
    capture running(std::move(ports), &file, how, card, two_macs);
    running.run();
    const std::string words =
        fmt::format("{} frames{}", with_commas(running.frames()),
                    running.dropped() != 0 ? fmt::format(", {} more dropped", with_commas(running.dropped())) : "");
    if (to_stdout)
        fmt::print(stderr, "fxmctl: {}\n", words);
    else if (all->how.json)
        put(json::serialize(json::object{{"schema", "fxm/1"},
                                         {"file", how.file},
                                         {"frames", running.frames()},
                                         {"dropped", running.dropped()}}) +
            "\n");
    else
        put(fmt::format("{} in {}\n", words, how.file));
    return EXIT_DONE;
}

void add_capture_command(CLI::App *app, session *all)
{
    auto given = std::make_shared<capture_options>();
    auto *command = app->add_subcommand("capture", "writes the frames of one card or of all to a file for Wireshark");
    command->add_option("card", given->card, "its id (default: all cards)");
    command->add_option("-w,--write", given->file, "the file, in the format pcapng; - is the standard output")
        ->required();
    command->add_option("--seconds", given->seconds, "end after this time")->check(CLI::Range(1, 1000000));
    command->add_option("--count", given->count, "end after so many frames")
        ->check(CLI::Range(uint64_t{1}, uint64_t{1000000000000}));
    command->add_flag("--force", given->force, "overwrite the file");
    explain(
        command, reach::record,
        "It listens on the ports of fxmd, sends nothing, and ends at Ctrl-C. It takes the right to open raw sockets.\n"
        "Wireshark reads the frames with the dissector fxm.lua.\n"
        "Examples: sudo fxmctl capture -w all.pcapng --seconds 10\n"
        "          sudo fxmctl capture 02:00:00:00:10:00 -w - | tshark -r -");
    command->callback([all, given] { all->run = [all, given] { return run_capture(all, *given); }; });
}

} // namespace fxm
