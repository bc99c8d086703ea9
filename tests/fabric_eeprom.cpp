// The EEPROM behind a card's registers. First the test plays the card by hand, and every register access of transfers
// and of both locks is told one by one; then whole operations meet simulated cards, with another holder beside.
#include <cstdio>
#include <future>
#include <iterator>
#include <sstream>

#include "fabric.h"

using namespace std::chrono_literals;

// A talk is the text of a call's register accesses in their order, numbers in hexadecimal: "r50f0=4" the library reads
// and is told 4, "r50f0=-" it reads and is not answered, resends included, "w50f0=4" it writes, "stop" it is stopped
// when it has taken the last answer.
using talk_t = std::string;

static talk_t times(int number, const talk_t &talk)
{
    talk_t all;
    for (int i = 0; i < number; ++i)
        all += talk;
    return all;
}

// Kind of lock: bit 0 alone says it.
static const talk_t BIT = "r520c=fffffffe ";
static const talk_t ID = "r520c=1 ";

// Bit lock: what was there, own bit set, read back; the watch, which here has two looks.
static const talk_t TAKE = "r50f0=0 w50f0=4 r50f0=4 ";
static const talk_t LOCK = TAKE + "r50f0=4 r50f0=4 ";
static const talk_t RELEASE = "r50f0=4 w50f0=0 r50f0=0 ";

// ID lock: asked for, registered, granted; taken out, gone.
static const talk_t ASK = "w5200=4 r5208=4 ";
static const talk_t GRANT = "r5200=4 ";
static const talk_t LEAVE = "w5204=4 r5208=0 ";

// Engine of a 1G/10G card, word at 0x5fc.
static const talk_t READY = "r5010=40000000 ";
static const talk_t SPLIT = "w5014=500fc r5014=500fc ";
static const talk_t PLAIN = "w5014=5fc r5014=5fc ";
static const talk_t START_READ = "w5010=80000001 ";
static const talk_t START_WRITE = "w5010=80000003 ";
static const talk_t DONE = "r5010=10000000 ";
static const talk_t REFUSED = "r5010=30000000 ";
static const talk_t FETCH = "r5018=cafe0001 ";
static const talk_t STORE = "w501c=feed0002 r501c=feed0002 ";
static const talk_t CLEAR = "w5010=0 r5010=40000000 ";
static const talk_t IN_VAIN = "r5010=0 w5010=0 r5010=0 "; // an engine that is never ready gets no command
static const talk_t READ = READY + SPLIT + START_READ + DONE + FETCH + CLEAR;
static const talk_t READ_BACK = READY + SPLIT + START_READ + DONE + "r5018=feed0002 " + CLEAR;
static const talk_t WRITE = READY + STORE + SPLIT + START_WRITE + DONE + CLEAR;
static const talk_t READ_5F4 = READY + "w5014=500f4 r5014=500f4 " + START_READ + DONE + FETCH + CLEAR;
static const talk_t READ_5F8 = READY + "w5014=500f8 r5014=500f8 " + START_READ + DONE + FETCH + CLEAR;

// Engine of a 40G card.
static const talk_t READY_40G = "r40=40000000 w44=5fc r44=5fc w40=80000001 ";
static const talk_t CLEAR_40G = "w40=0 r40=40000000 ";
static const talk_t READ_40G = READY_40G + "r40=10000000 r48=cafe0001 " + CLEAR_40G;
static const talk_t READ_BACK_40G = READY_40G + "r40=10000000 r48=feed0002 " + CLEAR_40G;
static const talk_t WRITE_40G =
    "r40=40000000 w4c=feed0002 r4c=feed0002 w44=5fc r44=5fc w40=80000003 r40=10000000 " + CLEAR_40G;

static talk_t locked(const talk_t &transfer) { return BIT + LOCK + transfer + RELEASE; }

// What the log says when all attempts for a word have failed, when both forms of address were refused, and when a lock
// was not to be had.
static const std::string READ_TIMED_OUT = "ERROR fxm_read_eeprom: Failed to _fxm_read_eeprom(). err=110\n";
static const std::string WRITE_TIMED_OUT = "ERROR fxm_write_eeprom: Failed to _fxm_write_eeprom(). err=110\n";
static const std::string FORM_REFUSED = "INFO _fxm_read_eeprom: Failed to _check_access(). err=13\n";
static const std::string READ_REFUSED = FORM_REFUSED + "ERROR fxm_read_eeprom: Failed to _fxm_read_eeprom(). err=71\n";
static const std::string BUSY = "TRACE _fxm_lock_eeprom: Failed to _fxm_lock_eeprom_impl(). err=16\n";
static const std::string READ_BUSY = BUSY + "ERROR fxm_read_eeprom: Failed to _fxm_lock_eeprom(). err=16\n";
static const std::string LOCK_TIMED_OUT = "ERROR fxm_read_eeprom: Failed to _fxm_lock_eeprom(). err=110\n";
static const std::string ID_TIMED_OUT = "ERROR fxm_read_eeprom: Failed to _fxm_lock_eeprom_id(). err=110\n";

// Three attempts for a register and for a word, two looks at an access, two tries for a lock in each pass, two looks in
// the watch, two clearings by force.
static const std::string QUICK = "frame_retry_count = 2\n"
                                 "eeprom_rw_interval = 1\n"
                                 "eeprom_check_retry_count = 1\n"
                                 "eeprom_retry_interval = 1\n"
                                 "eeprom_retry_count = 1\n"
                                 "eeprom_verify_count = 2\n"
                                 "force_lock_try_count = 2\n"
                                 "eeprom_lock_other_bit = 0x18\n";

constexpr uint32_t UNTOUCHED = 0xeeeeeeee;

// One exported call on a card.
using op_t = int (*)(uint64_t id, uint32_t *words, uint64_t *size);
static int read_word(uint64_t id, uint32_t *words, uint64_t *) { return fxm_read_eeprom(id, 0x5fc, words, nullptr, 0); }
static int read_low(uint64_t id, uint32_t *words, uint64_t *) { return fxm_read_eeprom(id, 0xfc, words, nullptr, 0); }
static int read_forced(uint64_t id, uint32_t *words, uint64_t *)
{
    return fxm_read_eeprom(id, 0x5fc, words, nullptr, FXM_FLAG_FORCELOCK);
}
static int read_checked(uint64_t id, uint32_t *words, uint64_t *)
{
    return fxm_read_eeprom(id, 0x5fc, words, nullptr, FXM_FLAG_LIVECHECK);
}
static int write_word(uint64_t id, uint32_t *, uint64_t *)
{
    return fxm_write_eeprom(id, 0x5fc, 0xfeed0002, nullptr, 0);
}
static int write_verified(uint64_t id, uint32_t *, uint64_t *)
{
    return fxm_write_eeprom(id, 0x5fc, 0xfeed0002, nullptr, FXM_FLAG_VERIFY);
}
static int dump_words(uint64_t id, uint32_t *words, uint64_t *size)
{
    return fxm_dump_eeprom(id, 0x5f4, 0x600, words, size, nullptr, 0);
}
static int unlock(uint64_t id, uint32_t *, uint64_t *) { return fxm_unlock_eeprom(id); }

