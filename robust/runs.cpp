// Runs of the whole library in simulated time, each decided by its seed: cards (those of the simulator), a wire that loses,
// delays, doubles and forges frames, links that fall, and host threads that call everything. A plain model says all
// through what must be true. Each run is a process of its own, so a seed always finds the same beginning.
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../sim/announce.h"
#include "../sim/frames.h"
#include "../sim/holder.h"
#include "../sim/lock.h"
#include "../sim/receive.h"
#include "../sim/registers.h"
#include "../sim/timers.h"
#include "../sim/wire.h"
#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "fxm.h"
#include "platform/fxm_platform_net.h"
#include "registry/fxm_tables.h"
#include "wire/fxm_port.h"
#include "world.h"

#define FXIO FXIO_FRAME // the simulator has that name too
#include "fixture.h"
#undef FXIO

#define MUST(condition, ...) ((condition) ? void() : world_finding(__VA_ARGS__))

constexpr uint32_t KINDS = 6; // of events
constexpr uint64_t LONGEST_DELAY = 900 * MS;

// ------------------------------------------------------------------------------------------------------------ the model

// What happens in a run, each one in so many frames, calls or seconds; 0 never.
static struct {
    uint32_t loss, late, twice, forged, refused; // frames
    uint32_t flaps, silences, changes, holders;  // seconds
} mood;

// What has been held, and since when; the last entry is held now.
using history_t = std::vector<std::pair<uint64_t, uint32_t>>;

enum watch_t { WATCHED, IGNORED, RESTARTED };

struct model_t {
    uint64_t id = 0;
    bool is_fxsv = false;
    std::map<uint32_t, history_t> registers, words; // of the registers that hosts use, and of the EEPROM
    uint64_t hurt = 0;                     // until then, frames of this card are not answered as they should be
    bool contested = false;                // another holder of the EEPROM lock may come
    uint32_t eeprom_calls = 0, acting = 0; // calls in progress; acting: those that change what is monitored
    // As of the last quiet moment.
    watch_t mode = WATCHED;
    uint64_t mode_since = 0;
    bool present = false, touched = true; // touched: since then a call has acted, and the model follows the library
    fxm_card_data_t record{};
    uint64_t weak = 0, absent = 0; // the last quiet moment at which it had no channel, or was in no table
    // Since the last quiet moment.
    bool denied = false;            // a call has found no channel, though there was one
    uint64_t heard[2][2] = {};      // when an announcement has arrived last; 0: none has
    std::vector<uint32_t> contents; // of the announcements that have arrived
    // Since the events were last compared.
    bool fresh = false, moved = false, updated = false, unsure = false;
    uint32_t events[KINDS] = {};
};

static std::deque<model_t> models;
static uint64_t quiet_moments = 1;
static bool watching;     // the library runs and takes frames
static uint64_t asked_at; // when a stop was asked for; 0: it was not
static bool asked;        // and the call has returned
static uint32_t life;     // frames of an earlier life of the library do not arrive
static bool link_up[2] = {true, true}, fell[2], rose[2];
static int link_fd = -1;
static uint32_t next_value = 1;
static uint64_t callbacks_took; // ns since the stop was asked for
static uint32_t callbacks_inside;

struct result_t { // of one run, for the process that has started it
    uint64_t hash, time, steps, frames, calls[10];
    bool done;
};
static result_t *result;

static model_t &model_of(uint64_t id)
{
    const auto found =
        std::find_if(models.begin(), models.end(), [=](const model_t &m) { return m.id == (id & ~MAC_SECOND); });
    MUST(found != models.end(), "there is no card 0x%.12" PRIx64, id);
    return *found;
}

static void hurt(model_t &model, uint64_t until) { model.hurt = std::max(model.hurt, until); }

static void remember(history_t &history, uint32_t value)
{
    if (history.empty() || history.back().second != value)
        history.emplace_back(world_now(), value);
}

// Whether something that fits was held at some moment since `from`.
template <typename Fits> static bool held(const history_t &history, uint64_t from, Fits fits)
{
    for (size_t i = 0; i < history.size(); ++i) {
        if ((i + 1 == history.size() || history[i + 1].first >= from) && fits(history[i].second))
            return true;
    }
    return false;
}

// ------------------------------------------------------------------------------------------------------------- the calls

struct call_t {
    const char *name;
    model_t *model; // null: of no card
    uint32_t flags;
    uint64_t begun = world_now(), moment = quiet_moments, stalled = world_stalled(), serial;
    bool late = asked;                                         // begun after a stop
    bool present = false, locked = false, engine_used = false; // as the call began
    bool refused = false;                                      // the system has refused a frame
    uint32_t answers = 0;                                      // that arrived
    std::vector<std::pair<uint32_t, uint32_t>> writes = {};    // register and value
};
static thread_local call_t *mine;
static std::map<uint64_t, call_t *> calls;
static uint64_t last_serial;

// The requests to read, in their order, and the last one of each tag.
struct read_t {
    uint64_t serial, id;
    uint32_t address, frames;
    bool answered, over; // over: answered at once, and its tag was used again
    uint64_t at;
};
static std::deque<read_t> reads;
static std::array<size_t, 256> last_use; // 1 more than the index; 0: none
static size_t asked_read;                // that the card is answering

// With few tags left, the library may use one again that should rest.
static bool tags_are_short()
{
    uint32_t used = 0;
    for (size_t use : last_use)
        used += use != 0 && reads[use - 1].at + 3000 * MS > world_now() ? 1 : 0;
    return used + 8 >= g_config.tag_max - g_config.tag_min + 1;
}

// -------------------------------------------------------------------------------------------------------------- the wire

static bool at_once; // frames arrive without a delay

// A frame on its way to the library. `arrives` may still hold it back.
static void carry(uint32_t port, const frame_t &frame, model_t &model, const std::function<bool()> &arrives)
{
    if (world_one_in(mood.loss)) {
        world_note("port%u: lost", port);
        return hurt(model, world_now());
    }
    uint64_t delay = at_once ? 0 : (20 + world_below(200)) * US;
    if (world_one_in(mood.late))
        delay += world_below(static_cast<uint32_t>(LONGEST_DELAY / MS) / (1 + 5 * world_below(2))) * MS;
    if (delay > 1 * MS)
        hurt(model, world_now() + delay);
    for (uint32_t copies = world_one_in(mood.twice) ? 2 : 1; copies > 0; --copies) {
        world_at(world_now() + delay + copies * 10 * US, [=, &model, now = life] {
            if (!link_up[port] || fxm_ports[port].pt_pcap == nullptr || now != life)
                return hurt(model, world_now());
            if (!arrives())
                return;
            result->frames += 1;
            world_note("port%u: subtype 0x%.2x from 0x%.12" PRIx64 " arrives", port, frame[18], model.id);
            wire_put(port, frame);
            world_fds_changed();
        });
    }
}

// What tells one announcement of a card from another.
static uint32_t content_of(uint8_t flow, uint16_t vlan) { return flow << 16u | vlan; }
static uint32_t content_of(const fxm_card_data_t &record) { return content_of(record.fcd_flowid, record.fcd_vlan_id); }

