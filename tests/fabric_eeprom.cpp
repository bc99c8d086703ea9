// The EEPROM behind a card's registers. First the test plays the card by hand, and every register access of transfers
// and of both locks is told one by one; then whole operations meet simulated cards, with another holder beside.
#include <cerrno>
#include <cstdio>

#include "fabric.h"

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
static const talk_t WRITE_40G =
    "r40=40000000 w4c=feed0002 r4c=feed0002 w44=5fc r44=5fc w40=80000003 r40=10000000 " + CLEAR_40G;

static talk_t locked(const talk_t &transfer) { return BIT + LOCK + transfer + RELEASE; }

// A failure as the log tells it.
static std::string failed(const std::string &who, const std::string &what, int err)
{
    return who + ": Failed to " + what + "(). err=" + std::to_string(err) + "\n";
}

static const std::string FORM_REFUSED = failed("INFO _fxm_read_eeprom", "_check_access", EACCES);
static const std::string BUSY = failed("TRACE _fxm_lock_eeprom", "_fxm_lock_eeprom_impl", EBUSY);

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
constexpr int OK = FXM_API_SUCCESS;

// One exported call with its flags.
struct op_t {
    std::string name;
    uint32_t flags;
};
static const op_t read_word = {"fxm_read_eeprom", 0};
static const op_t read_forced = {"fxm_read_eeprom", FXM_FLAG_FORCELOCK};
static const op_t read_checked = {"fxm_read_eeprom", FXM_FLAG_LIVECHECK};
static const op_t write_word = {"fxm_write_eeprom", 0};
static const op_t write_verified = {"fxm_write_eeprom", FXM_FLAG_VERIFY};
static const op_t dump_words = {"fxm_dump_eeprom", 0};
static const op_t unlock = {"fxm_unlock_eeprom", 0};

static int invoke(const op_t &op, uint64_t id, uint32_t *words, uint64_t *size)
{
    return op.name == "fxm_read_eeprom"    ? fxm_read_eeprom(id, 0x5fc, words, nullptr, op.flags)
           : op.name == "fxm_write_eeprom" ? fxm_write_eeprom(id, 0x5fc, 0xfeed0002, nullptr, op.flags)
           : op.name == "fxm_dump_eeprom"  ? fxm_dump_eeprom(id, 0x5f4, 0x600, words, size, nullptr, op.flags)
                                           : fxm_unlock_eeprom(id);
}

// How a call ends: the result, and the failed step with its error as the last words in the log have them.
struct end_t {
    int result = OK;
    int err = 0;
    std::string step = {};
};
static const end_t LOCK_BUSY = {FXM_API_EBUSY, EBUSY, "_fxm_lock_eeprom"};
static const end_t LOCK_TIMED_OUT = {FXM_API_ETIMEDOUT, ETIMEDOUT, "_fxm_lock_eeprom"};
static const end_t ID_TIMED_OUT = {FXM_API_ETIMEDOUT, ETIMEDOUT, "_fxm_lock_eeprom_id"};
static const end_t ID_KEPT = {FXM_API_ETIMEDOUT, ETIMEDOUT, "_fxm_unlock_eeprom_id"};
static const end_t REFUSED_READ = {FXM_API_EPROTO, EPROTO, "_fxm_read_eeprom"};

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
    snprintf(text, sizeof(text), frame[18] == 0x91 ? "r%x=" : "w%x=%x", addr, value);
    return text;
}

static size_t count_of(const std::string &text, const std::string &part)
{
    size_t number = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        number += 1;
    return number;
}

static uint64_t id_of(const std::string &name) { return std::stoull(name, nullptr, 16); }

static const std::string LASTING = "devinfo_expire_time = 100000\ndevinfo_flag_check_interval = 5\n";

class eeprom : public fabric_t
{
  protected:
    // A library that does not lose a card by its silence, and that knows one card of each generation, which the test
    // plays on port 0.
    void begin_by_hand(const std::string &settings)
    {
        configure(settings + LASTING);
        run();
        wire[0]->send(fxsv_1g_frame());
        wire[0]->send(fxsv_40g_frame());
        settle(0);
    }