// A register frame of the library's, as a talk has it; of a read the part that the library says.
static std::string access_of(const frame_t &frame)
{
    if (frame.size() != 60 || (frame[18] != 0x90 && frame[18] != 0x91))
        return "no register frame:\n" + to_hex(frame);
    const auto byte = [&](size_t at) { return static_cast<uint32_t>(frame[at]); };
    // Big-endian, bits 21..12 of the address at 25..16.
    const uint32_t addr = byte(24) << 20 | byte(25) << 12 | byte(26) << 8 | byte(27);
    const uint32_t value = byte(28) | byte(29) << 8 | byte(30) << 16 | byte(31) << 24;
    char text[32];
    if (frame[18] == 0x91)
        snprintf(text, sizeof(text), "r%x=", addr);
    else
        snprintf(text, sizeof(text), "w%x=%x", addr, value);
    return text;
}

// The card's answer to a Register Read.
static frame_t completion(const frame_t &request, uint32_t value)
{
    frame_t frame = hex("00 00 00 00 00 00" //  0 destination: who has asked
                        "00 00 00 00 00 00" //  6 source: the MAC that was asked
                        "81 00 80 64"       // 12 TPID; TCI: priority 4, VLAN 100
                        "88 b6"             // 16 EtherType
                        "20 00 00 00 00 00" // 18 Completion; not read; 23 tag
                        "00 00 00 00");     // 24 value, least significant byte first
    std::copy(request.begin() + 6, request.begin() + 12, frame.begin());
    std::copy(request.begin(), request.begin() + 6, frame.begin() + 6);
    frame[23] = request[23];
    for (size_t i = 0; i < 4; ++i)
        frame[24 + i] = static_cast<uint8_t>(value >> 8 * i);
    frame.resize(60);
    return frame;
}

static size_t count_of(const std::string &text, const std::string &part)
{
    size_t number = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        number += 1;
    return number;
}

class eeprom_t : public fabric_t
{
  protected:
    // A library that does not lose a card by its silence.
    void begin(const std::string &settings)
    {
        configure(settings + "devinfo_expire_time = 100000\ndevinfo_flag_check_interval = 5\n");
        ASSERT_NO_FATAL_FAILURE(run());
    }

    // ... and knows one card of each generation, which the test plays on port 0.
    void begin_by_hand(const std::string &settings)
    {
        ASSERT_NO_FATAL_FAILURE(begin(settings));
        wire[0]->send(fxsv_1g_frame());
        wire[0]->send(fxsv_40g_frame());
        ASSERT_NO_FATAL_FAILURE(settle(0));
    }

    // ... or knows these simulated cards, made and changed by `commands`. An answer that comes before the library waits
    // for it is lost; the short interval makes up for it soon.
    void begin_simulated(const std::string &settings, const std::vector<uint64_t> &ids,
                         const std::vector<std::string> &commands)
    {
        ASSERT_NO_FATAL_FAILURE(begin(settings + "frame_retry_interval = 5\nframe_retry_count = 100\n"));
        ASSERT_NO_FATAL_FAILURE(start_cards("--period 50"));
        for (const std::string &command : commands)
            cards(command);
        for (const uint64_t id : ids) {
            fxm_fxsv_t fxsv;
            fxm_fxio_t fxio;
            wait_for([&] { return fxm_get_fxsv(id, &fxsv) == 0 || fxm_get_fxio(id, &fxio) == 0; }, "a simulated card");
        }
    }

    // What the log has said of failures since it had `from` lines.
    std::string complaints(size_t from)
    {
        std::string found;
        const std::vector<std::string> &lines = log.lines();
        for (size_t i = from; i < lines.size(); ++i) {
            for (const char *sign : {"Failed to", "Other have acquired", "forcelock mode"}) {
                if (lines[i].find(sign) != std::string::npos && lines[i].find("EEXIST") == std::string::npos)
                    found += lines[i] + "\n";
            }
        }
        return found;
    }

    // Plays the card during `work`. A read that is sent again, with its tag, is answered again as it was.
    int converse(const talk_t &talk, const std::function<int()> &work)
    {
        std::istringstream stream(talk);
        const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
        const size_t done_before = log.count_with("_fxm_read_register: called. ret=0");
        size_t at = 0;
        size_t answered = 0;
        bool wrong = false;
        int tag = -1;
        frame_t answer;
        wire[0]->received();
        auto result = std::async(std::launch::async, work);
        for (bool over = false; !over;) {
            over = result.wait_for(200us) == std::future_status::ready; // its frames are all here then
            if (at < words.size() && words[at] == "stop" &&
                log.count_with("_fxm_read_register: called. ret=0") == done_before + answered) {
                fxm_fini_manager();
                at += 1;
            }
            for (const frame_t &frame : wire[0]->received()) {
                const std::string access = access_of(frame);
                const bool is_read = access.back() == '=';
                if (is_read && frame[23] == tag) {
                    if (!answer.empty())
                        wire[0]->send(answer);
                    continue;
                }
                const std::string word = at < words.size() ? words[at] : "nothing";
                if (wrong || !(is_read ? word.starts_with(access) : word == access)) {
                    EXPECT_TRUE(wrong) << talk << "\nafter " << at << " of these came " << access << ", not " << word;
                    wrong = true;
                    fxm_fini_manager(); // the call would go on for long
                    continue;
                }
                at += 1;
                if (!is_read)
                    continue;
                tag = frame[23];
                answer.clear();
                const std::string value = word.substr(access.size());
                if (value == "-")
                    continue;
                answer = completion(frame, static_cast<uint32_t>(std::stoul(value, nullptr, 16)));
                answered += 1;
                wire[0]->send(answer);
            }
        }
        EXPECT_TRUE(wrong || at == words.size()) << talk << "\nit was over after " << at << " of these";
        return result.get();
    }