static void announce_on(card_t &card, uint32_t port, uint32_t mac, bool notify)
{
    u8 bytes[FRAME_ROOM];
    const size_t size = frame_announcement(bytes, card, mac, notify);
    model_t &model = model_of(card.id);
    carry(port, frame_t(bytes, bytes + size), model, [=, &model, content = content_of(card.flow, card.vlan)] {
        model.heard[port][mac] = world_now();
        model.contents.push_back(content);
        return true;
    });
}

void announce_now(card_t &card, unsigned channels, bool notify)
{
    for (uint32_t port = 0; port < 2; ++port)
        for (uint32_t mac = 0; mac < card_macs(card); ++mac)
            if ((channels & card_channels(card) & channel_bit(port, mac)) != 0)
                announce_on(card, port, mac, notify);
}

u64 time_now() { return world_now(); }

void timer_set(const card_t &card, u32 ms, std::function<void(card_t &)> act)
{
    world_at(world_now() + ms * MS, [id = card.id, act = std::move(act)] { act(*card_find(id)); });
}

// An answer may arrive after its read has ended. The library promises not to take it for another one if the read was
// sent again or had stayed unanswered; otherwise the wire holds it back.
static bool answer_arrives(size_t read, uint8_t tag)
{
    if (last_use[tag] != read && (reads[read - 1].over || tags_are_short()))
        return false;
    reads[read - 1].answered = true;
    const auto call = calls.find(reads[read - 1].serial);
    if (call != calls.end())
        call->second->answers += 1;
    return true;
}

// Someone else's answer: it must not count.
static void forge(uint32_t port, frame_t frame, const model_t &model)
{
    frame[24] ^= 0x55;
    switch (world_below(3)) {
    case 0:
        frame = from(models[world_below(static_cast<uint32_t>(models.size()))].id ^ 4, frame);
        break;
    case 1:
        port ^= 1;
        break;
    default:
        frame = from(model.id ^ (card_find(model.id)->is_40g ? 2 : 1), frame);
    }
    if (fxm_ports[port].pt_pcap == nullptr || !link_up[port])
        return;
    world_note("port%u: a forged answer arrives", port);
    wire_put(port, frame);
    world_fds_changed();
}

// The simulator's card answers.
void wire_send(unsigned port, const u8 *bytes, size_t size)
{
    const size_t read = asked_read;
    model_t &model = model_of(reads[read - 1].id);
    const frame_t frame(bytes, bytes + size);
    if (world_one_in(mood.forged))
        forge(port, frame, model);
    carry(port, frame, model, [=] { return answer_arrives(read, frame[23]); });
}

// The index of the read to which a request belongs, plus 1.
static size_t read_of(const command_t &command, uint64_t id)
{
    size_t &last = last_use[command.tag];
    if (last != 0) {
        read_t &old = reads[last - 1];
        if (old.serial == mine->serial && old.address == command.address && !old.answered) {
            old.frames += 1;
            old.at = world_now();
            return last;
        }
        old.over = old.answered && old.frames == 1;
    }
    reads.push_back({mine->serial, id, command.address, 1, false, false, world_now()});
    return last = reads.size();
}

static void reach_card(uint32_t port, const frame_t &frame, const command_t &command, size_t read)
{
    if (command.kind == COMMAND_RESET)
        return receive_frame(port, frame.data(), frame.size());
    model_t &model = model_of(command.to);
    card_t &card = *card_find(model.id);
    if (!link_up[port] || card.vlan != command.vlan || command.kind == COMMAND_VLAN)
        hurt(model, world_now());
    if (!link_up[port])
        return;
    asked_read = read;
    receive_frame(port, frame.data(), frame.size());
    if (const auto changed = model.registers.find(command.address); changed != model.registers.end())
        remember(changed->second, register_peek(card, command.address));
    for (auto &[address, history] : model.words)
        remember(history, eeprom_get(card, address));
}

// The library sends: runs on the thread of a call.
static int send_frame(uint32_t port, const frame_t &frame)
{
    command_t command;
    MUST(frame_command(frame.data(), frame.size(), command), "a frame that no card understands");
    world_step();
    if (world_one_in(mood.refused)) {
        if (world_one_in(2))
            return EAGAIN;
        mine->refused = true;
        return ENOBUFS;
    }
    result->frames += 1;
    world_note("port%u: command %u to 0x%.12" PRIx64 ", tag %u, register 0x%x, value 0x%x", port, command.kind,
               command.to, command.tag, command.address, command.value);
    const size_t read = command.kind == COMMAND_READ ? read_of(command, command.to & ~MAC_SECOND) : 0;
    if (command.kind == COMMAND_WRITE)
        mine->writes.emplace_back(command.address, command.value);
    if (world_one_in(mood.loss) && command.kind != COMMAND_RESET) {
        world_note("port%u: lost", port);
        hurt(model_of(command.to), world_now());
        return 0;
    }
    // What changes something at a card stays in its order: a late command is no fault of the library.
    uint64_t delay = 50 * US;
    if (command.kind == COMMAND_READ && world_one_in(mood.late)) {
        delay += world_below(100) * MS;
        hurt(model_of(command.to), world_now() + delay);
    }
    world_at(world_now() + delay, [=, now = life] {
        if (now != life)
            return;
        command_t again;
        (void)frame_command(frame.data(), frame.size(), again);
        reach_card(port, frame, again, read);
    });
    world_step();
    return 0;
}

static void move_link(uint32_t port)
{
    link_up[port] = !link_up[port];
    (link_up[port] ? rose : fell)[port] = true;
    world_note("port%u: link %s", port, link_up[port] ? "up" : "down");
    for (model_t &model : models)
        hurt(model, world_now());
    (void)eventfd_write(link_fd, 1);
    world_fds_changed();
}

static uint32_t get_adapters(fxm_adapter_t *list, uint32_t *size)
{
    *size = 2 * sizeof(fxm_adapter_t);
    if (list == nullptr)
        return FXM_ADAPTER_OVERFLOW;
    for (uint32_t port = 0; port < 2; ++port)
        list[port] = {port == 0 ? &list[1] : nullptr,
                      port + 1,
                      6,
                      6,
                      {2, 0, 0, 0, 0, 0xF0},
                      link_up[port] ? FXM_IF_OPER_UP : FXM_IF_OPER_DOWN,
                      {static_cast<char>('0' + port)}};
    return 0;
}

static bool notice_create(fxm_notice_t *notice)
{
    link_fd = notice->netlink_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    notice->source = {-1, false, nullptr, 0};
    notice->source.take = [](fxm_wait_source_t *source) {
        eventfd_t messages = 0;
        return source->ready = eventfd_read(source->fd, &messages) == 0;
    };
    return link_fd >= 0;
}

// --------------------------------------------------------------------------------------- what must be true at quiet moments

// The library's record, read without a lock: nobody runs, and nobody may wait with that lock held.
template <typename Class> FXM_NO_ANALYSIS static const fxm_card_data_t *find_record(uint64_t id, uint32_t *ignore_state)
{
    fxm_rbnode_t *link = _fxm_rbtree_find(&Class::map(), &id);
    if (link == nullptr)
        return nullptr;
    *ignore_state = Class::ignore_state(Class::link_t::record(link));
    return &Class::card(Class::record(Class::link_t::record(link)));
}