    // ... or that knows these simulated cards, made by "fxsv" and "fxio". An answer that comes before the library waits
    // for it is lost; the short interval makes up for it soon.
    void begin_simulated(const std::string &settings, const std::vector<std::string> &making)
    {
        configure(settings + LASTING + "frame_retry_interval = 5\nframe_retry_count = 100\n");
        run();
        start_cards("--period 50");
        for (const std::string &command : making) {
            cards(command);
            wait_for([&] { return fxm_unlock_eeprom(id_of(command.substr(5))) == OK; }, command);
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
        const auto answers_taken = [&] { return log.count_with("_fxm_read_register: called. ret=0"); };
        size_t answers = answers_taken();
        talk_t seen;
        frame_t question, answer;
        wire[0]->received();
        call_t running = call(work);
        const auto is_over = [&] {
            const bool over = has_ended(running); // its frames are all here then
            if (talk.starts_with(seen + "stop ") && answers_taken() == answers) {
                seen += "stop ";
                fxm_fini_manager();
            }
            for (const frame_t &frame : wire[0]->received()) {
                if (frame != question) {
                    const std::string access = access_of(frame);
                    const size_t value = seen.size() + access.size();
                    const bool asks = access.back() == '=';
                    seen += access;
                    if (asks && talk.starts_with(seen)) {
                        const std::string told = talk.substr(value, talk.find(' ', value) - value);
                        question = frame;
                        answer = told == "-" ? frame_t{}
                                             : completion(frame, static_cast<uint32_t>(std::stoul(told, nullptr, 16)));
                        answers += answer.empty() ? 0 : 1;
                        seen += told;
                    }
                    seen += " ";
                    if (!talk.starts_with(seen))
                        fxm_fini_manager(); // the call would go on for long
                }
                if (frame == question && !answer.empty())
                    wire[0]->send(answer);
            }
            return over;
        };
        wait_for(is_over, "the end of a call", [&] { return seen; });
        EXPECT_EQ(seen, talk);
        return result_of(running);
    }

    // One call on the card `card`: what it says on the wire, how it ends, all that the log tells of failures before, and
    // how many words a dump has got. The first failure ends the test.
    void play(const char *what, const op_t &op, const talk_t &talk, const end_t &end = {}, std::string told = "",
              uint32_t dumped = 0)
    {
        if (HasFailure())
            return;
        SCOPED_TRACE(what);
        const bool dumps = op.name == "fxm_dump_eeprom";
        if (!end.step.empty())
            told += failed(dumps ? "ERROR _fxm_dump_eeprom" : "ERROR " + op.name, end.step, end.err);
        if (dumps && end.err != 0)
            told += failed("ERROR fxm_dump_eeprom", "_fxm_dump_eeprom", end.err);
        uint32_t words[3] = {UNTOUCHED, UNTOUCHED, UNTOUCHED};
        uint64_t size = sizeof(words);
        const size_t before = log.lines().size();
        EXPECT_EQ(converse(talk, [&] { return invoke(op, card, words, &size); }), end.result);
        EXPECT_EQ(complaints(before), told);
        const uint32_t got = op.name == "fxm_read_eeprom" && end.result == OK ? 1 : dumped;
        for (uint32_t i = 0; i < 3; ++i)
            EXPECT_EQ(words[i], i < got ? 0xcafe0001 : UNTOUCHED) << "word " << i;
        EXPECT_EQ(size, dumps ? dumped * 4 : sizeof(words));
    }

    // Nobody has the lock or waits for it, and no access was begun while it was not the library's.
    void expect_released(const std::string &name)
    {
        EXPECT_EQ(cards("reg " + name + " 0x50f0"), "0x00000000");
        EXPECT_EQ(cards("reg " + name + " 0x5208"), "0x00000000");
        EXPECT_EQ(count_of(cards("counts " + name), " foul=0"), 1u) << cards("counts " + name);
    }

    uint64_t card = FXSV_1G;
};

// ------------------------------------------------------------------------------------------------- the card by hand

TEST_F(eeprom, word_costs_these_register_frames_and_no_others)
{
    const talk_t watched = TAKE + times(20, "r50f0=4 ");
    EXPECT_EQ(count_of(watched + READ + RELEASE, " "), 34u);
    begin_by_hand("");
    for (const auto &[kind, lock, release] : {std::array{BIT, watched, RELEASE}, std::array{ID, ASK + GRANT, LEAVE}}) {
        card = FXSV_1G;
        play("read", read_word, kind + lock + READ + release);
        play("write", write_word, kind + lock + WRITE + release);
        play("verify", write_verified, kind + lock + WRITE + READ_BACK + release);
        // A dump looks at the kind of lock once, and locks for each word.
        play("dump", dump_words, kind + lock + READ_5F4 + release + lock + READ_5F8 + release + lock + READ + release,
             {}, "", 3);
        card = FXSV_40G;
        play("read, 40G", read_word, kind + lock + READ_40G + release);
        play("write, 40G", write_word, kind + lock + WRITE_40G + release);
    }
}

TEST_F(eeprom, settings_change_the_accesses_of_a_word)
{
    const talk_t access = READY + PLAIN + START_READ;
    begin_by_hand("eeprom_verify_count = 0\n"
                  "eeprom_type = 1\n"
                  "eeprom_check_retry_count = 0\n"
                  "eeprom_retry_count = 0\n"
                  "force_lock_try_count = 0\n");
    play("no watch, plain form, one look", read_word,
         BIT + TAKE + access + "r5010=1 " + CLEAR + access + DONE + FETCH + CLEAR + RELEASE);
    play("refused at once", read_word, BIT + TAKE + access + REFUSED + CLEAR + RELEASE, REFUSED_READ, FORM_REFUSED);
    play("force that may not clear anything", read_forced, BIT + "r50f0=8 ", LOCK_TIMED_OUT,
         "WARN _fxm_lock_eeprom: EEPROM access forcelock mode retry timedout.\n");
}

TEST_F(eeprom, engine_that_fails_is_tried_again_unless_it_refuses)
{
    const talk_t access = READY + SPLIT + START_READ;
    const talk_t refused_twice = access + REFUSED + PLAIN + START_READ + REFUSED;
    begin_by_hand(QUICK);
    play("not ready, then occupied", read_word, locked("r5010=0 " + CLEAR + "r5010=40000001 " + CLEAR + READ));
    play("occupied is no end", read_word, locked(access + "r5010=1 r5010=10000001 " + CLEAR + READ));
    play("split form refused, whatever bit 0 says", read_word,
         locked(access + "r5010=30000001 " + PLAIN + START_READ + DONE + FETCH + CLEAR));
    play("both forms refused", read_word, locked(refused_twice + CLEAR), REFUSED_READ, FORM_REFUSED);
    play("a refusal or a word counts when the engine is ready again", read_word,
         locked(refused_twice + "w5010=0 r5010=40000001 " + access + DONE + "r5018=dead0000 w5010=0 r5010=0 " + READ),
         {}, FORM_REFUSED);
    play("word not answered, status not answered", read_word,
         locked(access + DONE + "r5018=- " + CLEAR + "r5010=- w5010=0 r5010=- " + READ), {},
         "TRACE _fxm_read_eeprom: Failed to _fxm_read_register() of getting EEPROM data. err=110\n"
         "TRACE _fxm_read_eeprom: Failed to _fxm_read_register() of access check. err=110\n"
         "TRACE _fxm_read_eeprom: Failed to _fxm_read_register(). err=110\n");
    play("never ready at the second word of a dump", dump_words,
         BIT + LOCK + READ_5F4 + RELEASE + LOCK + times(3, IN_VAIN) + RELEASE, {FXM_API_ETIMEDOUT, ETIMEDOUT}, "", 1);

    play("written, whatever the clearing finds", write_word,
         locked(READY + STORE + SPLIT + START_WRITE + DONE + "w5010=0 r5010=- "), {},
         failed("TRACE _fxm_write_eeprom_impl", "_fxm_read_register", ETIMEDOUT));
    play("data does not stick, address does not stick", write_word,
         locked(READY + times(3, "w501c=feed0002 r501c=0 ") + CLEAR + READY + STORE + times(3, "w5014=500fc r5014=0 ") +
                CLEAR + WRITE),
         {}, "TRACE _fxm_write_eeprom_impl: Failed to _fxm_write_register() of setting data. err=110\n");
    play("write refused", write_word,
         locked(READY + STORE + SPLIT + START_WRITE + REFUSED + PLAIN + START_WRITE + REFUSED + "w5010=0 r5010=0 "),
         {FXM_API_EPROTO, EPROTO, "_fxm_write_eeprom"}, failed("INFO _fxm_write_eeprom_impl", "_check_access", EACCES));
    play("not ready for the write, then not to be read back", write_verified,
         locked(IN_VAIN + WRITE + times(3, IN_VAIN) + WRITE + READ_BACK));
    play("always reads back differently", write_verified, locked(times(3, WRITE + READ)),
         {FXM_API_ETIMEDOUT, ETIMEDOUT, "_fxm_write_eeprom"});

    card = FXSV_40G;
    play("a 40G card has no second form", read_word, locked(READY_40G + "r40=30000000 " + CLEAR_40G), REFUSED_READ,
         FORM_REFUSED);
}

TEST_F(eeprom, bit_lock_is_taken_and_left_as_the_register_tells)
{
    const talk_t pass = times(2, "r50f0=8 ");
    const talk_t take_in_vain = "r50f0=0 " + times(3, "w50f0=4 r50f0=0 ");
    const talk_t release_in_vain = "r50f0=4 " + times(3, "w50f0=0 r50f0=4 ");
    const talk_t release_100 = "r50f0=104 w50f0=100 r50f0=100 "; // beside a bit that is nobody's
    begin_by_hand(QUICK);
    play("his bit counts before the own one", read_word, BIT + times(2, "r50f0=c "), LOCK_BUSY, BUSY);
    play("an own bit left behind is held", read_word, BIT + "r50f0=4 " + READ + RELEASE);
    play("any bit that changes in the watch is a loss", read_word,
         BIT + TAKE + "r50f0=4 r50f0=104 " + release_100 + LOCK + READ + RELEASE);
    play("an own bit cleared leaves nothing to undo", read_word, BIT + TAKE + "r50f0=8 r50f0=8 ", LOCK_BUSY, BUSY);
    play("a watch not answered backs off", read_word, BIT + TAKE + "r50f0=- " + RELEASE + LOCK + READ + RELEASE);
    play("backing off in vain", read_word, BIT + TAKE + "r50f0=c r50f0=c " + times(3, "w50f0=8 r50f0=c ") + "r50f0=8 ",
         LOCK_BUSY, failed("TRACE _fxm_lock_eeprom_impl", "_fxm_unlock_eeprom", ETIMEDOUT) + BUSY);
    play("a bit that does not stick is not undone, and the last try says why", read_word,
         BIT + "r50f0=8 " + take_in_vain, LOCK_TIMED_OUT,
         failed("TRACE _fxm_lock_eeprom", "_fxm_lock_eeprom_impl", ETIMEDOUT));
    play("a dump meets a holder at the third word", dump_words,
         BIT + LOCK + READ_5F4 + RELEASE + LOCK + READ_5F8 + RELEASE + pass, LOCK_BUSY, BUSY, 2);

    play("force clears all bits of others after a pass, and no more", read_forced,
         BIT + times(2, "r50f0=110 ") + "r50f0=118 w50f0=100 r50f0=100 " + "r50f0=100 w50f0=104 " +
             times(3, "r50f0=104 ") + READ + release_100);
    play("force after a pass that ended otherwise", read_forced,
         BIT + "r50f0=8 " + take_in_vain + "r50f0=c w50f0=4 r50f0=4 " + "r50f0=4 " + READ + RELEASE);
    play("force gives up", read_forced, BIT + times(2, pass + "r50f0=8 w50f0=0 r50f0=0 ") + pass, LOCK_TIMED_OUT,
         "WARN _fxm_lock_eeprom: EEPROM access forcelock mode retry timedout.\n");
    play("force in vain", read_forced, BIT + pass + "r50f0=8 " + times(3, "w50f0=0 r50f0=8 "), LOCK_TIMED_OUT,
         "TRACE _fxm_lock_eeprom: Failed to _fxm_modify_register(). ret=110\n");

    play("a read is good without its release", read_word, BIT + LOCK + READ + release_in_vain, {},
         failed("ERROR fxm_read_eeprom", "_fxm_unlock_eeprom", ETIMEDOUT));
    play("a word of a dump is not", dump_words, BIT + LOCK + READ_5F4 + release_in_vain,
         {FXM_API_ETIMEDOUT, ETIMEDOUT, "_fxm_unlock_eeprom"});

    play("unlock leaves the own bit", unlock, BIT + "r50f0=c w50f0=4 r50f0=4 ");
    play("unlock in vain", unlock, BIT + "r50f0=8 " + times(3, "w50f0=0 r50f0=8 "),
         {FXM_API_ETIMEDOUT, ETIMEDOUT, "_fxm_unlock_eeprom_impl"});
}

TEST_F(eeprom, id_lock_is_asked_for_and_given_back_as_the_arbiter_tells)
{
    const talk_t pass = times(2, "r5200=8 ");
    const talk_t leave_8 = "w5204=4 r5208=8 "; // he is left alone
    const talk_t leave_in_vain = times(2, "w5204=4 r5208=4 ");
    begin_by_hand(QUICK);
    play("asked and left until it is done, and two owners are no grant", read_word,
         ID + "w5200=4 r5208=8 w5200=4 r5208=c " + "r5200=c r5200=4 " + READ + "w5204=4 r5208=c " + leave_8);
    play("a request not answered, then in vain", read_word, ID + "w5200=4 r5208=- w5200=4 r5208=8 ", ID_TIMED_OUT);
    play("never granted and not taken back", read_word, ID + ASK + pass + leave_in_vain,
         {FXM_API_EBUSY, EBUSY, "_fxm_lock_eeprom_id"},
         "TRACE _fxm_lock_check_id: Other have acquired the lock.\n" +
             failed("TRACE _fxm_lock_eeprom_id", "_fxm_unlock_eeprom_id", ETIMEDOUT));
    play("the last look says why", read_word, ID + ASK + "r5200=8 r5200=- " + LEAVE, ID_TIMED_OUT,
         failed("TRACE _fxm_lock_check_id", "_fxm_read_register", ETIMEDOUT));

    play("force after each pass takes out whoever is there, without a new request", read_forced,
         ID + ASK + "r5200=8 r5200=0 " + pass + "w5204=8 r5208=4 " + GRANT + READ + LEAVE);
    play("force gives up", read_forced, ID + ASK + times(2, pass + "w5204=8 r5208=c w5204=8 r5208=4 ") + pass + leave_8,
         ID_TIMED_OUT, "WARN _fxm_lock_check_id: EEPROM access forcelock mode retry timedout.\n");
    play("force in vain", read_forced, ID + ASK + pass + times(2, "w5204=8 r5208=c ") + leave_8, ID_TIMED_OUT);

    play("a write is good without its release", write_word, ID + ASK + GRANT + WRITE + leave_in_vain, {},
         failed("ERROR fxm_write_eeprom", "_fxm_unlock_eeprom_id", ETIMEDOUT));

    play("unlock takes out all holders", unlock, ID + "w5204=ffff r5208=1 w5204=ffff r5208=10000 ");
    play("unlock in vain", unlock, ID + times(2, "w5204=ffff r5208=c "), ID_KEPT);
}

TEST_F(eeprom, card_that_is_not_heard_is_reached_through_the_live_check_alone)
{
    begin_by_hand(QUICK + "frame_retry_count_livecheck = 2\n");
    for (const op_t &op : {read_word, write_word, dump_words, unlock})
        play("kind of lock not answered", op, "r520c=- ", {FXM_API_ETIMEDOUT, ETIMEDOUT, "_fxm_get_locktype"});
    ASSERT_EQ(fxm_stop_monitor(card), OK);
    for (const op_t &op : {read_word, write_word, dump_words, unlock})
        play("unmonitored", op, "", {FXM_API_ENOLINK});
    play("probe not answered", read_checked, "r0=- ", {FXM_API_ENOLINK, ENOLINK, "_fxm_livecheck"});
    play("probe answered, and the card's write lock is free again", read_checked, "r0=12345678 " + locked(READ));
}

TEST_F(eeprom, stop_ends_a_call_wherever_it_is)
{
    const auto stopped = [&](const char *what, const op_t &op, const talk_t &talk, const std::string &step,
                             const std::string &told = "", uint32_t dumped = 0) {
        begin_by_hand("eeprom_verify_interval = 100000\n"
                      "eeprom_rw_interval = 1000\n"
                      "eeprom_retry_interval = 1000\n"
                      "eeprom_retry_count = 0\n");
        play(what, op, talk, {FXM_API_ENOSYS, ENOSYS, step}, told, dumped);
        EXPECT_EQ(stop(), OK);
    };
    // What the talk has written stays on the card. A read that begins after the stop is not waited for.
    const talk_t held = BIT + "r50f0=4 ";
    stopped("in the last pause before force", read_forced, BIT + "r50f0=8 stop ", "_fxm_lock_eeprom");
    stopped("in the watch", read_word, BIT + TAKE + "stop ", "_fxm_lock_eeprom",
            failed("TRACE _fxm_lock_eeprom", "_fxm_lock_eeprom_impl", ENOSYS));
    stopped("in an access, which is not cleared", read_word,
            held + READY + SPLIT + START_READ + "r5010=- stop r50f0=- ", "_fxm_unlock_eeprom",
            failed("TRACE _fxm_read_eeprom", "_check_access", ENOSYS) +
                failed("ERROR fxm_read_eeprom", "_fxm_read_eeprom", ENOSYS));
    stopped("in a verify", write_verified, held + WRITE + READ + "stop r50f0=- ", "_fxm_unlock_eeprom",
            failed("ERROR fxm_write_eeprom", "_fxm_write_eeprom", ENOSYS));
    stopped("in the release of a dump", dump_words, ID + ASK + GRANT + READ_5F4 + "w5204=4 r5208=4 stop ",
            "_fxm_unlock_eeprom_id");
    stopped("in the wait of a dump for the ID lock", dump_words,
            ID + ASK + GRANT + READ_5F4 + LEAVE + ASK + "r5200=8 stop ", "_fxm_lock_eeprom_id",
            failed("TRACE _fxm_lock_eeprom_id", "_fxm_unlock_eeprom_id", ENOSYS), 1);
}

// -------------------------------------------------------------------------------------------------- simulated cards

static uint32_t pattern(uint32_t seed, uint32_t addr) { return seed * 0x01000193u ^ addr * 0x9e3779b1u; }

TEST_F(eeprom, dump_is_the_eeprom_even_with_a_visitor_between_words)
{
    begin_simulated("eeprom_verify_count = 1\n"
                    "eeprom_check_interval = 0\n"
                    "eeprom_retry_interval = 2\n"
                    "eeprom_retry_count = 1000\n"
                    "frame_retry_count = 100\n",
                    {"fxsv 020000001000 forms=split looks=2", "fxio 020000001100 forms=plain locktype=id",
                     "fxio 020000004000 gen=40g", "fxsv 020000004100 gen=40g looks=1 locktype=id"});
    const std::string names[] = {"020000001000", "020000001100", "020000004000", "020000004100"};
    for (const bool visited : {false, true}) {
        std::vector<call_t> dumps;
        uint32_t seed = visited ? 0x1357 : 0x2468;
        for (const std::string &name : names) {
            cards("eeprom-fill " + name + " " + std::to_string(++seed));
            cards("watch " + name);
            if (visited)
                cards("holder " + name + " visit 1 0");
            dumps.push_back(call([seed, name] {
                uint32_t words[512];
                uint64_t size = sizeof(words);
                const int result = fxm_dump_eeprom(id_of(name), 0, 0x800, words, &size, nullptr, 0);
                EXPECT_EQ(size, 0x800u);
                for (uint32_t addr = 0; addr < size; addr += 4)
                    EXPECT_EQ(words[addr / 4], pattern(seed, addr)) << name << " at " << addr;
                return result;
            }));
        }
        for (call_t &dump : dumps)
            EXPECT_EQ(result_of(dump), OK);
        for (const std::string &name : names) {
            cards("holder " + name + " gone");
            const std::string watched = cards("watched " + name);
            const size_t met = count_of(watched, " r50f0=00000008") + count_of(watched, " r5200=00000008");
            EXPECT_EQ(met > 0, visited) << name << ": the library has met the visitor " << met << " times";
            EXPECT_EQ(fxm_write_eeprom(id_of(name), 0x7fc, 0x89abcdef, nullptr, FXM_FLAG_VERIFY), OK);
            EXPECT_EQ(cards("eeprom " + name + " 0x7fc"), "0x89abcdef");
            expect_released(name);
        }
    }
}