    // One call on the card `card`: what it says on the wire, its result, all that the log tells of failures, and how
    // many words it has read. The first failure ends the test.
    void play(const char *what, op_t op, const talk_t &talk, int result, const std::string &told = "", uint32_t got = 0)
    {
        if (HasFailure())
            return;
        SCOPED_TRACE(what);
        uint32_t words[3] = {UNTOUCHED, UNTOUCHED, UNTOUCHED};
        uint64_t size = sizeof(words);
        const size_t before = log.lines().size();
        EXPECT_EQ(converse(talk, [&] { return op(card, words, &size); }), result);
        EXPECT_EQ(complaints(before), told);
        if (op == read_word || op == read_forced || op == read_checked)
            got = result == FXM_API_SUCCESS ? 1 : 0;
        for (uint32_t i = 0; i < 3; ++i)
            EXPECT_EQ(words[i], i < got ? 0xcafe0001 : UNTOUCHED) << "word " << i;
        EXPECT_EQ(size, op == dump_words ? got * 4 : sizeof(words));
    }

    std::string reg(const std::string &id, const std::string &addr) { return cards("reg " + id + " " + addr); }

    // Nobody has the lock or waits for it, and no access was begun while it was not the library's.
    void expect_released(const std::string &id)
    {
        EXPECT_EQ(reg(id, "0x50f0"), "0x00000000");
        EXPECT_EQ(reg(id, "0x5208"), "0x00000000");
        EXPECT_EQ(count_of(cards("counts " + id), " foul=0"), 1u) << cards("counts " + id);
    }

    uint64_t card = FXSV_1G;
};

// ------------------------------------------------------------------------------------------------- the card by hand

TEST_F(eeprom_t, word_costs_these_register_frames_and_no_others)
{
    const talk_t bit_lock = TAKE + times(20, "r50f0=4 ");
    const talk_t id_lock = ASK + GRANT;
    ASSERT_NO_FATAL_FAILURE(begin_by_hand(""));
    play("read, bit lock", read_word, BIT + bit_lock + READ + RELEASE, FXM_API_SUCCESS);
    play("write, bit lock", write_word, BIT + bit_lock + WRITE + RELEASE, FXM_API_SUCCESS);
    play("verify, bit lock", write_verified, BIT + bit_lock + WRITE + READ_BACK + RELEASE, FXM_API_SUCCESS);
    play("read, ID lock", read_word, ID + id_lock + READ + LEAVE, FXM_API_SUCCESS);
    play("write, ID lock", write_word, ID + id_lock + WRITE + LEAVE, FXM_API_SUCCESS);
    play("verify, ID lock", write_verified, ID + id_lock + WRITE + READ_BACK + LEAVE, FXM_API_SUCCESS);

    // A dump looks at the kind of lock once, and locks for each word.
    EXPECT_EQ(count_of(bit_lock + READ + RELEASE, " "), 34u);
    play("dump, bit lock", dump_words,
         BIT + bit_lock + READ_5F4 + RELEASE + bit_lock + READ_5F8 + RELEASE + bit_lock + READ + RELEASE,
         FXM_API_SUCCESS, "", 3);
    play("dump, ID lock", dump_words,
         ID + id_lock + READ_5F4 + LEAVE + id_lock + READ_5F8 + LEAVE + id_lock + READ + LEAVE, FXM_API_SUCCESS, "", 3);

    card = FXSV_40G;
    play("read, 40G, bit lock", read_word, BIT + bit_lock + READ_40G + RELEASE, FXM_API_SUCCESS);
    play("write, 40G, bit lock", write_word, BIT + bit_lock + WRITE_40G + RELEASE, FXM_API_SUCCESS);
    play("read, 40G, ID lock", read_word, ID + id_lock + READ_40G + LEAVE, FXM_API_SUCCESS);
    play("verify, 40G, ID lock", write_verified, ID + id_lock + WRITE_40G + READ_BACK_40G + LEAVE, FXM_API_SUCCESS);
}

TEST_F(eeprom_t, settings_change_the_accesses_of_a_word)
{
    const talk_t plain_read = READY + PLAIN + START_READ + DONE + FETCH + CLEAR;
    ASSERT_NO_FATAL_FAILURE(begin_by_hand("eeprom_verify_count = 0\n"
                                          "eeprom_type = 1\n"
                                          "eeprom_check_retry_count = 0\n"
                                          "eeprom_retry_count = 0\n"
                                          "force_lock_try_count = 0\n"));
    play("no watch, plain form", read_word, BIT + TAKE + plain_read + RELEASE, FXM_API_SUCCESS);
    play("refused at once", read_word, BIT + TAKE + READY + PLAIN + START_READ + REFUSED + CLEAR + RELEASE,
         FXM_API_EPROTO, READ_REFUSED);
    play("one look", read_word, BIT + TAKE + READY + PLAIN + START_READ + "r5010=1 " + CLEAR + plain_read + RELEASE,
         FXM_API_SUCCESS);
    play("one try", read_word, BIT + "r50f0=8 ", FXM_API_EBUSY, READ_BUSY);
    play("force that may not clear anything", read_forced, BIT + "r50f0=8 ", FXM_API_ETIMEDOUT,
         "WARN _fxm_lock_eeprom: EEPROM access forcelock mode retry timedout.\n" + LOCK_TIMED_OUT);
}