static uint64_t wall_ms() { return _fxm_get_time_ms(); }

// One channel of a card that is watched, against what has happened to it since the last quiet moment.
static void check_channel(model_t &model, const fxm_card_data_t &now, uint32_t port, uint32_t mac)
{
    const uint64_t heard = model.heard[port][mac], time = now.fcd_recvtime[port][mac];
    const bool up = now.fcd_state[port][mac] == 1, was = model.present && model.record.fcd_state[port][mac] == 1;
    const uint64_t expire = g_config.devinfo_expire_time;
    const uint64_t pass =
        g_config.devinfo_check_interval + g_config.devinfo_flag_check_interval + 20 + world_stalled() / MS;
    const auto must = [&](bool holds, const char *what) {
        MUST(holds, "card 0x%.12" PRIx64 " P%uM%u: %s (it is %s, heard %" PRIu64 " ms ago)", model.id, port, mac, what,
             up ? "up" : "down", wall_ms() - time);
    };
    const uint64_t before = model.present ? model.record.fcd_recvtime[port][mac] : 0;
    if (heard != 0 && was && wall_ms() >= before + expire)
        model.unsure = true; // it may have gone down just before
    if (heard != 0 && fell[port]) {
        model.unsure = true;
    } else if (heard != 0) {
        must(up, "it has announced itself and is not up");
        must(wall_ms() - time <= (world_now() - heard) / MS + 1, "its time is not that of its last announcement");
    } else {
        must(time == before, "its time has changed in silence");
        must(was || !up, "it came up in silence");
        if (fell[port] && !rose[port])
            must(!up, "its link has fallen");
        else if (was && !fell[port] && wall_ms() < time + expire)
            must(up, "it went down too early");
        must(!up || wall_ms() <= time + expire + pass, "it is up after a long silence");
    }
    model.unsure = model.unsure || (fell[port] && rose[port]);
    model.moved = model.moved || was != up;
}

static void compare_events(model_t &model)
{
    const auto must = [&](bool holds, const char *what) {
        MUST(holds,
             "card 0x%.12" PRIx64 ": %s; events: %u new, %u update, %u connection, %u error, %u path, %u channel",
             model.id, what, model.events[0], model.events[1], model.events[2], model.events[3], model.events[4],
             model.events[5]);
    };
    if (!model.unsure) {
        must(model.events[FXM_EVT_NEWDEVINFO] == (model.fresh ? 1 : 0), "a new card is told once, an old one never");
        must(model.fresh || (model.events[FXM_EVT_CHANNELSTATECHANGE] > 0) == model.moved,
             "a channel's change is told");
        must(model.fresh || (model.events[FXM_EVT_UPDATEDEVINFO] > 0) == (model.updated || model.moved),
             "a change is told, and nothing else");
    }
    model.fresh = model.moved = model.updated = model.unsure = false;
    std::fill_n(model.events, KINDS, 0);
}

static void check_watched(model_t &model, const fxm_card_data_t *now)
{
    const bool heard = !model.contents.empty();
    MUST((now != nullptr) == (model.present || heard), "card 0x%.12" PRIx64 " is %sin its table", model.id,
         now != nullptr ? "" : "not ");
    if (now == nullptr)
        return;
    for (uint32_t port = 0; port < 2; ++port)
        for (uint32_t mac = 0; mac < 2; ++mac)
            check_channel(model, *now, port, mac);
    const auto &contents = model.contents;
    const bool changed = !model.present || content_of(model.record) != content_of(*now);
    model.fresh = model.fresh || !model.present;
    model.updated = model.updated || (model.present && changed);
    if (heard && std::adjacent_find(contents.begin(), contents.end(), std::not_equal_to<>()) != contents.end())
        model.unsure = true; // it may have changed there and back
    MUST(heard ? std::find(contents.begin(), contents.end(), content_of(*now)) != contents.end() : !changed,
         "card 0x%.12" PRIx64 " does not show what it has announced", model.id);
}

static void check_model(model_t &model)
{
    uint32_t ignore_state = FXM_WATCH;
    const auto find = [&](bool fxsv) {
        return fxsv ? find_record<fxsv_class>(model.id, &ignore_state)
                    : find_record<fxio_class>(model.id, &ignore_state);
    };
    const fxm_card_data_t *now = find(model.is_fxsv);
    MUST(find(!model.is_fxsv) == nullptr, "card 0x%.12" PRIx64 " is in the wrong table", model.id);
    const bool moving = model.acting > 0 || model.touched;
    model.touched = model.acting > 0;
    if (moving || model.mode == RESTARTED)
        model.unsure = true;
    if (!moving && model.mode == WATCHED) {
        check_watched(model, now);
    } else if (!moving && model.mode == IGNORED) {
        MUST((now != nullptr) == model.present && (now == nullptr || memcmp(now, &model.record, sizeof(*now)) == 0),
             "card 0x%.12" PRIx64 " is out of monitoring, and its record has changed", model.id);
    } else if (!moving && now != nullptr && model.mode == RESTARTED) {
        const uint64_t passes = g_config.devinfo_expire_time / g_config.devinfo_check_interval + 2;
        const uint64_t longest =
            passes * (g_config.devinfo_check_interval + g_config.devinfo_flag_check_interval + 20) * MS;
        bool up = false;
        for (uint32_t channel = 0; channel < 4; ++channel) {
            const bool is_up = now->fcd_state[channel / 2][channel % 2] == 1;
            up = up || is_up;
            MUST(model.contents.empty() || !is_up || model.heard[channel / 2][channel % 2] != 0,
                 "card 0x%.12" PRIx64 " is back, and a channel is up that was not heard", model.id);
        }
        MUST(!up || !model.contents.empty() || world_now() <= model.mode_since + longest + world_stalled(),
             "card 0x%.12" PRIx64 " is back and silent, and its channels are up", model.id);
    }
    if (model.mode == RESTARTED && ignore_state == FXM_WATCH && model.acting == 0)
        model.mode = WATCHED;
    if (callbacks_inside == 0)
        compare_events(model);
    model.present = now != nullptr;
    model.record = now != nullptr ? *now : fxm_card_data_t{};
    const auto &states = model.record.fcd_state;
    if (moving || model.mode != WATCHED || states[0][0] + states[0][1] + states[1][0] + states[1][1] == 0)
        model.weak = quiet_moments;
    if (moving || !model.present)
        model.absent = quiet_moments;
    MUST(!model.denied || model.weak == quiet_moments || model.unsure || !model.contents.empty(),
         "card 0x%.12" PRIx64 " has a channel, and a call has found none", model.id);
    model.denied = false;
    memset(model.heard, 0, sizeof(model.heard));
    model.contents.clear();
}

static void at_quiet_moment()
{
    quiet_moments += 1;
    if (!watching)
        return;
    for (model_t &model : models)
        check_model(model);
    std::fill_n(fell, 2, false);
    std::fill_n(rose, 2, false);
}

// -------------------------------------------------------------------------------------------------------- host threads

constexpr uint32_t bits() { return 0; }
template <typename... Codes> constexpr uint32_t bits(int code, Codes... codes) { return 1u << code | bits(codes...); }

