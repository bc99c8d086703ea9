// Runs of the whole library in simulated time, each decided by its seed: cards (those of the simulator), a wire that loses,
// delays, doubles and forges frames, links that fall, and host threads that call everything. A plain model says all
// through what must be true. A process is one run, so a seed always finds the same beginning; scripts/runs makes many.
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cinttypes>
#include <csignal>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <utility>

#include "../sim/announce.h"
#include "../sim/frames.h"
#include "../sim/holder.h"
#include "../sim/lock.h"
#include "../sim/receive.h"
#include "../sim/registers.h"
#include "../sim/timers.h"
#include "../sim/wire.h"
#include "core/fxm_config.h"
#include "functions.h"
#include "platform/fxm_platform_net.h"
#include "registry/fxm_tables.h"
#include "wire/fxm_port.h"
#include "world.h"

#define FXIO FXIO_FRAME // the simulator has that name too
#include "fixture.h"
#undef FXIO

#define MUST(condition, ...) ((condition) ? void() : world_finding(__VA_ARGS__))

constexpr uint32_t EEPROM_WORDS[] = {0, 4, 8, 0x104, 0x7FC}; // that hosts use
constexpr uint32_t EEPROM = 0x80000000;                      // the address of a word of the EEPROM in the model

// ------------------------------------------------------------------------------------------------------------ the model

static struct {
    uint32_t loss, late, twice, forged, refused; // one in so many frames; 0 never
} mood;

// What has been held, and since when; the last entry is held now.
using history_t = std::vector<std::pair<uint64_t, uint32_t>>;

enum watch_t { WATCHED, IGNORED, RESTARTED };

struct model_t {
    uint64_t id = 0;
    bool is_fxsv = false;
    std::map<uint32_t, history_t> words;   // of the registers that hosts use, and of the EEPROM
    uint64_t hurt = 0;                     // until then, frames of this card are not answered as they should be
    bool contested = false;                // another holder of the EEPROM lock may come
    uint32_t eeprom_calls = 0, acting = 0; // calls in progress; acting: those that change what is monitored
    bool unlocking = false;                // such a call takes the EEPROM lock from all others
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
    uint32_t events[FXM_EVT_KINDS] = {};
};

static std::deque<model_t> models;
static uint64_t quiet_moments = 1;
static bool watching, asked;              // the library runs and takes frames; the call for a stop has returned
static uint64_t asked_at, callbacks_took; // when that call began (0: it has not), and ns in callbacks since then
static uint32_t life, callbacks_inside;   // frames of an earlier life of the library do not arrive
static bool link_up[2] = {true, true}, fell[2], rose[2];
static int link_fd = -1;
static uint64_t frames_made, calls_made[FXM_API_CODES];

static model_t &model_of(uint64_t id)
{
    for (model_t &model : models)
        if (model.id == (id & ~MAC_SECOND))
            return model;
    world_finding("there is no card 0x%.12" PRIx64, id);
}

static uint32_t next_value() { return static_cast<uint32_t>(world_random()) | 1; }
static model_t &some_model() { return models[world_below(static_cast<uint32_t>(models.size()))]; }
static card_t &card_of(const model_t &model) { return *card_find(model.id); }

static void must(const model_t &model, bool holds, const char *what)
{
    const uint32_t *events = model.events;
    MUST(holds, "card 0x%.12" PRIx64 ": %s; events: %u new, %u update, %u connection, %u error, %u path, %u channel",
         model.id, what, events[0], events[1], events[2], events[3], events[4], events[5]);
}

static uint32_t word_of(const card_t &card, uint32_t address)
{
    return (address & EEPROM) != 0 ? eeprom_get(card, address - EEPROM) : register_peek(card, address);
}

static void hurt(model_t &model, uint64_t until) { model.hurt = std::max(model.hurt, until); }

static void remember(history_t &history, uint32_t value)
{
    if (history.empty() || history.back().second != value)
        history.emplace_back(world_now(), value);
}

// ------------------------------------------------------------------------------------------------------------- the calls