TEST_F(eeprom_t, engine_that_fails_is_tried_again_unless_it_refuses)
{
    const talk_t refused_twice = READY + SPLIT + START_READ + REFUSED + PLAIN + START_READ + REFUSED;
    ASSERT_NO_FATAL_FAILURE(begin_by_hand(QUICK));
    play("not ready, then occupied", read_word, locked("r5010=0 " + CLEAR + "r5010=40000001 " + CLEAR + READ),
         FXM_API_SUCCESS);
    play("finished but occupied is no end", read_word,
         locked(READY + SPLIT + START_READ + "r5010=10000001 " + DONE + FETCH + CLEAR), FXM_API_SUCCESS);
    play("does not finish", read_word, locked(READY + SPLIT + START_READ + "r5010=1 r5010=1 " + CLEAR + READ),
         FXM_API_SUCCESS);
    play("split form refused, whatever bit 0 says", read_word,
         locked(READY + SPLIT + START_READ + "r5010=30000001 " + PLAIN + START_READ + DONE + FETCH + CLEAR),
         FXM_API_SUCCESS);
    play("both forms refused", read_word, locked(refused_twice + CLEAR), FXM_API_EPROTO, READ_REFUSED);
    play("both forms are one value", read_low,
         locked(READY + times(2, "w5014=fc r5014=fc " + START_READ + REFUSED) + CLEAR), FXM_API_EPROTO, READ_REFUSED);
    play("a refusal counts when the engine is ready again", read_word,
         locked(refused_twice + "w5010=0 r5010=40000001 " + READ), FXM_API_SUCCESS, FORM_REFUSED);
    play("a word counts when the engine is ready again", read_word,
         locked(READY + SPLIT + START_READ + DONE + "r5018=dead0000 w5010=0 r5010=0 " + READ), FXM_API_SUCCESS);
    play("word not answered", read_word, locked(READY + SPLIT + START_READ + DONE + "r5018=- " + CLEAR + READ),
         FXM_API_SUCCESS, "TRACE _fxm_read_eeprom: Failed to _fxm_read_register() of getting EEPROM data. err=110\n");
    play("status not answered", read_word, locked("r5010=- w5010=0 r5010=- " + READ), FXM_API_SUCCESS,
         "TRACE _fxm_read_eeprom: Failed to _fxm_read_register() of access check. err=110\n"
         "TRACE _fxm_read_eeprom: Failed to _fxm_read_register(). err=110\n");
    play("address does not stick", read_word, locked(READY + times(3, "w5014=500fc r5014=0 ") + CLEAR + READ),
         FXM_API_SUCCESS);
    play("never ready", read_word, locked(times(3, IN_VAIN)), FXM_API_ETIMEDOUT, READ_TIMED_OUT);
    play("never ready at the second word of a dump", dump_words,
         BIT + LOCK + READ_5F4 + RELEASE + LOCK + times(3, IN_VAIN) + RELEASE, FXM_API_ETIMEDOUT,
         "ERROR fxm_dump_eeprom: Failed to _fxm_dump_eeprom(). err=110\n", 1);

    play("written, whatever the clearing finds", write_word,
         locked(READY + STORE + SPLIT + START_WRITE + DONE + "w5010=0 r5010=- "), FXM_API_SUCCESS,
         "TRACE _fxm_write_eeprom_impl: Failed to _fxm_read_register(). err=110\n");
    play("data does not stick", write_word, locked(READY + times(3, "w501c=feed0002 r501c=0 ") + CLEAR + WRITE),
         FXM_API_SUCCESS, "TRACE _fxm_write_eeprom_impl: Failed to _fxm_write_register() of setting data. err=110\n");
    play("write refused", write_word,
         locked(READY + STORE + SPLIT + START_WRITE + REFUSED + PLAIN + START_WRITE + REFUSED + "w5010=0 r5010=0 "),
         FXM_API_EPROTO,
         "INFO _fxm_write_eeprom_impl: Failed to _check_access(). err=13\n"
         "ERROR fxm_write_eeprom: Failed to _fxm_write_eeprom(). err=71\n");
    play("write, never ready", write_word, locked(times(3, IN_VAIN)), FXM_API_ETIMEDOUT, WRITE_TIMED_OUT);
    play("reads back differently", write_verified, locked(WRITE + READ + WRITE + READ_BACK), FXM_API_SUCCESS);
    play("cannot be read back", write_verified, locked(WRITE + times(3, IN_VAIN) + WRITE + READ_BACK), FXM_API_SUCCESS);
    play("always reads back differently", write_verified, locked(times(3, WRITE + READ)), FXM_API_ETIMEDOUT,
         WRITE_TIMED_OUT);

    card = FXSV_40G;
    play("a 40G card has no second form", read_word, locked(READY_40G + "r40=30000000 " + CLEAR_40G), FXM_API_EPROTO,
         READ_REFUSED);
}

TEST_F(eeprom_t, bit_lock_is_taken_and_left_as_the_register_tells)
{
    const talk_t pass = times(2, "r50f0=8 ");
    const talk_t take_in_vain = "r50f0=0 " + times(3, "w50f0=4 r50f0=0 ");
    const talk_t release_in_vain = "r50f0=4 " + times(3, "w50f0=0 r50f0=4 ");
    const talk_t release_100 = "r50f0=104 w50f0=100 r50f0=100 "; // beside a bit that is nobody's
    ASSERT_NO_FATAL_FAILURE(begin_by_hand(QUICK));
    play("his bit counts before the own one", read_word, BIT + times(2, "r50f0=c "), FXM_API_EBUSY, READ_BUSY);
    play("an own bit left behind is held", read_word, BIT + "r50f0=4 " + READ + RELEASE, FXM_API_SUCCESS);
    play("other bits are kept", read_word, BIT + "r50f0=100 w50f0=104 " + times(3, "r50f0=104 ") + READ + release_100,
         FXM_API_SUCCESS);
    play("any bit that changes in the watch is a loss", read_word,
         BIT + TAKE + "r50f0=4 r50f0=104 " + release_100 + "r50f0=0 w50f0=4 " + times(3, "r50f0=4 ") + READ + RELEASE,
         FXM_API_SUCCESS);
    play("an own bit cleared leaves nothing to undo", read_word, BIT + TAKE + "r50f0=8 " + "r50f0=8 ", FXM_API_EBUSY,
         READ_BUSY);
    play("a watch not answered backs off", read_word, BIT + TAKE + "r50f0=- " + RELEASE + LOCK + READ + RELEASE,
         FXM_API_SUCCESS);
    play("backing off in vain", read_word,
         BIT + TAKE + "r50f0=c " + "r50f0=c " + times(3, "w50f0=8 r50f0=c ") + "r50f0=8 ", FXM_API_EBUSY,
         "TRACE _fxm_lock_eeprom_impl: Failed to _fxm_unlock_eeprom(). err=110\n" + READ_BUSY);
    play("a bit that does not stick is not undone", read_word, BIT + take_in_vain + "r50f0=4 " + READ + RELEASE,
         FXM_API_SUCCESS);
    play("the last try says why", read_word, BIT + "r50f0=8 " + take_in_vain, FXM_API_ETIMEDOUT,
         "TRACE _fxm_lock_eeprom: Failed to _fxm_lock_eeprom_impl(). err=110\n" + LOCK_TIMED_OUT);
    play("a dump meets a holder at the third word", dump_words,
         BIT + LOCK + READ_5F4 + RELEASE + LOCK + READ_5F8 + RELEASE + pass, FXM_API_EBUSY,
         BUSY + "ERROR _fxm_dump_eeprom: Failed to _fxm_lock_eeprom(). err=16\n"
                "ERROR fxm_dump_eeprom: Failed to _fxm_dump_eeprom(). err=16\n",
         2);

    play("force on a free lock", read_forced, locked(READ), FXM_API_SUCCESS);
    play("force clears all bits of others after a pass, and no more", read_forced,
         BIT + times(2, "r50f0=110 ") + "r50f0=118 w50f0=100 r50f0=100 " + "r50f0=100 w50f0=104 " +
             times(3, "r50f0=104 ") + READ + release_100,
         FXM_API_SUCCESS);
    play("force after a pass that ended otherwise", read_forced,
         BIT + "r50f0=8 " + take_in_vain + "r50f0=c w50f0=4 r50f0=4 " + "r50f0=4 " + READ + RELEASE, FXM_API_SUCCESS);
    play("force gives up", read_forced, BIT + times(2, pass + "r50f0=8 w50f0=0 r50f0=0 ") + pass, FXM_API_ETIMEDOUT,
         "WARN _fxm_lock_eeprom: EEPROM access forcelock mode retry timedout.\n" + LOCK_TIMED_OUT);
    play("force in vain", read_forced, BIT + pass + "r50f0=8 " + times(3, "w50f0=0 r50f0=8 "), FXM_API_ETIMEDOUT,
         "TRACE _fxm_lock_eeprom: Failed to _fxm_modify_register(). ret=110\n" + LOCK_TIMED_OUT);

    play("a read is good without its release", read_word, BIT + LOCK + READ + release_in_vain, FXM_API_SUCCESS,
         "ERROR fxm_read_eeprom: Failed to _fxm_unlock_eeprom(). err=110\n");
    play("a word of a dump is not", dump_words, BIT + LOCK + READ_5F4 + release_in_vain, FXM_API_ETIMEDOUT,
         "ERROR _fxm_dump_eeprom: Failed to _fxm_unlock_eeprom(). err=110\n"
         "ERROR fxm_dump_eeprom: Failed to _fxm_dump_eeprom(). err=110\n");
    play("kind of lock not answered", read_word, "r520c=- ", FXM_API_ETIMEDOUT,
         "ERROR fxm_read_eeprom: Failed to _fxm_get_locktype(). err=110\n");
}

