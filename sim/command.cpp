// One function for each command, and the table of commands at the end.
#include "command.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>

#include "announce.h"
#include "fields.h"
#include "holder.h"
#include "registers.h"
#include "text.h"
#include "wire.h"

using std::string;
using std::string_view;
using words_t = std::vector<string_view>;

bool command_quit;

static constexpr u64 COUNT_MAX = 1000000;

static const string _ok = "ok";

static constexpr string_view _error_prefix = "error: ";

static string _error(string_view what) { return string(_error_prefix) + string(what); }

static string _bad(string_view word, string_view expected)
{
    return _error(string(word) + ": expected " + string(expected));
}

// The card that a word names, or null with the reason in `answer`.
static card_t *_one(string_view word, string &answer)
{
    u64 id = 0;
    card_t *card = nullptr;
    if (word == "all")
        answer = _error("all: this command takes a single card");
    else if (!text_mac(word, id))
        answer = _bad(word, "a card, such as 02:00:00:00:10:00");
    else if (!(card = card_find(id)))
        answer = _error(string(word) + ": there is no such card");
    return card;
}

// Calls `act` for the card that a word names, or for all cards.
static string _each(string_view word, const std::function<void(card_t &)> &act)
{
    if (word == "all") {
        for (auto &[id, card] : cards)
            act(card);
        return _ok;
    }
    string answer = _ok;
    if (card_t *card = _one(word, answer))
        act(*card);
    return answer;
}

// Checks a card's fields against each other and against the other cards.
static bool _fits(const card_t &card, string &why)
{
    if (card.is_40g && (card.id & MAC_SECOND))
        why = text_of_mac(card.id) + ": the id of a 40g card must be even; the odd MAC is its second one";
    else if (card_conflict(card))
        why = text_of_mac(card.id) + ": its MAC belongs to card " + text_of_mac(card.id ^ MAC_SECOND);
    else
        return true;
    return false;
}

static string _add(class_t cls, const words_t &words)
{
    u64 id = 0;
    u64 count = 1;
    string why;

    if (!text_mac(words[1], id))
        return _bad(words[1], "an id, such as 02:00:00:00:10:00");
    card_t card = card_blank(cls, id);
    for (unsigned port = 0; port < PORTS; port++)
        card.on_port[port] = wire_is_open(port);
    for (size_t i = 2; i < words.size(); i++) {
        static constexpr string_view counted = "count=";
        if (words[i].starts_with(counted)) {
            if (!text_number(words[i].substr(counted.size()), COUNT_MAX, count) || count == 0)
                return _error(string(words[i]) + ": count takes 1 to 1000000");
        } else if (!field_set(card, words[i], why)) {
            return _error(why);
        }
    }
    if (id + (count - 1) * 2 > MAC_LAST)
        return _error("count: there are not enough MACs above this id");

    // All cards are added, or none.
    for (u64 i = 0; i < count; i++, card.id += 2) {
        if (card_find(card.id))
            return _error(text_of_mac(card.id) + ": this card exists already");
        if (!_fits(card, why))
            return _error(why);
    }
    card.id = id;
    for (u64 i = 0; i < count; i++, card.id += 2)
        announce_join(card_add(card));
    return _ok;
}

static string _fxsv(const words_t &words) { return _add(FXSV, words); }

static string _fxio(const words_t &words) { return _add(FXIO, words); }

// Sets the fields of all named cards or of none, so it tries them on a blank card of the same kind first.
static string _set(const words_t &words)
{
    string why;
    const auto apply = [&](card_t &card) {
        for (size_t i = 2; i < words.size() && why.empty(); i++)
            field_set(card, words[i], why);
    };
    const auto check = [&](card_t &card) {
        card_t trial = card_blank(card.cls, card.id);
        trial.is_40g = card.is_40g;
        apply(trial);
        if (why.empty())
            _fits(trial, why);
    };
    string answer = _each(words[1], check);
    if (answer == _ok && why.empty())
        _each(words[1], apply);
    return why.empty() ? answer : _error(why);
}

static string _remove(const words_t &words)
{
    std::vector<u64> ids;
    string answer = _each(words[1], [&](card_t &card) {
        announce_leave(card);
        ids.push_back(card.id);
    });
    for (u64 id : ids)
        card_remove(id);
    return answer;
}

// The channels in the words from number 2 on; all channels if there are none.
static bool _channels(const words_t &words, unsigned &channels, string &answer)
{
    channels = words.size() > 2 ? 0 : ALL_CHANNELS;
    for (size_t i = 2; i < words.size(); i++) {
        const string_view w = words[i];
        if (w.size() != 4 || w[0] != 'p' || w[2] != 'm' || (w[1] & ~1) != '0' || (w[3] & ~1) != '0') {
            answer = _bad(w, "a channel: p0m0, p0m1, p1m0 or p1m1");
            return false;
        }
        channels |= channel_bit(static_cast<unsigned>(w[1] - '0'), static_cast<unsigned>(w[3] - '0'));
    }
    return true;
}