constexpr uint32_t DONE = bits(FXM_API_SUCCESS);
constexpr uint32_t KNOWN = DONE | bits(FXM_API_ENOENT);
constexpr uint32_t SENT = KNOWN | bits(FXM_API_ENOLINK, FXM_API_EPROTO);
constexpr uint32_t ANSWERED = SENT | bits(FXM_API_ETIMEDOUT);
constexpr uint32_t LOCKED = ANSWERED | bits(FXM_API_EBUSY);

static call_t begin(const char *name, model_t *model, uint32_t flags = 0)
{
    call_t call{.name = name, .model = model, .flags = flags, .serial = ++last_serial};
    call.present = model != nullptr && model->present;
    call.engine_used = model != nullptr && card_find(model->id)->eeprom.state != eeprom_t::IDLE;
    call.locked = model != nullptr && lock_has(*card_find(model->id), LOCK_MANAGER);
    world_note("%s(0x%.12" PRIx64 ", flags %u)", name, model != nullptr ? model->id : 0, flags);
    return call;
}

// What has gone wrong for the card during the call, or shortly before it.
static bool was_hurt(const call_t &call)
{
    return call.model->hurt + 2000 * MS > call.begun || world_stalled_until() >= call.begun || call.refused;
}

// Judges the result and the time that the call took; `bound` in ms, 0: not bounded.
static int judge(const call_t &call, int code, uint32_t allowed, uint64_t bound)
{
    const uint64_t slack =
        (world_stalled() - call.stalled) + std::max(world_stalled_until(), call.begun) - call.begun + 50 * MS;
    const uint64_t took = world_now() - call.begun;
    const auto must = [&](bool holds, const char *what) {
        MUST(holds, "%s(0x%.12" PRIx64 ") gave %d after %" PRIu64 " us: %s", call.name,
             call.model != nullptr ? call.model->id : 0, code, took / US, what);
    };
    world_note("%s gave %d", call.name, code);
    result->calls[code] += 1;
    must(!call.late || code == FXM_API_ENOSYS, "the library has been stopped");
    must(code != FXM_API_ENOSYS || asked_at != 0, "the library runs");
    must(code == FXM_API_ENOSYS || (allowed >> code & 1) != 0, "the header does not allow it");
    must(asked_at == 0 || world_now() - std::max(asked_at, call.begun) <= 100 * MS + slack,
         "a stop should have ended it");
    must(bound == 0 || took <= bound * MS + slack, "it took too long");
    if (call.model == nullptr || code == FXM_API_ENOSYS)
        return code;
    const model_t &model = *call.model;
    const bool eeprom = (allowed & bits(FXM_API_EBUSY)) != 0 || model.eeprom_calls >= 100;
    const engine_kind_t engine = card_find(model.id)->eeprom.kind;
    must(code != FXM_API_ENOENT || model.absent >= call.moment || !call.present || model.touched,
         "the card is in its table");
    if (code == FXM_API_ENOLINK && model.weak < call.moment && !model.touched && !was_hurt(call))
        call.model->denied = true;
    must(code != FXM_API_ETIMEDOUT || was_hurt(call) ||
             (eeprom && (model.contested || engine != ENGINE_NORMAL || call.engine_used)),
         "every frame has arrived");
    must(code != FXM_API_EBUSY || (model.contested && (call.flags & FXM_FLAG_FORCELOCK) == 0),
         "nobody else has the lock");
    // The engine keeps the status of a refused form. If the start of the other form is lost, it is taken for that one's.
    const bool stale = eeprom && was_hurt(call) && card_find(model.id)->eeprom.forms == PLAIN_FORM;
    must(code != FXM_API_EPROTO || call.refused || tags_are_short() || (eeprom && engine == ENGINE_REFUSE) || stale ||
             model.absent >= call.moment || model.touched,
         "no frame was refused");
    return code;
}

static const history_t &history_of(const model_t &model, uint32_t address) { return model.registers.at(address); }

// Runs a call that sends frames.
template <typename Call> static int send_call(call_t &call, uint32_t allowed, uint64_t bound, Call function)
{
    call_t *outer = mine; // a callback may run a call, but no call runs another one
    mine = &call;
    calls[call.serial] = &call;
    const int code = function();
    calls.erase(call.serial);
    mine = outer;
    return judge(call, code, allowed, bound);
}

static uint32_t some_register() { return 0x1000 + 4 * world_below(16); }

static void must_have_held(const call_t &call, const history_t &history, uint32_t address, uint32_t value,
                           uint32_t mask)
{
    MUST(held(history, call.begun, [=](uint32_t had) { return ((had ^ value) & mask) == 0; }),
         "%s(0x%.12" PRIx64 "): 0x%x never was in 0x%x during the call", call.name, call.model->id, value, address);
}

static void use_register(model_t &model, bool in_callback)
{
    fxm_retry_param_t param{world_below(4), 2 + world_below(100)};
    const fxm_retry_param_t *retry = world_one_in(2) ? &param : nullptr;
    const uint64_t once = retry != nullptr ? uint64_t{param.retry_cnt + 1} * param.retry_int
                                           : uint64_t{g_config.frame_retry_count + 1} * g_config.frame_retry_interval;
    const uint32_t live = world_one_in(4) ? FXM_FLAG_LIVECHECK : 0;
    const uint64_t check =
        live != 0 ? 4ull * (g_config.frame_retry_count_livecheck + 1) * g_config.frame_retry_interval_livecheck : 0;
    const uint32_t verify = world_one_in(3) ? 0 : FXM_FLAG_VERIFY, address = some_register();
    const uint32_t value = next_value++ * 2654435761u, mask = world_one_in(2) ? 0xFFFF0000 : 0xFF;
    const uint64_t sends = 50 * (param.retry_cnt + 12); // each frame may wait for room
    switch (world_below(in_callback ? 1 : 6)) {
    default: {
        call_t call = begin("fxm_read_register", &model, live);
        uint32_t data = 0;
        if (send_call(call, ANSWERED, check + once + sends,
                      [&] { return fxm_read_register(model.id, address, &data, retry, live); }) != FXM_API_SUCCESS)
            return;
        MUST(was_hurt(call) || live != 0 || world_now() - call.begun < 4 * MS,
             "fxm_read_register(0x%.12" PRIx64 "): it took longer than its answer", model.id);
        MUST(call.answers > 0, "fxm_read_register(0x%.12" PRIx64 "): a value without an answer", model.id);
        return must_have_held(call, history_of(model, address), address, data, UINT32_MAX);
    }
    case 3: {
        call_t call = begin("fxm_write_register", &model, live | verify);
        if (send_call(call, ANSWERED, 0, [&] {
                return fxm_write_register(model.id, address, value, retry, live | verify);
            }) != FXM_API_SUCCESS)
            return;
        MUST(std::find(call.writes.begin(), call.writes.end(), std::pair(address, value)) != call.writes.end(),
             "fxm_write_register(0x%.12" PRIx64 "): success, and the frame was not sent", model.id);
        if (verify != 0)
            must_have_held(call, history_of(model, address), address, value, UINT32_MAX);
        return;
    }
    case 4: {
        call_t call = begin("fxm_modify_register", &model, live | verify);
        if (send_call(call, ANSWERED, 0,
                      [&] { return fxm_modify_register(model.id, address, value, mask, retry, live | verify); }) ==
                FXM_API_SUCCESS &&
            verify != 0)
            must_have_held(call, history_of(model, address), address, value, mask);
        return;
    }
    case 5: {
        call_t call = begin("fxm_dump_register", &model, live);
        uint32_t data[8] = {};
        const uint32_t words = 1 + world_below(8), first = 0x1000 + 4 * world_below(8);
        uint64_t size = sizeof(data);
        const int code = send_call(call, ANSWERED, check + words * (once + sends), [&] {
            return fxm_dump_register(model.id, first, first + 4 * words, data, &size, retry, live);
        });
        MUST(size % 4 == 0 && (code == FXM_API_SUCCESS ? size == 4 * words : size < 4 * words),
             "fxm_dump_register gave %d and a size of %" PRIu64, code, size);
        for (uint32_t i = 0; i < size / 4; ++i)
            must_have_held(call, history_of(model, first + 4 * i), first + 4 * i, data[i], UINT32_MAX);
    }
    }
}