TEST_F(eeprom_t, id_lock_is_asked_for_and_given_back_as_the_arbiter_tells)
{
    const std::string others = "TRACE _fxm_lock_check_id: Other have acquired the lock.\n";
    const std::string id_busy = "ERROR fxm_read_eeprom: Failed to _fxm_lock_eeprom_id(). err=16\n";
    const talk_t pass = times(2, "r5200=8 ");
    const talk_t leave_8 = "w5204=4 r5208=8 "; // he is left alone
    const talk_t leave_in_vain = times(2, "w5204=4 r5208=4 ");
    ASSERT_NO_FATAL_FAILURE(begin_by_hand(QUICK));
    play("asked until it stands", read_word, ID + "w5200=4 r5208=8 " + ASK + GRANT + READ + LEAVE, FXM_API_SUCCESS);
    play("asked, not answered", read_word, ID + "w5200=4 r5208=- " + ASK + GRANT + READ + LEAVE, FXM_API_SUCCESS);
    play("never stands", read_word, ID + times(2, "w5200=4 r5208=8 "), FXM_API_ETIMEDOUT, ID_TIMED_OUT);
    play("two owners are no grant; left until it is done", read_word,
         ID + "w5200=4 r5208=c " + "r5200=c r5200=4 " + READ + "w5204=4 r5208=c " + leave_8, FXM_API_SUCCESS);
    play("never granted", read_word, ID + ASK + pass + leave_8, FXM_API_EBUSY, others + id_busy);
    play("never granted and not taken back", read_word, ID + ASK + pass + leave_in_vain, FXM_API_EBUSY,
         others + "TRACE _fxm_lock_eeprom_id: Failed to _fxm_unlock_eeprom_id(). err=110\n" + id_busy);
    play("the last look says why", read_word, ID + ASK + "r5200=8 r5200=- " + LEAVE, FXM_API_ETIMEDOUT,
         "TRACE _fxm_lock_check_id: Failed to _fxm_read_register(). err=110\n" + ID_TIMED_OUT);

    play("force after a pass, without a new request", read_forced,
         ID + ASK + pass + "w5204=8 r5208=4 " + GRANT + READ + LEAVE, FXM_API_SUCCESS);
    play("force with nobody to take out", read_forced, ID + ASK + "r5200=8 r5200=0 " + GRANT + READ + LEAVE,
         FXM_API_SUCCESS);
    play("force gives up", read_forced, ID + ASK + times(2, pass + "w5204=8 r5208=c w5204=8 r5208=4 ") + pass + leave_8,
         FXM_API_ETIMEDOUT, "WARN _fxm_lock_check_id: EEPROM access forcelock mode retry timedout.\n" + ID_TIMED_OUT);
    play("force in vain", read_forced, ID + ASK + pass + times(2, "w5204=8 r5208=c ") + leave_8, FXM_API_ETIMEDOUT,
         ID_TIMED_OUT);

    play("a write is good without its release", write_word, ID + ASK + GRANT + WRITE + leave_in_vain, FXM_API_SUCCESS,
         "ERROR fxm_write_eeprom: Failed to _fxm_unlock_eeprom_id(). err=110\n");
    play("a word of a dump is not", dump_words, ID + ASK + GRANT + READ_5F4 + leave_in_vain, FXM_API_ETIMEDOUT,
         "ERROR _fxm_dump_eeprom: Failed to _fxm_unlock_eeprom_id(). err=110\n"
         "ERROR fxm_dump_eeprom: Failed to _fxm_dump_eeprom(). err=110\n");
}

TEST_F(eeprom_t, unlock_clears_what_others_have_left)
{
    ASSERT_NO_FATAL_FAILURE(begin_by_hand(QUICK));
    play("the own bit stays", unlock, BIT + "r50f0=c w50f0=4 r50f0=4 ", FXM_API_SUCCESS);
    play("nothing to clear", unlock, BIT + "r50f0=4 ", FXM_API_SUCCESS);
    play("a bit that stays", unlock, BIT + "r50f0=8 " + times(3, "w50f0=0 r50f0=8 "), FXM_API_ETIMEDOUT,
         "ERROR fxm_unlock_eeprom: Failed to _fxm_unlock_eeprom_impl(). err=110\n");
    play("all holders go", unlock, ID + "w5204=ffff r5208=1 w5204=ffff r5208=10000 ", FXM_API_SUCCESS);
    play("holders that stay", unlock, ID + times(2, "w5204=ffff r5208=c "), FXM_API_ETIMEDOUT,
         "ERROR fxm_unlock_eeprom: Failed to _fxm_unlock_eeprom_id(). err=110\n");
    play("kind of lock not answered", unlock, "r520c=- ", FXM_API_ETIMEDOUT,
         "ERROR fxm_unlock_eeprom: Failed to _fxm_get_locktype(). err=110\n");
}