static string _silent(const words_t &words)
{
    unsigned channels = 0;
    string answer;
    if (!_channels(words, channels, answer))
        return answer;
    return _each(words[1], [&](card_t &card) { card.silent |= channels; });
}

static string _speak(const words_t &words)
{
    unsigned channels = 0;
    string answer;
    if (!_channels(words, channels, answer))
        return answer;
    return _each(words[1], [&](card_t &card) {
        card.silent &= ~channels;
        announce_soon(card, channels);
    });
}

static string _announce(const words_t &words)
{
    unsigned channels = 0;
    string answer;
    if (!_channels(words, channels, answer))
        return answer;
    const bool notify = words[0] == "notify";
    if (words[1] != "all" && words.size() > 2)
        if (const card_t *card = _one(words[1], answer); card && !(card_channels(*card) & channels))
            return _error(string(words[2]) + ": the card has no such channel");
    return _each(words[1], [&](card_t &card) { announce_now(card, channels, notify); });
}

static string _deaf(const words_t &words)
{
    return _each(words[1], [&](card_t &card) { card.deaf = words[0] == "deaf"; });
}

static string _cards(const words_t &) { return "ok " + std::to_string(cards.size()); }

static string _word(u32 word) { return "ok 0x" + text_of_hex(word, 8); }

static string _reg(const words_t &words)
{
    u64 address = 0;
    u64 value = 0;
    string answer;

    if (!text_number(words[2], 0x3fffff, address))
        return _bad(words[2], "a register address of 22 bits");
    if (words.size() == 3) {
        const card_t *card = _one(words[1], answer);
        return card ? _word(register_peek(*card, static_cast<u32>(address))) : answer;
    }
    if (!text_number(words[3], UINT32_MAX, value))
        return _bad(words[3], "a value of 32 bits");
    return _each(words[1],
                 [&](card_t &card) { register_poke(card, static_cast<u32>(address), static_cast<u32>(value)); });
}

static string _watch(const words_t &words)
{
    return _each(words[1], [](card_t &card) {
        card.watching = true;
        card.watched.clear();
    });
}

static string _watched(const words_t &words)
{
    string answer;
    card_t *card = _one(words[1], answer);
    if (!card)
        return answer;
    if (!card->watching)
        return _error(string(words[1]) + ": the card is not watched");
    answer = _ok + card->watched;
    card->watched.clear();
    return answer;
}

static string _counts(const words_t &words)
{
    counts_t sum;
    string answer = _each(words[1], [&](card_t &card) {
        sum.reads += card.counts.reads;
        sum.writes += card.counts.writes;
        sum.vlansets += card.counts.vlansets;
        sum.resets += card.counts.resets;
        sum.pages += card.counts.pages;
        sum.announced += card.counts.announced;
        sum.foul += card.counts.foul;
    });
    if (answer != _ok)
        return answer;
    return "ok reads=" + std::to_string(sum.reads) + " writes=" + std::to_string(sum.writes) +
           " vlansets=" + std::to_string(sum.vlansets) + " resets=" + std::to_string(sum.resets) +
           " pages=" + std::to_string(sum.pages) + " announced=" + std::to_string(sum.announced) +
           " foul=" + std::to_string(sum.foul);
}

static string _reset_status(const words_t &words)
{
    string answer;
    const card_t *card = _one(words[1], answer);
    return card ? "ok 0x" + text_of_hex(card->reset_status, 2) : answer;
}

static string _page(const words_t &words)
{
    u64 number = 0;
    string answer;

    if (!text_number(words[2], PAGES - 1, number))
        return _bad(words[2], "a page, 0 to 1023");
    const card_t *card = _one(words[1], answer);
    if (!card)
        return answer;
    const auto page = card->pages.find(static_cast<u32>(number));
    if (page == card->pages.end())
        return _error("never written");
    answer = "ok ";
    for (u8 byte : page->second)
        answer += text_of_hex(byte, 2);
    return answer;
}

static constexpr string_view _fault_names[] = {"drop",      "late",  "twice",        "other-mac",  "other-port",
                                               "other-tag", "value", "ignore-write", "ignore-vlan"};