static void use_eeprom(model_t &model)
{
    static constexpr uint32_t addresses[] = {0, 4, 8, 0x104, 0x7FC};
    const uint32_t address = addresses[world_below(5)], value = next_value++ * 2654435761u;
    const uint32_t force = world_one_in(4) ? FXM_FLAG_FORCELOCK : 0;
    const bool unlocks = model.eeprom_calls == 0 && world_one_in(6);
    if (model.eeprom_calls >= 100)
        return; // somebody unlocks, and then nobody may transfer
    model.eeprom_calls += unlocks ? 100 : 1;
    call_t call = begin(unlocks ? "fxm_unlock_eeprom" : "an EEPROM call", &model, force);
    uint32_t data[3] = {};
    uint64_t size = sizeof(data);
    uint32_t words = 1;
    int code = 0;
    if (unlocks) {
        code = send_call(call, ANSWERED, 0, [&] { return fxm_unlock_eeprom(model.id); });
        model.contested = true; // it may have left the other holder's
    } else if (world_one_in(2)) {
        code = send_call(call, LOCKED, 0,
                         [&] { return fxm_write_eeprom(model.id, address, value, nullptr, force | FXM_FLAG_VERIFY); });
        data[0] = value;
    } else if (world_one_in(2)) {
        code = send_call(call, LOCKED, 0, [&] { return fxm_read_eeprom(model.id, address, data, nullptr, force); });
    } else {
        words = address == 0 ? 3 : 1;
        code = send_call(call, LOCKED, 0, [&] {
            return fxm_dump_eeprom(model.id, address, address + 4 * words, data, &size, nullptr, force);
        });
    }
    model.eeprom_calls -= unlocks ? 100 : 1;
    for (uint32_t i = 0; i < words && code == FXM_API_SUCCESS && !unlocks; ++i)
        must_have_held(call, model.words.at(address + 4 * i), address + 4 * i, data[i], UINT32_MAX);
    const bool kept = lock_has(*card_find(model.id), LOCK_MANAGER);
    MUST(!kept || model.eeprom_calls > 0 || call.locked || asked_at != 0 || was_hurt(call),
         "card 0x%.12" PRIx64 ": %s gave %d and has left the EEPROM lock", model.id, call.name, code);
}

// ------------------------------------------------------------------------------------------------------------- callbacks

struct listener_t {
    int32_t kind;
    void *handle = nullptr;
    bool ended = false;
    uint32_t enders = 0;          // calls that end it
    uint64_t first = 0, last = 0; // events of the kind that it has heard, by number
};
static uint64_t delivered[KINDS]; // events, counted by the callback that was registered first
static std::deque<listener_t> listeners;
static void read_card(model_t &model);

static void end_listener(listener_t &listener, bool in_callback)
{
    const uint64_t before = delivered[listener.kind];
    const call_t call = begin("fxm_unregister_callback", nullptr);
    listener.enders += 1;
    const int code = fxm_unregister_callback(listener.handle);
    (void)judge(call, code, DONE | (listener.enders > 1 ? bits(FXM_API_EINVAL) : 0), in_callback ? 1 : 0);
    if (code != FXM_API_SUCCESS)
        return;
    listener.ended = true;
    MUST(listener.last == 0 || listener.last >= before, "an ended callback has missed an event");
}

// Registered first for each kind, as long as the library runs.
static void count_event(uint64_t id, int32_t kind, uint64_t)
{
    world_note("event %d of 0x%.12" PRIx64, kind, id);
    delivered[kind] += 1;
    model_of(id).events[kind] += 1;
}

static void listen(uint64_t id, int32_t kind, uint64_t arg)
{
    listener_t &listener = listeners[arg];
    const uint64_t begun = world_now();
    MUST(!listener.ended && kind == listener.kind, "a callback was called after its end, or for kind %d", kind);
    MUST(listener.last == 0 || listener.last + 1 == delivered[kind], "a callback has missed an event, or got it twice");
    listener.last = delivered[kind];
    if (listener.first == 0)
        listener.first = listener.last;
    callbacks_inside += 1;
    switch (world_below(8)) {
    case 0:
        world_sleep(world_below(40) * MS);
        break;
    case 1:
        use_register(model_of(id), true);
        break;
    case 2:
        end_listener(listener, true);
        break;
    default:
        read_card(model_of(id));
    }
    callbacks_inside -= 1;
    if (asked_at != 0)
        callbacks_took += world_now() - std::max(begun, asked_at);
}

static void listen_or_not()
{
    if (world_one_in(2)) {
        const auto kind = static_cast<int32_t>(world_below(KINDS));
        const size_t number = listeners.size();
        listeners.push_back({kind});
        const uint64_t before = delivered[kind];
        const call_t call = begin("fxm_register_callback", nullptr);
        const listener_t &listener = listeners[number];
        const int code = fxm_register_callback(kind, listen, number, &listeners[number].handle);
        (void)judge(call, code, DONE, 0);
        MUST(listener.first == 0 || (listener.first > before && listener.first <= delivered[kind] + 1),
             "a new callback has missed an event");
        return;
    }
    for (listener_t &listener : listeners) {
        if (!listener.ended && listener.handle != nullptr && world_one_in(2))
            return end_listener(listener, false);
    }
}

// --------------------------------------------------------------------------------------------------- the tables, the rest

static void read_card(model_t &model)
{
    const call_t call = begin("fxm_get", &model);
    fxm_fxsv_t fxsv;
    fxm_fxio_t fxio;
    const int code = model.is_fxsv ? fxm_get_fxsv(model.id, &fxsv) : fxm_get_fxio(model.id, &fxio);
    if (judge(call, code, KNOWN, 1) != FXM_API_SUCCESS)
        return;
    const fxm_card_data_t &card = model.is_fxsv ? fxsv.fsv_card : fxio.fio_card;
    MUST(card.fcd_id == model.id && card.fcd_updatetime <= wall_ms(), "the record of another card");
}