TEST_F(eeprom_t, card_out_of_monitoring_is_reached_through_the_live_check_alone)
{
    ASSERT_NO_FATAL_FAILURE(begin_by_hand(QUICK + "frame_retry_count_livecheck = 2\n"));
    play("a connected channel needs no probe", read_checked, locked(READ), FXM_API_SUCCESS);
    ASSERT_EQ(fxm_stop_monitor(FXSV_1G), FXM_API_SUCCESS);
    for (const op_t op : {read_word, write_word, dump_words, unlock})
        play("unmonitored", op, "", FXM_API_ENOLINK);
    play("probe answered", read_checked, "r0=12345678 " + locked(READ), FXM_API_SUCCESS);
    play("probe not answered", read_checked, "r0=- ", FXM_API_ENOLINK,
         "ERROR fxm_read_eeprom: Failed to _fxm_livecheck(). err=67\n");

    // The failed call has given back the card's write lock.
    ASSERT_EQ(fxm_restart_monitor(FXSV_1G), FXM_API_SUCCESS);
    wire[0]->send(fxsv_1g_frame());
    settle(0);
    play("monitored again", read_word, locked(READ), FXM_API_SUCCESS);

    ip("link set card0 down");
    wait_for([&] { return fxsv(FXSV_1G).fsv_card.fcd_state[0][0] == 0; }, "the channel to go down");
    play("no channel", read_word, "", FXM_API_ENOLINK,
         "ERROR fxm_read_eeprom: Failed to _fxm_get_locktype(). err=67\n");
    play("unlock, no channel", unlock, "", FXM_API_ENOLINK,
         "ERROR fxm_unlock_eeprom: Failed to _fxm_get_locktype(). err=67\n");
}

TEST_F(eeprom_t, arguments_that_make_no_sense_reach_no_card)
{
    uint32_t words[512] = {UNTOUCHED};
    uint64_t size = 0x800;
    EXPECT_EQ(fxm_read_eeprom(FXSV_1G, 0, words, nullptr, 0), FXM_API_ENOSYS);
    EXPECT_EQ(fxm_write_eeprom(FXSV_1G, 0, 0, nullptr, 0), FXM_API_ENOSYS);
    EXPECT_EQ(fxm_dump_eeprom(FXSV_1G, 0, 0x800, words, nullptr, nullptr, 0), FXM_API_ENOSYS);
    EXPECT_EQ(fxm_dump_eeprom(FXSV_1G, 0, 0x800, words, &size, nullptr, 0), FXM_API_ENOSYS);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(fxm_unlock_eeprom(FXSV_1G), FXM_API_ENOSYS);

    ASSERT_NO_FATAL_FAILURE(begin_by_hand(QUICK));
    wire[0]->received();
    const fxm_retry_param_t no_wait = {5, 0};
    const fxm_retry_param_t retry = {5, 70};
    for (const uint32_t addr : {0x800u, 0x7feu, 0xfffffffcu, 0x1u}) {
        EXPECT_EQ(fxm_read_eeprom(FXSV_1G, addr, words, nullptr, 0), FXM_API_EINVAL) << addr;
        EXPECT_EQ(fxm_write_eeprom(FXSV_1G, addr, 0, nullptr, 0), FXM_API_EINVAL) << addr;
    }
    EXPECT_EQ(fxm_read_eeprom(FXSV_1G, 0, nullptr, nullptr, 0), FXM_API_EINVAL);
    EXPECT_EQ(fxm_read_eeprom(FXSV_1G, 0, words, &no_wait, 0), FXM_API_EINVAL);
    EXPECT_EQ(fxm_write_eeprom(FXSV_1G, 0, 0, &no_wait, 0), FXM_API_EINVAL);
    EXPECT_EQ(fxm_dump_eeprom(FXSV_1G, 0, 0x800, words, nullptr, nullptr, 0), FXM_API_EINVAL);
    const auto refused = [&](uint32_t startaddr, uint32_t endaddr, uint32_t *buffer, uint64_t room,
                             const fxm_retry_param_t *retry_param) {
        SCOPED_TRACE(testing::Message() << std::hex << startaddr << " to " << endaddr << " in " << room);
        EXPECT_EQ(fxm_dump_eeprom(FXSV_1G, startaddr, endaddr, buffer, &room, retry_param, 0), FXM_API_EINVAL);
        EXPECT_EQ(room, 0u);
    };
    refused(0x800, 0x804, words, 0x800, nullptr);
    refused(0x7fc, 0x804, words, 0x800, nullptr);
    refused(0x100, 0x100, words, 0x800, nullptr);
    refused(0x104, 0x100, words, 0x800, nullptr);
    refused(0x102, 0x200, words, 0x800, nullptr);
    refused(0x100, 0x1fe, words, 0x800, nullptr);
    refused(0x000, 0x800, words, 0x7fc, nullptr);
    refused(0x000, 0x800, nullptr, 0x800, nullptr);
    refused(0x000, 0x800, words, 0x800, &no_wait);

    for (const auto *retry_param : {&retry, static_cast<const fxm_retry_param_t *>(nullptr)}) {
        size = 0x800;
        EXPECT_EQ(fxm_read_eeprom(FXIO, 0x7fc, words, retry_param, 7), FXM_API_ENOENT);
        EXPECT_EQ(fxm_write_eeprom(FXIO, 0x7fc, 0xbeef, retry_param, 7), FXM_API_ENOENT);
        EXPECT_EQ(fxm_dump_eeprom(FXIO, 0xc, 0x800, words, &size, retry_param, 7), FXM_API_ENOENT);
        EXPECT_EQ(size, 0u);
    }
    EXPECT_EQ(fxm_unlock_eeprom(FXIO), FXM_API_ENOENT);
    EXPECT_EQ(words[0], UNTOUCHED);
    EXPECT_TRUE(wire[0]->received().empty() && wire[1]->received().empty());

    const std::string id = "id=0x020000002000";
    const std::string with_retry = ", retry_cnt=5, retry_int=70, flags=0x00000007";
    const std::string with_null = ", retry_param=NULL, flags=0x00000007";
    for (const std::string &end : {with_retry, with_null}) {
        EXPECT_EQ(log.count("INFO fxm_read_eeprom: (IN). " + id + ", addr=0x000007FC" + end), 1u);
        EXPECT_EQ(log.count("INFO fxm_write_eeprom: (IN). " + id + ", addr=0x000007FC, data=0x0000BEEF" + end), 1u);
        EXPECT_EQ(log.count("INFO fxm_dump_eeprom: (IN). " + id + ", startaddr=0x0000000C, endaddr=0x00000800" + end),
                  1u);
    }
    EXPECT_EQ(log.count("INFO fxm_unlock_eeprom: (IN) " + id), 1u);
    for (const std::string op : {"read", "write", "dump"})
        EXPECT_EQ(log.count("INFO fxm_" + op + "_eeprom: (OUT) ret=3, " + id), 2u) << op;
    EXPECT_EQ(log.count("INFO fxm_unlock_eeprom: (OUT) ret=3, " + id), 1u);
    EXPECT_EQ(log.count("INFO fxm_dump_eeprom: (OUT) ret=1, id=0x020000001000"), 10u) << "refused ones too";
}