struct call_t {
    fxm_api_row_t row;
    model_t *model;     // null: of no card
    uint64_t bound = 0; // ms that it may take; 0: not bounded
    uint32_t flags = 0;
    uint32_t allowed = 0; // 0: the table of functions judges
    uint64_t begun = world_now(), moment = quiet_moments, stalled = world_stalled(), serial = 0;
    bool late = asked;                                         // begun after a stop
    bool present = false, locked = false, engine_used = false; // as the call began
    bool refused = false;                                      // the system has refused a frame
    uint32_t answers = 0, sent = 0;                            // frames
    int code = -1;
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
static std::array<read_t *, 256> last_use;
static read_t *asked_read; // that the card is answering

// With few tags left, the library may use one again that should rest.
static bool tags_are_short()
{
    const auto used = std::count_if(last_use.begin(), last_use.end(), [](const read_t *use) {
        return use != nullptr && use->at + 3000 * MS > world_now();
    });
    return used + 8 >= int64_t{g_config.tag_max} - g_config.tag_min + 1;
}

// -------------------------------------------------------------------------------------------------------------- the wire

static bool at_once; // frames arrive without a delay

static void put(uint32_t port, const frame_t &frame, const char *what)
{
    frames_made += 1;
    world_note("port%u: %s of subtype 0x%.2x from 0x...%.2x%.2x arrives", port, what, frame[18], frame[10], frame[11]);
    wire_put(port, frame);
    world_fds_changed();
}

// A frame on its way to the library. `arrives` may still hold it back.
static void carry(uint32_t port, const frame_t &frame, model_t &model, const std::function<bool()> &arrives)
{
    if (world_one_in(mood.loss)) {
        world_note("port%u: lost", port);
        return hurt(model, world_now());
    }
    uint64_t delay = at_once ? 0 : (20 + world_below(200)) * US;
    if (world_one_in(mood.late))
        delay += world_below(world_one_in(2) ? 150 : 900) * MS;
    if (delay > 1 * MS)
        hurt(model, world_now() + delay);
    for (uint32_t copies = world_one_in(mood.twice) ? 2 : 1; copies > 0; --copies) {
        world_at(world_now() + delay + copies * 10 * US, [=, &model, now = life] {
            if (!link_up[port] || fxm_ports[port].pt_pcap == nullptr || now != life)
                hurt(model, world_now());
            else if (arrives())
                put(port, frame, "a frame");
        });
    }
}

// What tells one announcement of a card from another.
static uint32_t content_of(uint8_t flow, uint16_t vlan) { return uint32_t{flow} << 16 | vlan; }
static uint32_t content_of(const fxm_card_data_t &record) { return content_of(record.fcd_flowid, record.fcd_vlan_id); }

void announce_now(card_t &card, unsigned channels, bool notify)
{
    model_t &model = model_of(card.id);
    for (uint32_t channel = 0; channel < 4; ++channel) {
        const uint32_t port = channel / 2, mac = channel % 2;
        if ((channels & card_channels(card) & channel_bit(port, mac)) == 0)
            continue;
        u8 bytes[FRAME_ROOM];
        const size_t size = frame_announcement(bytes, card, mac, notify);
        carry(port, frame_t(bytes, bytes + size), model, [=, &model, content = content_of(card.flow, card.vlan)] {
            model.heard[port][mac] = world_now();
            model.contents.push_back(content);
            return true;
        });
    }
}

u64 time_now() { return world_now(); }

void timer_set(const card_t &card, u32 ms, std::function<void(card_t &)> act)
{
    world_at(world_now() + ms * MS, [id = card.id, act = std::move(act)] { act(*card_find(id)); });
}

// An answer may arrive after its read has ended. The library promises not to take it for another one if the read was
// sent again or had stayed unanswered; otherwise the wire holds it back.
static bool answer_arrives(read_t *read, uint8_t tag)
{
    if (last_use[tag] != read && (read->over || tags_are_short()))
        return false;
    read->answered = true;
    if (const auto call = calls.find(read->serial); call != calls.end())
        call->second->answers += 1;
    return true;
}

// Someone else's answer: it must not count.
static void forge(uint32_t port, frame_t frame, const model_t &model)
{
    frame[24] ^= 0x55;
    const uint32_t choice = world_below(3);
    port ^= choice == 0 ? 1 : 0;
    if (choice > 0)
        frame = from(choice == 1 ? some_model().id ^ 4 : model.id ^ (card_of(model).is_40g ? 2 : 1), frame);
    if (fxm_ports[port].pt_pcap != nullptr && link_up[port])
        put(port, frame, "a forged answer");
}

// The simulator's card answers.
void wire_send(unsigned port, const u8 *bytes, size_t size)
{
    model_t &model = model_of(asked_read->id);
    const frame_t frame(bytes, bytes + size);
    if (world_one_in(mood.forged))
        forge(port, frame, model);
    carry(port, frame, model, [=, read = asked_read] { return answer_arrives(read, frame[23]); });
}

// The read to which a request belongs.
static read_t *read_of(const command_t &command, uint64_t id)
{
    read_t *&last = last_use[command.tag];
    if (last != nullptr && last->serial == mine->serial && last->address == command.address && !last->answered) {
        last->frames += 1;
        last->at = world_now();
        return last;
    }
    if (last != nullptr)
        last->over = last->answered && last->frames == 1;
    return last = &reads.emplace_back(read_t{mine->serial, id, command.address, 1, false, false, world_now()});
}

static void reach_card(uint32_t port, const frame_t &frame, const command_t &command, read_t *read)
{
    if (command.kind == COMMAND_RESET)
        return receive_frame(port, frame.data(), frame.size());
    model_t &model = model_of(command.to);
    card_t &card = card_of(model);
    if (!link_up[port] || card.vlan != command.vlan || command.kind == COMMAND_VLAN)
        hurt(model, world_now());
    if (!link_up[port])
        return;
    asked_read = read;
    receive_frame(port, frame.data(), frame.size());
    for (auto &[address, history] : model.words)
        remember(history, word_of(card, address));
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
    frames_made += 1;
    world_note("port%u: command %u to 0x%.12" PRIx64 ", tag %u, register 0x%x, value 0x%x", port, command.kind,
               command.to, command.tag, command.address, command.value);
    read_t *read = command.kind == COMMAND_READ ? read_of(command, command.to & ~MAC_SECOND) : nullptr;
    mine->sent += 1;
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
    for (uint32_t port = 0; port < 2; ++port) {
        const uint32_t up = link_up[port] ? FXM_IF_OPER_UP : FXM_IF_OPER_DOWN;
        fxm_adapter_t *next = port == 0 ? &list[1] : nullptr;
        list[port] = {next, port + 1, 6, 6, {2, 0, 0, 0, 0, 0xF0}, up, {static_cast<char>('0' + port)}};
    }
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

// From one check of all channels to the next, at most.
static uint64_t pass_ms() { return g_config.devinfo_check_interval + g_config.devinfo_flag_check_interval + 20; }

// One channel of a card that is watched, against what has happened to it since the last quiet moment.
static void check_channel(model_t &model, const fxm_card_data_t &now, uint32_t port, uint32_t mac)
{
    const uint64_t heard = model.heard[port][mac], time = now.fcd_recvtime[port][mac];
    const bool up = now.fcd_state[port][mac] == 1, was = model.present && model.record.fcd_state[port][mac] == 1;
    const uint64_t expire = g_config.devinfo_expire_time;
    const uint64_t pass = pass_ms() + world_stalled() / MS;
    const auto must = [&](bool holds, const char *what) {
        MUST(holds, "card 0x%.12" PRIx64 " P%uM%u, %s: %s", model.id, port, mac, up ? "up" : "down", what);
    };
    const uint64_t before = model.present ? model.record.fcd_recvtime[port][mac] : 0;
    // It may have gone down just before.
    const bool unsure = heard != 0 && (fell[port] || (was && _fxm_get_time_ms() >= before + expire));
    model.unsure = model.unsure || unsure || (fell[port] && rose[port]);
    if (heard != 0 && !fell[port]) {
        must(up, "it has announced itself and is not up");
        must(_fxm_get_time_ms() - time <= (world_now() - heard) / MS + 1,
             "its time is not that of its last announcement");
    } else if (heard == 0) {
        must(time == before, "its time has changed in silence");
        must(was || !up, "it came up in silence");
        if (fell[port] && !rose[port])
            must(!up, "its link has fallen");
        else if (was && !fell[port] && _fxm_get_time_ms() < time + expire)
            must(up, "it went down too early");
        must(!up || _fxm_get_time_ms() <= time + expire + pass, "it is up after a long silence");
    }
    model.moved = model.moved || was != up;
}

static void compare_events(model_t &model)
{
    if (!model.unsure) {
        must(model, model.events[FXM_EVT_NEWDEVINFO] == (model.fresh ? 1 : 0),
             "a new card is told once, an old one never");
        must(model, model.fresh || (model.events[FXM_EVT_CHANNELSTATECHANGE] > 0) == model.moved,
             "a channel's change is told");
        must(model, model.fresh || (model.events[FXM_EVT_UPDATEDEVINFO] > 0) == (model.updated || model.moved),
             "a change is told, and nothing else");
    }
    model.fresh = model.moved = model.updated = model.unsure = false;
    std::fill_n(model.events, FXM_EVT_KINDS, 0);
}

static void check_watched(model_t &model, const fxm_card_data_t *now)
{
    const auto &contents = model.contents;
    must(model, (now != nullptr) == (model.present || !contents.empty()),
         now != nullptr ? "it is in its table" : "it is not in its table");
    if (now == nullptr)
        return;
    for (uint32_t channel = 0; channel < 4; ++channel)
        check_channel(model, *now, channel / 2, channel % 2);
    const bool changed = !model.present || content_of(model.record) != content_of(*now);
    model.fresh = model.fresh || !model.present;
    model.updated = model.updated || (model.present && changed);
    if (std::adjacent_find(contents.begin(), contents.end(), std::not_equal_to<>()) != contents.end())
        model.unsure = true; // it may have changed there and back
    const bool announced = std::find(contents.begin(), contents.end(), content_of(*now)) != contents.end();
    must(model, contents.empty() ? !changed : announced, "it does not show what it has announced");
}

static uint32_t channels_up(const fxm_card_data_t &record)
{
    return std::accumulate(&record.fcd_state[0][0], &record.fcd_state[0][0] + 4, 0u);
}

static void check_model(model_t &model)
{
    uint32_t ignore_state = FXM_WATCH;
    const auto find = [&](bool fxsv) {
        return fxsv ? find_record<fxsv_class>(model.id, &ignore_state)
                    : find_record<fxio_class>(model.id, &ignore_state);
    };
    const fxm_card_data_t *now = find(model.is_fxsv);
    must(model, find(!model.is_fxsv) == nullptr, "it is in the wrong table");
    const bool moving = model.acting > 0 || model.touched;
    model.touched = model.acting > 0;
    model.unsure = model.unsure || moving || model.mode == RESTARTED;
    if (!moving && model.mode == WATCHED)
        check_watched(model, now);
    else if (!moving && model.mode == IGNORED)
        must(model,
             (now != nullptr) == model.present && (now == nullptr || memcmp(now, &model.record, sizeof(*now)) == 0),
             "it is out of monitoring, and its record has changed");
    // A card that is back keeps its channels until enough passes have found them silent.
    const uint64_t longest = (g_config.devinfo_expire_time / g_config.devinfo_check_interval + 2) * pass_ms() * MS;
    const bool was_silent = model.contents.empty() && world_now() > model.mode_since + longest + world_stalled();
    const uint32_t up = now != nullptr ? channels_up(*now) : 0;
    must(model, moving || model.mode != RESTARTED || !was_silent || up == 0,
         "it is back and silent, and its channels are up");
    if (model.mode == RESTARTED && ignore_state == FXM_WATCH && model.acting == 0)
        model.mode = WATCHED;
    if (callbacks_inside == 0)
        compare_events(model);
    model.present = now != nullptr;
    model.record = now != nullptr ? *now : fxm_card_data_t{};
    if (moving || model.mode != WATCHED || up == 0)
        model.weak = quiet_moments;
    if (moving || !model.present)
        model.absent = quiet_moments;
    must(model, !model.denied || model.weak == quiet_moments || model.unsure || !model.contents.empty(),
         "it has a channel, and a call has found none");
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

// ------------------------------------------------------------------------------------------------------- what calls give

static void must(const call_t &call, bool holds, const char *what)
{
    MUST(holds, "%s of 0x%.12" PRIx64 ", flags %u, gave %d after %" PRIu64 " us: %s", fxm_row_names[call.row],
         call.model != nullptr ? call.model->id : 0, call.flags, call.code, (world_now() - call.begun) / US, what);
}

// What has gone wrong for the card during the call, or shortly before it.
static bool was_hurt(const call_t &call)
{
    return call.model->hurt + 2000 * MS > call.begun || world_stalled_until() >= call.begun || call.refused;
}

// The result of a call for a card, against what has happened to the card.
static void check_result(const call_t &call)
{
    const model_t &model = *call.model;
    const eeprom_t &engine = card_of(model).eeprom;
    const bool eeprom = call.row >= FXM_ROW_READ_EEPROM && call.row <= FXM_ROW_UNLOCK_EEPROM;
    const bool vanished = model.absent >= call.moment || model.touched;
    must(call, call.code != FXM_API_ENOENT || vanished || !call.present, "the card is in its table");
    if (call.code == FXM_API_ENOLINK && model.weak < call.moment && !model.touched && !was_hurt(call))
        call.model->denied = true;
    const bool strange = eeprom && (model.contested || engine.kind != ENGINE_NORMAL || call.engine_used);
    must(call, call.code != FXM_API_ETIMEDOUT || was_hurt(call) || strange, "every frame has arrived");
    must(call, call.code != FXM_API_EBUSY || (model.contested && (call.flags & FXM_FLAG_FORCELOCK) == 0),
         "nobody else has the lock");
    // The engine keeps the status of a refused form. If the start of the other form is lost, it is taken for that one's.
    const bool refuses = eeprom && (engine.kind == ENGINE_REFUSE || (was_hurt(call) && engine.forms == PLAIN_FORM));
    must(call, call.code != FXM_API_EPROTO || call.refused || tags_are_short() || refuses || vanished,
         "no frame was refused");
}

// Makes a call, and judges its result and the time that it took.
template <typename Call> static call_t make(call_t call, Call function)
{
    const uint64_t id = call.model != nullptr ? call.model->id : 0;
    if (call.model != nullptr) {
        const card_t &card = card_of(*call.model);
        call.present = call.model->present && (call.row != FXM_ROW_WRITE_MMSPAGE || card_is_multi_root(card));
        call.engine_used = card.eeprom.state != eeprom_t::IDLE;
        call.locked = lock_has(card, LOCK_MANAGER);
    }
    world_note("%s of 0x%.12" PRIx64 ", flags %u", fxm_row_names[call.row], id, call.flags);
    call.serial = ++last_serial;
    call_t *outer = std::exchange(mine, &call); // that of a callback, while it calls
    calls[call.serial] = &call;
    call.code = call.allowed != 0 ? judge(call.row, call.allowed, false, function) : function();
    calls.erase(call.serial);
    mine = outer;
    if (call.code == NOT_CALLED)
        return call;
    world_note("%s gave %d", fxm_row_names[call.row], call.code);
    calls_made[call.code] += 1;
    const uint64_t stall = std::max(world_stalled_until(), call.begun) - call.begun;
    const uint64_t slack = world_stalled() - call.stalled + stall + 50 * MS;
    const bool stopped = call.code == FXM_API_ENOSYS;
    must(call, stopped || !call.late, "the library has been stopped");
    must(call, !stopped || asked_at != 0, "the library runs");
    must(call, asked_at == 0 || world_now() - std::max(asked_at, call.begun) <= 100 * MS + slack,
         "a stop should have ended it");
    must(call, call.bound == 0 || world_now() - call.begun <= call.bound * MS + slack, "it took too long");
    if (call.model != nullptr && !stopped)
        check_result(call);
    return call;
}

// ------------------------------------------------------------------------------------------------- registers and EEPROMs

static uint64_t all_tries(uint32_t retries, uint32_t interval) { return (retries + 1ull) * interval; }

static uint64_t live_check()
{
    return 4 * all_tries(g_config.frame_retry_count_livecheck, g_config.frame_retry_interval_livecheck);
}

// Whether the word was such at some moment of the call.
static void must_have_held(const call_t &call, uint32_t address, uint32_t value, uint32_t mask)
{
    const history_t &history = call.model->words.at(address);
    for (size_t i = 0; i < history.size(); ++i)
        if ((i + 1 == history.size() || history[i + 1].first >= call.begun) &&
            ((history[i].second ^ value) & mask) == 0)
            return;
    world_note("0x%x was not in 0x%x", value, address);
    must(call, false, "a value that was not there during the call");
}

// The arguments of a call for words: those of registers, or with `eeprom` EEPROM those of the EEPROM.
struct words_t {
    explicit words_t(uint32_t which) : eeprom(which)
    {
        if (eeprom == 0 && world_one_in(2))
            param = {world_below(4), 2 + world_below(100)}, retry = &param;
        if (world_one_in(4))
            flags = eeprom != 0 ? FXM_FLAG_FORCELOCK : FXM_FLAG_LIVECHECK;
    }
    uint32_t eeprom, address = eeprom != 0 ? EEPROM_WORDS[world_below(5)] : 0x1000 + 4 * world_below(16), flags = 0;
    fxm_retry_param_t param{g_config.frame_retry_count, g_config.frame_retry_interval};
    const fxm_retry_param_t *retry = nullptr; // else those of the configuration
};

static call_t read_words(model_t &model, uint32_t eeprom, bool dump)
{
    words_t how(eeprom);
    const uint32_t words = dump ? 1 + world_below(eeprom != 0 ? 3 : 8) : 1;
    if (dump)
        how.address = eeprom != 0 ? 0 : 0x1000 + 4 * world_below(8);
    const uint64_t room = 50 * (how.param.retry_cnt + 12); // each frame may wait for it
    const uint64_t bound = live_check() + words * (all_tries(how.param.retry_cnt, how.param.retry_int) + room);
    uint32_t data[8] = {};
    uint64_t size = sizeof(data);
    const auto row = dump          ? eeprom != 0 ? FXM_ROW_DUMP_EEPROM : FXM_ROW_DUMP_REGISTER
                     : eeprom != 0 ? FXM_ROW_READ_EEPROM
                                   : FXM_ROW_READ_REGISTER;
    const auto read = eeprom != 0 ? fxm_read_eeprom : fxm_read_register;
    const auto dump_all = eeprom != 0 ? fxm_dump_eeprom : fxm_dump_register;
    const call_t call = make({row, &model, eeprom != 0 ? 0 : bound, how.flags, eeprom != 0 ? LOCKED : ANSWERED}, [&] {
        const uint32_t end = how.address + 4 * words;
        return dump ? dump_all(model.id, how.address, end, data, &size, how.retry, how.flags)
                    : read(model.id, how.address, data, how.retry, how.flags);
    });
    const bool done = call.code == FXM_API_SUCCESS, plain = done && !dump && eeprom == 0 && how.flags == 0;
    must(call, !dump || (size % 4 == 0 && (size == 4 * words) == done && size <= 4 * words), "the size is wrong");
    must(call, !done || call.answers >= words, "a value without an answer");
    must(call, !plain || was_hurt(call) || world_now() - call.begun < 4 * MS, "it took longer than its answer");
    for (uint32_t i = 0; i < (dump ? size / 4 : done ? 1 : 0); ++i)
        must_have_held(call, eeprom + how.address + 4 * i, data[i], UINT32_MAX);
    return call;
}

static call_t write_word(model_t &model, uint32_t eeprom, bool modify)
{
    words_t how(eeprom);
    how.flags |= eeprom != 0 || !world_one_in(3) ? FXM_FLAG_VERIFY : 0;
    const uint32_t value = next_value(), mask = !modify ? UINT32_MAX : world_one_in(2) ? 0xFFFF0000 : 0xFF;
    const auto row = eeprom != 0 ? FXM_ROW_WRITE_EEPROM : modify ? FXM_ROW_MODIFY_REGISTER : FXM_ROW_WRITE_REGISTER;
    const call_t call = make({row, &model, 0, how.flags, eeprom != 0 ? LOCKED : ANSWERED}, [&] {
        if (modify)
            return fxm_modify_register(model.id, how.address, value, mask, how.retry, how.flags);
        const auto write = eeprom != 0 ? fxm_write_eeprom : fxm_write_register;
        return write(model.id, how.address, value, how.retry, how.flags);
    });
    const bool done = call.code == FXM_API_SUCCESS;
    must(call, !done || modify || call.sent > 0, "nothing was sent");
    if (done && (how.flags & FXM_FLAG_VERIFY) != 0)
        must_have_held(call, eeprom + how.address, value, mask);
    return call;
}

static void use_register(model_t &model)
{
    const uint32_t choice = world_below(6);
    (void)(choice < 4 ? read_words(model, 0, choice == 3) : write_word(model, 0, choice == 4));
}

// Calls the function of a row as the table of all functions does. The arguments may be wrong, but not the card.
static const choice_t choose{[](uint32_t limit) { return limit == 40 || limit == 50 ? 0 : world_below(limit); }};
static call_t call_table(fxm_api_row_t row, model_t *model, uint64_t bound = 0)
{
    if (model != nullptr)
        targets.cards = targets.prey = {model->id};
    return make({row, model, bound}, [=] { return call_row(row, choose); });
}

// While somebody unlocks, nobody may transfer.
static void use_eeprom(model_t &model)
{
    const bool unlocks = model.eeprom_calls == 0 && world_one_in(6);
    if (model.unlocking)
        return;
    model.unlocking = unlocks;
    model.eeprom_calls += 1;
    const call_t call = unlocks           ? call_table(FXM_ROW_UNLOCK_EEPROM, &model)
                        : world_one_in(2) ? write_word(model, EEPROM, false)
                                          : read_words(model, EEPROM, world_one_in(2));
    model.eeprom_calls -= 1;
    model.unlocking = false;
    model.contested = model.contested || unlocks; // it may have left the other holder's
    const bool kept = lock_has(card_of(model), LOCK_MANAGER) && model.eeprom_calls == 0 && !call.locked;
    must(call, !kept || asked_at != 0 || was_hurt(call), "it has left the EEPROM lock");
}

// ------------------------------------------------------------------------------------------------------------- the others

static void read_card(model_t &model)
{
    (void)call_table(model.is_fxsv ? FXM_ROW_GET_FXSV : FXM_ROW_GET_FXIO, &model, 1);
}

// Changes what is monitored: one such call at a time for a card.
static void monitor(model_t &model)
{
    if (model.acting > 0)
        return;
    model.acting += 1;
    model.touched = true;
    const uint32_t choice = world_below(model.mode == IGNORED ? 4 : 7);
    const call_t call = call_table(choice < 3      ? FXM_ROW_RESTART_MONITOR
                                   : choice > 3    ? FXM_ROW_STOP_MONITOR
                                   : model.is_fxsv ? FXM_ROW_DELETE_FXSV
                                                   : FXM_ROW_DELETE_FXIO,
                                   &model, 1);
    model.touched = true;
    model.acting -= 1;
    if (call.code != FXM_API_SUCCESS || choice == 3)
        return;
    model.mode = choice < 3 ? RESTARTED : IGNORED;
    model.mode_since = world_now();
}

static void command(model_t &model)
{
    static constexpr fxm_api_row_t rows[] = {FXM_ROW_SET_VLANID, FXM_ROW_SEND_RESETFRAME, FXM_ROW_WRITE_MMSPAGE};
    (void)call_table(choose.pick(rows), &model, all_tries(3, 110 + 60) + live_check() + 1000);
}

// Events, counted by the callback that was registered first; and what each other registration has heard, by its number.
static uint64_t delivered[FXM_EVT_KINDS];
static std::map<uint64_t, std::pair<int32_t, uint64_t>> heard;

static void count_event(uint64_t id, int32_t kind, uint64_t)
{
    world_note("event %d of 0x%.12" PRIx64, kind, id);
    delivered[kind] += 1;
    model_of(id).events[kind] += 1;
}

static void on_event(uint64_t id, int32_t kind, uint64_t number)
{
    const uint64_t begun = world_now();
    MUST(!registrations[number].ended, "a callback was called after its end");
    auto &[known, last] = heard.try_emplace(number, kind, delivered[kind] - 1).first->second;
    MUST(known == kind && last + 1 == delivered[kind], "a callback has missed an event, or got it twice");
    last = delivered[kind];
    in_callback = true;
    callbacks_inside += 1;
    const uint32_t choice = world_below(8);
    if (choice == 0)
        world_sleep(world_below(40) * MS);
    else if (choice == 1)
        (void)read_words(model_of(id), 0, false);
    else if (choice == 2)
        (void)call_table(FXM_ROW_UNREGISTER_CALLBACK, nullptr, 1);
    else
        read_card(model_of(id));
    callbacks_inside -= 1;
    if (asked_at != 0)
        callbacks_took += world_now() - std::max(begun, asked_at);
}

static std::string directory;
static uint64_t queued[FXM_EVT_KINDS]; // events before the stop

static void stop_library()
{
    if (asked_at != 0)
        return;
    {
        fxm_mutex_guard_t guard(&g_stats_lock);
        std::copy_n(g_stats.evt_count, FXM_EVT_KINDS, queued);
    }
    if (asked_at != 0) // another one has come first
        return;
    world_note("a stop is asked for");
    watching = false;
    asked_at = world_now();
    MUST(fxm_fini_manager() == FXM_API_SUCCESS, "fxm_fini_manager failed");
    asked = true;
}

static void act()
{
    model_t &model = some_model();
    const uint32_t choice = world_below(100);
    if (choice < 45)
        use_register(model);
    else if (choice < 51)
        use_eeprom(model);
    else if (choice < 60)
        read_card(model);
    else if (choice < 67)
        (void)call_table(static_cast<fxm_api_row_t>(FXM_ROW_GET_FXSVIDS + world_below(6)), nullptr, 1);
    else if (choice < 77)
        monitor(model);
    else if (choice < 85)
        command(model);
    else if (choice < 96)
        (void)call_table(world_one_in(2) ? FXM_ROW_REGISTER_CALLBACK : FXM_ROW_UNREGISTER_CALLBACK, nullptr);
    else if (choice < 97)
        (void)call_table(FXM_ROW_STDUMP, nullptr, 20);
    else if (choice < 99 && asked_at == 0)
        MUST(fxm_init_manager(directory.c_str(), FXM_LOG_FATAL) == FXM_API_EBUSY, "a second start was let in");
    else
        stop_library();
}

// --------------------------------------------------------------------------------------------------- cards, disturbances

static uint64_t some_ms(uint64_t from, uint64_t to)
{
    return (from + world_below(static_cast<uint32_t>(to - from + 1))) * MS;
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
    // The library does not try the other form with a 40G card.
    card.eeprom.forms = card.is_40g ? PLAIN_FORM : static_cast<forms_t>(world_below(3));
    if (world_one_in(5))
        card.eeprom.kind = static_cast<engine_kind_t>(1 + world_below(4));
    model_t &model = models.emplace_back();
    model.id = card.id;
    model.is_fxsv = fxsv;
    for (uint32_t address = 0x1000; address < 0x1040; address += 4)
        remember(model.words[address], card.registers[address] = next_value());
    for (const uint32_t address : EEPROM_WORDS) {
        eeprom_set(card, address, next_value());
        remember(model.words[EEPROM + address], eeprom_get(card, address));
    }
    card_add(card);
}

// Announcements once a second on each channel, for ever.
static void announce_always(card_t &card)
{
    announce_now(card, ALL_CHANNELS & ~card.silent, false);
    world_at(world_now() + 1000 * MS, [&card] { announce_always(card); });
}

// Something that happens again and again, about every `seconds`.
static void disturb(uint32_t seconds, void (*what)())
{
    world_at(world_now() + some_ms(0, seconds * 2000ull), [=] {
        what();
        disturb(seconds, what);
    });
}

static void change_card(const model_t &model, bool notify)
{
    card_t &card = card_of(model);
    card.flow += 1;
    world_note("card 0x%.12" PRIx64 " changes", card.id);
    if (notify)
        announce_now(card, ALL_CHANNELS & ~card.silent, true);
}

static void change_all()
{
    at_once = true;
    for (const model_t &model : models)
        change_card(model, true);
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
    card_t &card = card_of(some_model());
    card.silent = world_one_in(2) ? ALL_CHANNELS : 1 + world_below(15);
    world_note("card 0x%.12" PRIx64 " falls silent on channels 0x%x", card.id, card.silent);
    world_at(world_now() + some_ms(0, 9000), [&card] { card.silent = 0; });
}

// Another holder of the EEPROM lock.
static void visit()
{
    model_t &model = some_model();
    card_t &card = card_of(model);
    if (model.eeprom_calls > 0 || lock_has(card, LOCK_MANAGER))
        return;
    model.contested = true;
    const uint32_t habit = world_below(4), times = 1 + world_below(3), ms = 1 + world_below(300);
    world_note("card 0x%.12" PRIx64 ": another holder with habit %u", card.id, habit);
    habit == 0   ? holder_keep(card, times)
    : habit == 1 ? holder_visit(card, ms, times)
    : habit == 2 ? holder_fight(card, times)
                 : holder_gone(card);
}

static void set_mood()
{
    static constexpr uint32_t odds[] = {2, 8, 32, 128};
    const bool rough = world_one_in(3);
    world_set_manner({odds[world_below(4)], rough ? 300 + world_below(3000) : 0, rough ? 50u : 0});
    const uint32_t noise = world_below(3), rate = noise == 0 ? 0 : noise == 1 ? 200 : 15; // one run in three is quiet
    const auto some = [=] { return rate != 0 && world_one_in(2) ? rate / 2 + world_below(rate) : 0; };
    mood = {some(), some(), some(), some(), some() * 5};
    for (const auto what : {flap, hush, visit, +[] { change_card(some_model(), world_one_in(2)); }}) {
        if (world_one_in(2))
            disturb(2 + world_below(20), what);
    }
}

// --------------------------------------------------------------------------------------------------------------- one run

static void configure()
{
    const uint32_t tag = world_one_in(2) ? 0 : world_below(128), last_tag = world_one_in(2) ? 255 : tag + 100;
    const auto key = [](const char *name, uint32_t least, uint32_t choices, uint32_t step = 1) {
        return std::string(name) + " = " + std::to_string(least + world_below(choices) * step) + "\n";
    };
    std::ofstream(directory + "/conf/fxm.conf")
        << "ether_port_ifindex = 1 2\n"
        << key("tag_min", tag, 1) << key("tag_max", last_tag, 1) << key("devinfo_flag_check_interval", 20, 15, 20)
        << key("devinfo_expire_time", 2000, 4, 1000) << key("frame_retry_interval", 5, 96)
        << key("frame_retry_count", 0, 11) << key("frame_retry_interval_livecheck", 5, 46)
        << key("frame_retry_count_livecheck", 0, 4) << key("eeprom_retry_count", 2, 10)
        << key("eeprom_verify_count", 6, 15) << key("force_lock_try_count", 0, 4)
        << key("eeprom_check_retry_count", 5, 20) << key("stats_interval", 5, 60);
}

// Starts fxm_init_manager on a thread, and gives that thread. It ends with `returned`.
static uint32_t start_library(std::pair<int, uint64_t> *returned)
{
    asked_at = callbacks_took = 0;
    asked = false;
    heard.clear();
    wire_clear();
    reads.clear();
    last_use = {};
    life += 1;
    configure();
    const uint32_t manager = world_spawn("manager", [=] {
        const int result = fxm_init_manager(directory.c_str(), FXM_LOG_FATAL);
        *returned = {result, world_now()};
    });
    std::fill_n(delivered, FXM_EVT_KINDS, 0);
    for (int32_t kind = 0; kind < static_cast<int32_t>(FXM_EVT_KINDS); ++kind) {
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
    return manager;
}

static void use_library()
{
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
}

// One life of the library, from fxm_init_manager to its return.
static void live_once()
{
    std::pair<int, uint64_t> returned;
    const uint32_t manager = start_library(&returned);
    use_library();
    world_join(manager);
    free_lists(); // the next start counts anew
    const uint64_t bound = (g_config.devinfo_flag_check_interval + 1000 + 150) * MS + callbacks_took + world_stalled();
    MUST(returned.first == FXM_API_SUCCESS, "fxm_init_manager gave %d", returned.first);
    MUST(returned.second - asked_at <= bound, "the stop took %" PRIu64 " ms", (returned.second - asked_at) / MS);
    fxm_mutex_guard_t guard(&g_stats_lock);
    for (uint32_t kind = 0; kind < FXM_EVT_KINDS; ++kind)
        MUST(delivered[kind] >= queued[kind] && delivered[kind] <= g_stats.evt_count[kind],
             "kind %u: %" PRIu64 " events before the stop, %" PRIu64 " delivered", kind, queued[kind], delivered[kind]);
    for (const auto &[number, what] : heard)
        MUST(registrations[number].ended || what.second == delivered[what.first],
             "a callback has missed an event before the stop");
}

static void run(uint64_t seed, bool trace)
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
    targets.callback = on_event;
    targets.failed = [](const std::string &what) { world_finding("%s", what.c_str()); };
    targets.retries = [](const choice_t &) {
        static constexpr fxm_retry_param_t params[] = {{3, 10}, {0, 110}, {1, 50}, {2, 0}};
        return world_one_in(4) ? nullptr : &choose.pick(params);
    };
    world_begin(seed, trace);
    for (uint32_t number = 0, most = 1 + world_below(5); number < most; ++number)
        add_card(number);
    set_mood();
    world_quiet = at_quiet_moment;
    for (const model_t &model : models)
        world_at(world_now() + some_ms(0, 1000), [&model] { announce_always(card_of(model)); });
    for (uint32_t lives = 1 + world_below(3); lives > 0; --lives)
        live_once();
    check_tables();
    check_accounts_empty();
    for (const model_t &model : models)
        must(model, card_of(model).counts.foul == 0, "the EEPROM was used without its lock");
}

static const char usage[] = "Usage: runs SEED [COUNT | --trace] [-h] [--version]\n"
                            "Runs the library in simulated time, as the seed says, or COUNT seeds, each in a process.\n"
                            "--trace prints each step. See robust/README.md; ./scripts/runs sums up many seeds.\n"
                            "Exit code: 0 no finding, 1 a finding, 2 wrong usage.\n";

static void run_and_tell(uint64_t seed, bool trace)
{
    for (const int number : {SIGABRT, SIGSEGV, SIGALRM, SIGBUS})
        signal(number, [](int) {
            world_report(); // what each thread waits for
            _exit(1);
        });
    alarm(120);
    run(seed, trace);
    printf("seed %" PRIu64 " hash %.16" PRIx64 " ns %" PRIu64 " steps %" PRIu64 " frames %" PRIu64 " calls", seed,
           world_hash(), world_now(), world_steps(), frames_made);
    for (const uint64_t number : calls_made)
        printf(" %" PRIu64, number);
    puts("");
    fflush(stdout);
    _exit(0); // nothing of the library runs at the end of a process
}

int main(int argc, char **argv)
{
    const std::string word = argc > 1 ? argv[1] : "", option = argc > 2 ? argv[2] : "1";
    if (word == "-h" || word == "--help" || word == "--version")
        return (word == "--version" ? puts("runs (fxm) " FXM_VERSION) : fputs(usage, stdout)) < 0;
    const uint64_t first = strtoull(word.c_str(), nullptr, 10), count = strtoull(option.c_str(), nullptr, 10);
    const bool trace = option == "--trace";
    if (first == 0 || argc > 3 || (count == 0 && !trace)) {
        fprintf(stderr, "runs: a seed is expected, and how many seeds or --trace\n%s", usage);
        return 2;
    }
    directory = std::filesystem::temp_directory_path() / "fxm-runs.XXXXXX";
    DEMAND(mkdtemp(directory.data()) != nullptr && std::filesystem::create_directory(directory + "/conf"));
    std::ofstream(directory + "/conf/fxm_log4c_win.properties") << "log4j.rootLogger=OFF\n";
    int findings = 0;
    for (uint64_t seed = first; seed < first + (trace ? 1 : count); ++seed) {
        int status = 1;
        fflush(stdout);
        if (fork() == 0)
            run_and_tell(seed, trace);
        if (wait(&status) < 0 || status != 0)
            findings += printf("seed %" PRIu64 " finding\n", seed);
    }
    std::filesystem::remove_all(directory);
    return findings == 0 ? 0 : 1;
}