static void read_list()
{
    const call_t call = begin("fxm_get_ids", nullptr);
    const bool fxsv = world_one_in(2);
    uint64_t *list = nullptr;
    uint32_t count = world_one_in(4) ? 1 : 0;
    const bool short_list = count == 1;
    const int code = fxsv ? fxm_get_fxsvids(&list, &count) : fxm_get_fxioids(&list, &count);
    if (judge(call, code, DONE | (short_list ? bits(FXM_API_ERANGE) : 0), 1) != FXM_API_SUCCESS)
        return;
    MUST(std::is_sorted(list, list + count) && (list == nullptr) == (count == 0), "a list is not in order");
    for (uint32_t i = 0; i < count; ++i)
        MUST(model_of(list[i]).is_fxsv == fxsv, "a list has a card of the other class");
    for (const model_t &model : models) {
        const bool listed = std::find(list, list + count, model.id) != list + count;
        MUST(model.is_fxsv != fxsv || listed || model.absent >= call.moment || model.touched || !model.present,
             "card 0x%.12" PRIx64 " is not in the list", model.id);
        MUST(!listed || model.present || model.touched || model.absent < call.moment || !model.contents.empty(),
             "card 0x%.12" PRIx64 " is in the list, and not in its table", model.id);
    }
    (void)fxm_free_idlist(list);
}

// Changes what is monitored: one such call at a time for a card.
static void monitor(model_t &model)
{
    if (model.acting > 0)
        return;
    model.acting += 1;
    model.touched = true;
    const uint32_t choice = world_below(model.mode == IGNORED ? 4 : 7);
    const call_t call = begin(choice < 3    ? "fxm_restart_monitor"
                              : choice == 3 ? "fxm_delete"
                                            : "fxm_stop_monitor",
                              &model);
    int code = 0;
    if (choice < 3)
        code = fxm_restart_monitor(model.id);
    else if (choice == 3)
        code = model.is_fxsv ? fxm_delete_fxsv(model.id) : fxm_delete_fxio(model.id);
    else
        code = fxm_stop_monitor(model.id);
    model.touched = true;
    model.acting -= 1;
    if (judge(call, code, choice == 3 ? KNOWN : DONE, 1) != FXM_API_SUCCESS || choice == 3)
        return;
    model.mode = choice < 3 ? RESTARTED : IGNORED;
    model.mode_since = world_now();
}

static void command(model_t &model)
{
    fxm_retry_param_t param{world_below(4), 10 + world_below(100)};
    const uint32_t flags = world_below(4); // live check and verify
    const uint64_t live =
        4ull * (g_config.frame_retry_count_livecheck + 1) * g_config.frame_retry_interval_livecheck + 1000;
    const auto vlan = static_cast<uint16_t>(100 + world_below(3));
    switch (world_below(3)) {
    case 0: {
        call_t call = begin("fxm_set_vlanid", &model, flags);
        (void)send_call(call, ANSWERED, (param.retry_cnt + 1ull) * (param.retry_int + 60) + live,
                        [&] { return fxm_set_vlanid(model.id, vlan, &param, flags); });
        return;
    }
    case 1: {
        call_t call = begin("fxm_send_resetframe", &model);
        (void)send_call(call, SENT, 60, [&] { return fxm_send_resetframe(model.id, 1, nullptr, 0); });
        return;
    }
    default: {
        const uint8_t page[FXM_MMS_PAGE_SIZE] = {};
        call_t call = begin("fxm_write_mmspage", &model, flags & FXM_FLAG_LIVECHECK);
        const bool fits = card_is_multi_root(*card_find(model.id));
        call.present = call.present && fits;
        (void)send_call(call, fits ? SENT : bits(FXM_API_ENOENT, FXM_API_ENOLINK), live,
                        [&] { return fxm_write_mmspage(model.id, 1, page, flags); });
    }
    }
}

static std::string directory;

static uint64_t queued[KINDS]; // events before the stop

static void stop_library()
{
    if (asked_at != 0)
        return;
    {
        fxm_mutex_guard_t guard(&g_stats_lock);
        std::copy_n(g_stats.evt_count, KINDS, queued);
    }
    if (asked_at != 0)
        return;
    world_note("a stop is asked for");
    watching = false;
    asked_at = world_now();
    MUST(fxm_fini_manager() == FXM_API_SUCCESS, "fxm_fini_manager failed");
    asked = true;
}

static void act()
{
    model_t &model = models[world_below(static_cast<uint32_t>(models.size()))];
    const uint32_t choice = world_below(100);
    if (choice < 45)
        return use_register(model, false);
    if (choice < 51)
        return use_eeprom(model);
    if (choice < 60)
        return read_card(model);
    if (choice < 67)
        return read_list();
    if (choice < 77)
        return monitor(model);
    if (choice < 85)
        return command(model);
    if (choice < 96)
        return listen_or_not();
    const call_t call = begin("fxm_stdump", nullptr);
    if (choice < 97)
        (void)judge(call, fxm_stdump(world_below(2)), DONE, 20);
    else if (choice < 99 && asked_at == 0)
        MUST(fxm_init_manager(directory.c_str(), FXM_LOG_FATAL) == FXM_API_EBUSY, "a second start was let in");
    else
        stop_library();
}

// --------------------------------------------------------------------------------------------------------------- one run

static uint64_t seeds = 1000, seconds, first_seed = 1, only_seed; // as the command line says
static bool trace;

static uint64_t some_ms(uint64_t from, uint64_t to)
{
    return (from + world_below(static_cast<uint32_t>(to - from + 1))) * MS;
}

static void write_file(const char *name, const std::string &text)
{
    const std::string path = directory + "/conf/" + name;
    FILE *file = fopen(path.c_str(), "w");
    DEMAND(file != nullptr && fputs(text.c_str(), file) >= 0 && fclose(file) == 0);
}

static std::string key(const char *name, uint32_t value)
{
    return std::string(name) + " = " + std::to_string(value) + "\n";
}

static void configure()
{
    const uint32_t first_tag = world_one_in(2) ? 0 : world_below(128), ticks[] = {20, 50, 100, 300};
    write_file("fxm.conf",
               "ether_port_ifindex = 1 2\n" + key("devinfo_flag_check_interval", ticks[world_below(4)]) +
                   key("devinfo_expire_time", 1000 * (2 + world_below(4))) + key("tag_min", first_tag) +
                   key("tag_max", world_one_in(2) ? 255 : first_tag + 100) +
                   key("frame_retry_interval", 5 + world_below(96)) + key("frame_retry_count", world_below(11)) +
                   key("frame_retry_interval_livecheck", 5 + world_below(46)) +
                   key("frame_retry_count_livecheck", world_below(4)) + key("eeprom_retry_count", 2 + world_below(10)) +
                   key("eeprom_verify_count", 6 + world_below(15)) + key("force_lock_try_count", world_below(4)) +
                   key("eeprom_check_retry_count", 5 + world_below(20)) + key("stats_interval", 5 + world_below(60)));
}