TEST_F(eeprom_t, stop_ends_a_call_wherever_it_is)
{
    const auto stopped = [&](const char *what, const std::string &settings, op_t op, const talk_t &talk,
                             const std::string &told, uint32_t got = 0) {
        ASSERT_NO_FATAL_FAILURE(begin_by_hand(settings));
        play(what, op, talk, FXM_API_ENOSYS, told, got);
        EXPECT_EQ(stop(), FXM_API_SUCCESS);
    };
    // What the talk has written stays on the card. A read that begins after the stop is not waited for.
    stopped("in the last pause before force", "eeprom_retry_interval = 1000\neeprom_retry_count = 0\n", read_forced,
            BIT + "r50f0=8 stop ", "ERROR fxm_read_eeprom: Failed to _fxm_lock_eeprom(). err=38\n");
    stopped("in the watch", "eeprom_verify_interval = 100000\n", read_word, BIT + TAKE + "stop ",
            "TRACE _fxm_lock_eeprom: Failed to _fxm_lock_eeprom_impl(). err=38\n"
            "ERROR fxm_read_eeprom: Failed to _fxm_lock_eeprom(). err=38\n");
    stopped("in the wait for the ID lock", "eeprom_retry_interval = 1000\n", read_word, ID + ASK + "r5200=8 stop ",
            "TRACE _fxm_lock_eeprom_id: Failed to _fxm_unlock_eeprom_id(). err=38\n"
            "ERROR fxm_read_eeprom: Failed to _fxm_lock_eeprom_id(). err=38\n");
    stopped("in an access, which is not cleared", "eeprom_check_interval = 1000\neeprom_verify_count = 2\n", read_word,
            BIT + LOCK + READY + SPLIT + START_READ + "r5010=1 stop r5010=- r50f0=- ",
            "TRACE _fxm_read_eeprom: Failed to _check_access(). err=38\n"
            "ERROR fxm_read_eeprom: Failed to _fxm_read_eeprom(). err=38\n"
            "ERROR fxm_read_eeprom: Failed to _fxm_unlock_eeprom(). err=38\n");
    stopped("in a verify", "eeprom_rw_interval = 1000\neeprom_verify_count = 2\n", write_verified,
            BIT + LOCK + WRITE + READ + "stop r50f0=- ",
            "ERROR fxm_write_eeprom: Failed to _fxm_write_eeprom(). err=38\n"
            "ERROR fxm_write_eeprom: Failed to _fxm_unlock_eeprom(). err=38\n");
    stopped("in a dump", "eeprom_retry_interval = 1000\n", dump_words,
            ID + ASK + GRANT + READ_5F4 + "w5204=4 r5208=4 stop ",
            "ERROR _fxm_dump_eeprom: Failed to _fxm_unlock_eeprom_id(). err=38\n"
            "ERROR fxm_dump_eeprom: Failed to _fxm_dump_eeprom(). err=38\n");
    stopped("in a dump that waits", "eeprom_retry_interval = 1000\n", dump_words,
            ID + ASK + GRANT + READ_5F4 + LEAVE + ASK + "r5200=8 stop ",
            "TRACE _fxm_lock_eeprom_id: Failed to _fxm_unlock_eeprom_id(). err=38\n"
            "ERROR _fxm_dump_eeprom: Failed to _fxm_lock_eeprom_id(). err=38\n"
            "ERROR fxm_dump_eeprom: Failed to _fxm_dump_eeprom(). err=38\n",
            1);
}

// -------------------------------------------------------------------------------------------------- simulated cards

static uint32_t pattern(uint32_t seed, uint32_t addr) { return seed * 0x01000193u ^ addr * 0x9e3779b1u; }

TEST_F(eeprom_t, dump_is_the_eeprom_even_with_a_visitor_between_words)
{
    const std::string names[] = {"020000001000", "020000001100", "020000004000", "020000004100"};
    const uint64_t ids[] = {0x020000001000, 0x020000001100, 0x020000004000, 0x020000004100};
    ASSERT_NO_FATAL_FAILURE(
        begin_simulated("eeprom_verify_count = 1\n"
                        "eeprom_check_interval = 0\n"
                        "eeprom_retry_interval = 1\n"
                        "eeprom_retry_count = 1000\n",
                        {ids, ids + 4},
                        {"fxsv 020000001000 forms=split looks=2", "fxio 020000001100 forms=plain locktype=id",
                         "fxio 020000004000 gen=40g", "fxsv 020000004100 gen=40g looks=1 locktype=id"}));
    for (const bool visited : {false, true}) {
        std::vector<std::future<void>> dumps;
        for (uint32_t i = 0; i < 4; ++i) {
            const uint32_t seed = (visited ? 0x1357u : 0x2468u) + i;
            cards("eeprom-fill " + names[i] + " " + std::to_string(seed));
            cards("watch " + names[i]);
            if (visited)
                cards("holder " + names[i] + " visit 1 0");
            dumps.push_back(std::async(std::launch::async, [seed, id = ids[i]] {
                uint32_t words[512];
                uint64_t size = sizeof(words);
                EXPECT_EQ(fxm_dump_eeprom(id, 0, 0x800, words, &size, nullptr, 0), FXM_API_SUCCESS);
                ASSERT_EQ(size, 0x800u);
                for (uint32_t addr = 0; addr < 0x800; addr += 4)
                    ASSERT_EQ(words[addr / 4], pattern(seed, addr)) << std::hex << id << " at " << addr;
            }));
        }
        for (auto &dump : dumps)
            dump.wait();
        for (const std::string &name : names) {
            cards("holder " + name + " gone");
            const std::string watched = cards("watched " + name);
            const size_t met = count_of(watched, " r50f0=00000008") + count_of(watched, " r5200=00000008");
            EXPECT_EQ(met > 0, visited) << name << ": the library has met the visitor " << met << " times";
            expect_released(name);
        }
    }

    // What the library writes is there.
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(fxm_write_eeprom(ids[i], 0x7fc, 0x89abcdef, nullptr, 0), FXM_API_SUCCESS);
        EXPECT_EQ(fxm_write_eeprom(ids[i], 0x000, 0x01234567, nullptr, FXM_FLAG_VERIFY), FXM_API_SUCCESS);
        EXPECT_EQ(cards("eeprom " + names[i] + " 0x7fc"), "0x89abcdef");
        EXPECT_EQ(cards("eeprom " + names[i] + " 0x000"), "0x01234567");
        expect_released(names[i]);
    }
}