static string _fault(const words_t &words)
{
    fault_t fault;
    bool with_ms = false;
    bool with_value = false;

    const auto *kind = std::find(std::begin(_fault_names), std::end(_fault_names), words[2]);
    if (kind == std::end(_fault_names))
        return _error(string(words[2]) + ": there is no such fault");
    fault.kind = static_cast<fault_kind_t>(kind - std::begin(_fault_names));
    for (size_t i = 3; i < words.size(); i++) {
        const size_t equals = std::min(words[i].find('='), words[i].size());
        const string_view name = words[i].substr(0, equals);
        u64 number = 0;
        if (equals == words[i].size() || !text_number(words[i].substr(equals + 1), UINT32_MAX, number))
            return _bad(words[i], "NAME=NUMBER");
        const u32 n = static_cast<u32>(number);
        if (name == "addr") {
            fault.any_address = false;
            fault.address = n;
        } else if (name == "count" && n > 0) {
            fault.for_ever = false;
            fault.left = n;
        } else if (name == "every" && n > 0) {
            fault.every = n;
        } else if (name == "ms") {
            with_ms = true;
            fault.ms = n;
        } else if (name == "value") {
            with_value = true;
            fault.value = n;
        } else {
            return _bad(words[i], "addr=A, count=N, every=N, ms=N or value=V, where count and every are at least 1");
        }
    }
    if (fault.kind == FAULT_LATE && !with_ms)
        return _error("late: ms=N is missing");
    if (fault.kind == FAULT_VALUE && !with_value)
        return _error("value: value=V is missing");
    return _each(words[1], [&](card_t &card) { card.faults.push_back(fault); });
}

static string _heal(const words_t &words)
{
    return _each(words[1], [](card_t &card) { card.faults.clear(); });
}

static string _eeprom(const words_t &words)
{
    u64 address = 0;
    u64 value = 0;
    string answer;

    if (!text_number(words[2], EEPROM_SIZE - 4, address) || address % 4 != 0)
        return _bad(words[2], "a multiple of 4 up to 0x7fc");
    if (words.size() == 3) {
        const card_t *card = _one(words[1], answer);
        return card ? _word(eeprom_get(*card, static_cast<u32>(address))) : answer;
    }
    if (!text_number(words[3], UINT32_MAX, value))
        return _bad(words[3], "a value of 32 bits");
    return _each(words[1], [&](card_t &card) { eeprom_set(card, static_cast<u32>(address), static_cast<u32>(value)); });
}

static string _file_error(string_view path, string_view what)
{
    return _error(string(path) + ": " + string(what) + (errno ? string(": ") + std::strerror(errno) : ""));
}

static string _eeprom_load(const words_t &words)
{
    // One byte more than needed, to detect a file that is too long.
    u8 bytes[EEPROM_SIZE + 1];
    errno = 0;
    std::ifstream file(string(words[2]), std::ios::binary);
    if (!file)
        return _file_error(words[2], "cannot open the file");
    file.read(reinterpret_cast<char *>(bytes), sizeof bytes);
    if (file.gcount() != EEPROM_SIZE)
        return _file_error(words[2], "the file does not have 2048 bytes");
    return _each(words[1], [&](card_t &card) {
        for (u32 a = 0; a < EEPROM_SIZE; a += 4)
            eeprom_set(card, a,
                       u32{bytes[a]} | u32{bytes[a + 1]} << 8 | u32{bytes[a + 2]} << 16 | u32{bytes[a + 3]} << 24);
    });
}

static string _eeprom_save(const words_t &words)
{
    string answer;
    const card_t *card = _one(words[1], answer);
    if (!card)
        return answer;
    u8 bytes[EEPROM_SIZE];
    for (u32 a = 0; a < EEPROM_SIZE; a++)
        bytes[a] = static_cast<u8>(eeprom_get(*card, a) >> a % 4 * 8);
    errno = 0;
    std::ofstream file(string(words[2]), std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char *>(bytes), sizeof bytes);
    file.close();
    return file ? _ok : _file_error(words[2], "cannot write the file");
}

static string _eeprom_fill(const words_t &words)
{
    u64 seed = 0;
    if (!text_number(words[2], UINT32_MAX, seed))
        return _bad(words[2], "a seed of 32 bits");
    return _each(words[1], [&](card_t &card) {
        for (u32 a = 0; a < EEPROM_SIZE; a += 4)
            eeprom_set(card, a, (static_cast<u32>(seed) * 0x01000193U) ^ (a * 0x9e3779b1U));
    });
}