static void add_card(uint32_t number)
{
    const bool fxsv = world_one_in(2);
    card_t card = card_blank(fxsv ? class_t::FXSV : class_t::FXIO, 0x020000001000 + number * 0x10);
    card.is_40g = world_one_in(2);
    card.layout = world_one_in(3) ? CHANGE : NORMAL;
    const uint32_t ports = world_below(3);
    card.on_port = {ports != 1, ports != 2};
    if (!fxsv && world_one_in(2))
        card.sw[1] |= 1; // multi-root
    card.lock = world_one_in(2) ? ID_LOCK : BIT_LOCK;
    card.eeprom.looks = world_below(4);
    card.eeprom.forms = static_cast<forms_t>(world_below(3));
    static constexpr engine_kind_t engines[] = {ENGINE_BUSY, ENGINE_STUCK, ENGINE_REFUSE, ENGINE_HANG};
    if (world_one_in(5))
        card.eeprom.kind = engines[world_below(4)];
    if (card.is_40g)
        card.eeprom.forms = PLAIN_FORM; // the library does not try the other one
    model_t &model = models.emplace_back();
    model.id = card.id;
    model.is_fxsv = fxsv;
    for (uint32_t i = 0; i < 16; ++i) {
        card.registers[0x1000 + 4 * i] = next_value++ * 2654435761u;
        remember(model.registers[0x1000 + 4 * i], card.registers[0x1000 + 4 * i]);
    }
    for (const uint32_t address : {0u, 4u, 8u, 0x104u, 0x7FCu}) {
        eeprom_set(card, address, next_value++ * 2654435761u);
        remember(model.words[address], eeprom_get(card, address));
    }
    card_add(card);
}

// Announcements once a second on each channel, for ever.
static void announce_always(uint64_t id)
{
    card_t &card = *card_find(id);
    announce_now(card, ALL_CHANNELS & ~card.silent, false);
    world_at(world_now() + 1000 * MS, [=] { announce_always(id); });
}

// Something that happens again and again, about every `seconds`.
static void disturb(uint32_t seconds, void (*what)())
{
    if (seconds == 0)
        return;
    world_at(world_now() + some_ms(0, seconds * 2000ull), [=] {
        what();
        disturb(seconds, what);
    });
}

static card_t &some_card() { return *card_find(models[world_below(static_cast<uint32_t>(models.size()))].id); }

static void change_card()
{
    card_t &card = some_card();
    card.flow += 1;
    world_note("card 0x%.12" PRIx64 " changes", card.id);
    if (world_one_in(2))
        announce_now(card, ALL_CHANNELS & ~card.silent, true);
}

static void change_all()
{
    at_once = true;
    for (auto &[id, card] : cards) {
        card.flow += 1;
        announce_now(card, ALL_CHANNELS & ~card.silent, true);
    }
    at_once = false;
}

static void flap()
{
    const uint32_t port = world_below(2);
    if (!link_up[port])
        return;
    move_link(port);
    world_at(world_now() + some_ms(0, world_one_in(2) ? 9000 : 5), [=] { move_link(port); });
}

static void hush()
{
    card_t &card = some_card();
    if (card.silent != 0)
        return;
    card.silent = world_one_in(2) ? ALL_CHANNELS : 1 + world_below(15);
    world_note("card 0x%.12" PRIx64 " falls silent on channels 0x%x", card.id, card.silent);
    world_at(world_now() + some_ms(0, 9000), [&card] { card.silent = 0; });
}

static void visit()
{
    card_t &card = some_card();
    model_t &model = model_of(card.id);
    if (model.eeprom_calls > 0 || lock_has(card, LOCK_MANAGER))
        return;
    model.contested = true;
    world_note("card 0x%.12" PRIx64 ": another holder of the EEPROM lock", card.id);
    const uint32_t habit = world_below(4);
    if (habit == 0)
        holder_keep(card, 1 + world_below(3));
    else if (habit == 1)
        holder_visit(card, 1 + world_below(300), 1 + world_below(3));
    else if (habit == 2)
        holder_fight(card, 1 + world_below(3));
    else
        holder_gone(card);
}

static void set_mood()
{
    world_manner_t manner;
    static constexpr uint32_t odds[] = {2, 8, 32, 128};
    manner.switches = odds[world_below(4)];
    if (world_one_in(3))
        manner = {manner.switches, 300 + world_below(3000), 50};
    world_set_manner(manner);
    const uint32_t noise = world_below(3), rate = noise == 0 ? 0 : noise == 1 ? 200 : 15; // one run in three is quiet
    const auto some = [=] { return rate != 0 && world_one_in(2) ? rate / 2 + world_below(rate) : 0; };
    mood = {some(), some(), some(), some(), some() * 5, 0, 0, 0, 0};
    const auto seconds = [] { return world_one_in(2) ? 2 + world_below(20) : 0; };
    mood.flaps = seconds();
    mood.silences = seconds();
    mood.changes = seconds();
    mood.holders = seconds();
}

// One life of the library, from fxm_init_manager to its return.
static void live_once()
{
    asked_at = 0;
    asked = false;
    listeners.clear();
    wire_clear();
    reads.clear();
    last_use = {};
    life += 1;
    int returned = -1;
    uint64_t returned_at = 0;
    configure();
    const uint32_t manager = world_spawn("manager", [&] {
        returned = fxm_init_manager(directory.c_str(), FXM_LOG_FATAL);
        returned_at = world_now();
    });
    std::fill_n(delivered, KINDS, 0);
    for (int32_t kind = 0; kind < static_cast<int32_t>(KINDS); ++kind) {
        void *handle = nullptr;
        while (fxm_register_callback(kind, count_event, 0, &handle) == FXM_API_ENOSYS)
            world_sleep(100 * US);
    }
    for (model_t &model : models) {
        model.mode = WATCHED;
        model.touched = true;
        model.present = false;
        model.acting += 1; // until the start is over
    }
    MUST(fxm_start_manager() == FXM_API_SUCCESS, "fxm_start_manager failed");
    for (model_t &model : models)
        model.acting -= 1;
    watching = true;
    std::vector<uint32_t> hosts;
    if (!world_one_in(4))
        world_sleep(1200 * MS); // most cards have announced themselves
    const uint32_t most = 1 + world_below(30), rest = world_one_in(2) ? 20 : 1500;
    for (uint32_t number = 1 + world_below(4); number > 0; --number)
        hosts.push_back(world_spawn("host", [=] {
            for (uint32_t left = most; left > 0 && (asked_at == 0 || left % 4 != 0); --left) {
                act();
                world_sleep(world_below(rest) * MS);
            }
        }));
    if (world_one_in(2))
        world_sleep(some_ms(0, 20000));
    else
        for (const uint32_t host : std::exchange(hosts, {}))
            world_join(host);
    check_tables();
    if (world_one_in(2)) { // in the middle of many events
        world_at(world_now() + 1 * MS, change_all);
        world_sleep(1 * MS + world_below(60) * US);
    }
    stop_library();
    for (const uint32_t host : hosts)
        world_join(host);
    world_join(manager);
    const uint64_t bound = (g_config.devinfo_flag_check_interval + 1000 + 150) * MS + callbacks_took + world_stalled();
    MUST(returned == FXM_API_SUCCESS, "fxm_init_manager gave %d", returned);
    MUST(returned_at - asked_at <= bound, "the stop took %" PRIu64 " ms", (returned_at - asked_at) / MS);
    fxm_mutex_guard_t guard(&g_stats_lock);
    for (uint32_t kind = 0; kind < KINDS; ++kind)
        MUST(delivered[kind] >= queued[kind] && delivered[kind] <= g_stats.evt_count[kind],
             "kind %u: %" PRIu64 " events before the stop, %" PRIu64 " delivered", kind, queued[kind], delivered[kind]);
    for (const listener_t &listener : listeners)
        MUST(listener.ended || listener.last == 0 || listener.last == delivered[listener.kind],
             "a callback has missed an event before the stop");
}