TEST_F(eeprom_t, holder_is_never_disturbed_without_force_and_cleared_after_a_pass_with_it)
{
    struct {
        std::string name;
        uint64_t id;
        std::string lock, held, clear; // where the lock shows, as his; how he is cleared
    } const kinds[] = {{"020000001000", 0x020000001000, "0x50f0", " r50f0=00000008", " w50f0=00000000"},
                       {"020000001100", 0x020000001100, "0x5208", " r5200=00000008", " w5204=00000008"}};
    ASSERT_NO_FATAL_FAILURE(
        begin_simulated("eeprom_retry_interval = 30\neeprom_retry_count = 4\n", {kinds[0].id, kinds[1].id},
                        {"fxsv 020000001000", "fxsv 020000001100 locktype=id", "eeprom-fill all 6", "watch all"}));

    // He sets his bit in the middle of the watch. The library backs off until he is tired of it.
    uint32_t word = UNTOUCHED;
    cards("holder 020000001000 fight 3");
    EXPECT_EQ(fxm_read_eeprom(FXSV_1G, 0x10, &word, nullptr, 0), FXM_API_SUCCESS);
    EXPECT_EQ(word, pattern(6, 0x10));
    const std::string fight = cards("watched 020000001000");
    EXPECT_GE(count_of(fight, " w50f0=00000004"), 2u) << fight;
    EXPECT_GE(count_of(fight, " r50f0=0000000c"), 1u) << fight;

    for (const auto &kind : kinds) {
        SCOPED_TRACE(kind.name);
        cards("holder " + kind.name + " gone");
        expect_released(kind.name);

        // He stays.
        word = UNTOUCHED;
        cards("watched " + kind.name);
        cards("holder " + kind.name + " take");
        EXPECT_EQ(fxm_read_eeprom(kind.id, 0x7c0, &word, nullptr, 0), FXM_API_EBUSY);
        EXPECT_EQ(fxm_write_eeprom(kind.id, 0x7c0, 1, nullptr, FXM_FLAG_VERIFY), FXM_API_EBUSY);
        std::string watched = cards("watched " + kind.name);
        EXPECT_EQ(count_of(watched, "5010=") + count_of(watched, kind.clear), 0u) << watched;
        EXPECT_EQ(reg(kind.name, kind.lock), "0x00000008") << "his, and nobody waits for it";

        // He goes when he is made to, or never.
        EXPECT_EQ(fxm_read_eeprom(kind.id, 0x7c0, &word, nullptr, FXM_FLAG_FORCELOCK), FXM_API_SUCCESS);
        EXPECT_EQ(word, pattern(6, 0x7c0));
        watched = cards("watched " + kind.name);
        EXPECT_GE(count_of(watched.substr(0, watched.find(kind.clear)), kind.held), 5u) << watched;
        expect_released(kind.name);
        cards("holder " + kind.name + " keep 0");
        EXPECT_EQ(fxm_read_eeprom(kind.id, 0x7c0, &word, nullptr, FXM_FLAG_FORCELOCK), FXM_API_ETIMEDOUT);
        EXPECT_EQ(count_of(cards("watched " + kind.name), "5010="), 0u);
        EXPECT_EQ(reg(kind.name, kind.lock), "0x00000008");
        cards("holder " + kind.name + " gone");
        expect_released(kind.name);
    }
}

TEST_F(eeprom_t, engine_out_of_order_leaves_the_lock_free)
{
    const std::string attempts = "eeprom_rw_interval = 0\neeprom_check_retry_count = 1\neeprom_verify_count = 1\n";
    ASSERT_NO_FATAL_FAILURE(
        begin_simulated(attempts, {FXSV_1G, FXSV_40G}, {"fxsv 020000001000", "fxsv 020000004000 gen=40g locktype=id"}));
    const fxm_retry_param_t retry = {10, 50};
    for (const auto &[name, id] : {std::pair("020000001000", FXSV_1G), std::pair("020000004000", FXSV_40G)}) {
        for (const auto &[engine, result] :
             {std::pair("busy", FXM_API_ETIMEDOUT), std::pair("stuck", FXM_API_ETIMEDOUT),
              std::pair("hang", FXM_API_ETIMEDOUT), std::pair("refuse", FXM_API_EPROTO),
              std::pair("normal", FXM_API_SUCCESS)}) {
            SCOPED_TRACE(std::string(name) + " " + engine);
            uint32_t words[2] = {UNTOUCHED, UNTOUCHED};
            uint64_t size = sizeof(words);
            cards(std::string("set ") + name + " engine=" + engine);
            EXPECT_EQ(fxm_read_eeprom(id, 0x300, words, &retry, 0), result);
            EXPECT_EQ(fxm_write_eeprom(id, 0x300, 7, &retry, FXM_FLAG_VERIFY), result);
            EXPECT_EQ(fxm_dump_eeprom(id, 0x300, 0x308, words, &size, &retry, 0), result);
            EXPECT_EQ(size, result == FXM_API_SUCCESS ? 8u : 0u);
            EXPECT_EQ(words[0], result == FXM_API_SUCCESS ? 7u : UNTOUCHED);
            expect_released(name);
        }
    }
}

TEST_F(eeprom_t, register_write_waits_for_a_transfer_and_unlock_does_not)
{
    ASSERT_NO_FATAL_FAILURE(begin_simulated("eeprom_retry_interval = 5\neeprom_retry_count = 1000\n", {FXSV_1G},
                                            {"fxsv 020000001000", "holder 020000001000 take", "watch 020000001000"}));
    uint32_t word = UNTOUCHED;
    uint32_t value = UNTOUCHED;
    auto read = std::async(std::launch::async, [&] { return fxm_read_eeprom(FXSV_1G, 0, &word, nullptr, 0); });
    wait_for([&] { return log.count_with("addr=0x000050F0, data=0x00000008") > 0; }, "the wait for the lock");
    auto write = std::async(std::launch::async, [&] { return fxm_write_register(FXSV_1G, 0x100, 1, nullptr, 0); });
    wait_for([&] { return log.count_with("fxm_write_register: (IN)") > 0; }, "the register write to begin");
    EXPECT_EQ(fxm_read_register(FXSV_1G, 0x100, &value, nullptr, 0), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_unlock_eeprom(FXSV_1G), FXM_API_SUCCESS);
    EXPECT_EQ(read.get(), FXM_API_SUCCESS);
    EXPECT_EQ(write.get(), FXM_API_SUCCESS);
    EXPECT_EQ(word, 0u);
    wait_for([&] { return reg("020000001000", "0x100") == "0x00000001"; }, "the register write to arrive");
    EXPECT_TRUE(cards("watched 020000001000").ends_with(" w100=00000001")) << "behind the release";
    expect_released("020000001000");
}