static string _holder(const words_t &words)
{
    struct habit_t {
        const char *name;
        size_t numbers;
        void (*begin)(card_t &card, const u32 *number);
    };
    static constexpr habit_t habits[] = {
        {"take", 0, [](card_t &card, const u32 *) { holder_take(card); }},
        {"give", 0, [](card_t &card, const u32 *) { holder_give(card); }},
        {"keep", 1, [](card_t &card, const u32 *n) { holder_keep(card, n[0]); }},
        {"visit", 2, [](card_t &card, const u32 *n) { holder_visit(card, n[0], n[1]); }},
        {"fight", 1, [](card_t &card, const u32 *n) { holder_fight(card, n[0]); }},
        {"gone", 0, [](card_t &card, const u32 *) { holder_gone(card); }},
    };
    const auto *habit = std::find_if(std::begin(habits), std::end(habits), [&](auto &h) { return words[2] == h.name; });
    if (habit == std::end(habits))
        return _bad(words[2], "take, give, keep, visit, fight or gone");
    if (words.size() != 3 + habit->numbers)
        return _error(string(words[2]) + ": expected " + std::to_string(habit->numbers) + " numbers");
    u32 numbers[2]{};
    for (size_t i = 0; i < habit->numbers; i++) {
        u64 number = 0;
        if (!text_number(words[3 + i], UINT32_MAX, number))
            return _bad(words[3 + i], "a number");
        numbers[i] = static_cast<u32>(number);
    }
    return _each(words[1], [&](card_t &card) { habit->begin(card, numbers); });
}

static string _quit(const words_t &)
{
    command_quit = true;
    return _ok;
}

struct command_rule_t {
    const char *name;
    const char *arguments;
    size_t at_least, at_most;
    string (*run)(const words_t &words);
};

static constexpr size_t ANY = SIZE_MAX;

static constexpr command_rule_t _command_rules[] = {
    {"fxsv", "ID [FIELD=VALUE ...]", 1, ANY, _fxsv},
    {"fxio", "ID [FIELD=VALUE ...]", 1, ANY, _fxio},
    {"set", "ID FIELD=VALUE ...", 2, ANY, _set},
    {"remove", "ID", 1, 1, _remove},
    {"silent", "ID [CHANNEL ...]", 1, ANY, _silent},
    {"speak", "ID [CHANNEL ...]", 1, ANY, _speak},
    {"deaf", "ID", 1, 1, _deaf},
    {"hear", "ID", 1, 1, _deaf},
    {"announce", "ID [CHANNEL]", 1, 2, _announce},
    {"notify", "ID [CHANNEL]", 1, 2, _announce},
    {"cards", "", 0, 0, _cards},
    {"reg", "ID ADDR [VALUE]", 2, 3, _reg},
    {"watch", "ID", 1, 1, _watch},
    {"watched", "ID", 1, 1, _watched},
    {"counts", "ID", 1, 1, _counts},
    {"reset-status", "ID", 1, 1, _reset_status},
    {"page", "ID N", 2, 2, _page},
    {"fault", "ID KIND [addr=A] [count=N] [every=N] [ms=N] [value=V]", 2, ANY, _fault},
    {"heal", "ID", 1, 1, _heal},
    {"eeprom", "ID ADDR [VALUE]", 2, 3, _eeprom},
    {"eeprom-load", "ID FILE", 2, 2, _eeprom_load},
    {"eeprom-save", "ID FILE", 2, 2, _eeprom_save},
    {"eeprom-fill", "ID SEED", 2, 2, _eeprom_fill},
    {"holder", "ID take|give|keep N|visit MS N|fight N|gone", 2, 4, _holder},
    {"quit", "", 0, 0, _quit},
};

static string _run(const words_t &words)
{
    for (const command_rule_t &rule : _command_rules)
        if (words[0] == rule.name) {
            if (words.size() - 1 < rule.at_least || words.size() - 1 > rule.at_most)
                return _error("usage: " + string(rule.name) + " " + rule.arguments);
            return rule.run(words);
        }
    return _error(string(words[0]) + ": there is no such command");
}

string command_run(string_view line)
{
    if (line.size() > COMMAND_MAX)
        return _error("the line is too long");
    const words_t words = text_words(line);
    if (words.empty())
        return _error("no command");
    string answer = _run(words);
    announce_waiting();
    return answer;
}

bool command_scenario(const char *path, string &why)
{
    errno = 0;
    std::ifstream file(path);
    if (!file) {
        why = string(path) + ": cannot open the file: " + std::strerror(errno);
        return false;
    }
    string line;
    for (unsigned number = 1; std::getline(file, line) && !command_quit; number++) {
        const words_t words = text_words(string_view(line).substr(0, line.find('#')));
        const string answer = words.empty() ? _ok : _run(words);
        if (answer.starts_with(_error_prefix)) {
            why = string(path) + ":" + std::to_string(number) + ": " + answer.substr(_error_prefix.size());
            return false;
        }
    }
    if (file.bad()) { // a directory opens, but does not read
        why = string(path) + ": cannot read the file";
        return false;
    }
    announce_waiting();
    return true;
}