static void run_seed(uint64_t seed)
{
    fuzz_begin();
    wire_wake(true);
    wire_sent = send_frame;
    fxm_platform.get_adapters = get_adapters;
    fxm_platform.notice_create = notice_create;
    fxm_platform.notice_arm = [](fxm_notice_t *notice) {
        notice->source.fd = notice->netlink_fd;
        _fxm_set_last_error(static_cast<int>(FXM_ERROR_IO_PENDING));
        return false;
    };
    world_begin(seed, trace);
    set_mood();
    for (uint32_t number = 0, most = 1 + world_below(5); number < most; ++number)
        add_card(number);
    world_quiet = at_quiet_moment;
    for (const model_t &model : models)
        world_at(world_now() + some_ms(0, 1000), [&model] { announce_always(model.id); });
    disturb(mood.flaps, flap);
    disturb(mood.silences, hush);
    disturb(mood.changes, change_card);
    disturb(mood.holders, visit);
    for (uint32_t lives = 1 + world_below(3); lives > 0; --lives)
        live_once();
    check_tables();
    check_accounts_empty();
    for (const auto &[id, card] : cards)
        MUST(card.counts.foul == 0, "card 0x%.12" PRIx64 ": the EEPROM was used without its lock", id);
    result->hash = world_hash();
    result->time = world_now();
    result->steps = world_steps();
    result->done = true;
}

// ------------------------------------------------------------------------------------------------------------- many runs

static const char usage[] = "Usage: runs [SEEDS | --seconds N] [--from SEED]\n"
                            "       runs --seed N [--trace]\n"
                            "Runs the library in simulated time, each run as its seed says. See robust/README.md.\n"
                            "  SEEDS        how many runs (1000)\n"
                            "  --seconds N  as many as fit into N seconds\n"
                            "  --from SEED  the first seed (1)\n"
                            "  --seed N     this run alone; --trace prints each of its steps\n"
                            "  --version    print the version\n"
                            "  -h, --help   print this text\n"
                            "Exit code: 0 no finding, 1 a finding, 2 wrong usage.\n";

// Gives the exit code that ends the program, or -1.
static int read_options(int argc, char **argv)
{
    const std::map<std::string, uint64_t *> numbers = {
        {"--seconds", &seconds}, {"--from", &first_seed}, {"--seed", &only_seed}};
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "-h" || word == "--help" || word == "--version")
            return word == "--version" ? puts("runs (fxm) " FXM_VERSION) < 0 : fputs(usage, stdout) < 0;
        const auto number = numbers.find(word);
        const std::string text = number == numbers.end() ? word : i + 1 < argc ? argv[++i] : "";
        trace = trace || word == "--trace";
        if (word == "--trace")
            continue;
        if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos) {
            fprintf(stderr, "runs: %s: a number is expected; see runs --help\n", word.c_str());
            return 2;
        }
        *(number == numbers.end() ? &seeds : number->second) = std::stoull(text);
    }
    return -1;
}

static void crashed(int number)
{
    world_report();
    signal(number, SIG_DFL);
    raise(number);
}

// Runs a seed in a process of its own. Null, or what is wrong.
static const char *try_seed(uint64_t seed)
{
    *result = {};
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        for (const int number : {SIGABRT, SIGSEGV, SIGALRM, SIGBUS})
            signal(number, crashed);
        alarm(120);
        run_seed(seed);
        fflush(nullptr);
        _exit(0);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return "no process could be made";
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        return "it did not end within two minutes";
    return status == 0 && result->done ? nullptr : "it failed";
}

// The same, every hundredth seed twice. Adds to `sum`.
static bool run_and_judge(uint64_t seed, result_t *sum, const char *program)
{
    const char *what = try_seed(seed);
    const uint64_t hash = result->hash;
    if (what == nullptr && seed % 100 == 0 && (try_seed(seed) != nullptr || result->hash != hash))
        what = "not deterministic: it is not the same when it runs again";
    if (what != nullptr)
        printf("seed %" PRIu64 ": %s. Repeat it: %s --seed %" PRIu64 " --trace\n", seed, what, program, seed);
    sum->time += result->time;
    sum->steps += result->steps;
    sum->frames += result->frames;
    for (size_t code = 0; code < std::size(sum->calls); ++code)
        sum->calls[code] += result->calls[code];
    return what == nullptr;
}

static double seconds_of(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

int main(int argc, char **argv)
{
    const int code = read_options(argc, argv);
    if (code >= 0)
        return code;
    const char *parent = getenv("TMPDIR");
    directory = std::string(parent != nullptr ? parent : "/tmp") + "/fxm-runs.XXXXXX";
    void *memory = mmap(nullptr, sizeof(result_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || mkdtemp(directory.data()) == nullptr ||
        mkdir((directory + "/conf").c_str(), 0700) != 0) {
        fprintf(stderr, "runs: %s: %s; set TMPDIR to a directory that can be written\n", directory.c_str(),
                strerror(errno));
        return 1;
    }
    result = static_cast<result_t *>(memory);
    write_file("fxm_log4c_win.properties", "log4j.rootLogger=OFF\n");
    cpu_set_t cpu;
    CPU_ZERO(&cpu);
    CPU_SET(sched_getcpu(), &cpu);
    (void)sched_setaffinity(0, sizeof(cpu), &cpu); // a change of threads then stays on one CPU

    const double begun = seconds_of(CLOCK_MONOTONIC);
    result_t sum{};
    uint64_t runs = 0, findings = 0;
    for (uint64_t seed = only_seed != 0 ? only_seed : first_seed;; ++seed, ++runs) {
        if (only_seed != 0 ? runs > 0
            : seconds != 0 ? seconds_of(CLOCK_MONOTONIC) >= begun + static_cast<double>(seconds)
                           : runs >= seeds)
            break;
        findings += run_and_judge(seed, &sum, argv[0]) ? 0 : 1;
    }
    for (const char *name : {"/conf/fxm.conf", "/conf/fxm_log4c_win.properties", "/conf", ""})
        (void)remove((directory + name).c_str());
    rusage used{};
    getrusage(RUSAGE_CHILDREN, &used);
    const double took = seconds_of(CLOCK_MONOTONIC) - begun, many = static_cast<double>(runs);
    const double cpu_time = static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
                            static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1e6;
    printf("%.0f runs in %.1f s: %.0f a minute, %.0f a minute of CPU time; %.1f simulated hours, %" PRIu64
           " steps, %" PRIu64 " frames\ncalls:",
           many, took, many * 60 / took, many * 60 / cpu_time, static_cast<double>(sum.time) / 3.6e12, sum.steps,
           sum.frames);
    for (size_t result_code = 0; result_code < std::size(sum.calls); ++result_code)
        printf(" %s %" PRIu64, fxm_results[result_code].name + strlen("FXM_API_"), sum.calls[result_code]);
    printf("\n%" PRIu64 " findings\n", findings);
    return findings == 0 ? 0 : 1;
}
