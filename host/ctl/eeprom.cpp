// EEPROMs: words, dumps to files, comparisons, restores with a backup.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>

#include "common/card_id.h"
#include "ctl/commands.h"

namespace fxm
{

namespace json = boost::json;

constexpr uint32_t EEPROM_SIZE = 0x800;

// A file holds the words from address 0 on, least significant byte first.
static std::vector<uint32_t> read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file)
        throw ctl_error(EXIT_FAILED, fmt::format("cannot read {}: {}", path, strerror(errno)));
    if (bytes.size() != EEPROM_SIZE)
        throw ctl_error(EXIT_USAGE,
                        fmt::format("{} has {} bytes; the image of an EEPROM has {}", path, bytes.size(), EEPROM_SIZE));
    std::vector<uint32_t> words;
    for (size_t i = 0; i < bytes.size(); i += 4) {
        uint32_t word = 0;
        for (size_t byte = 4; byte-- > 0;)
            word = word << 8 | static_cast<unsigned char>(bytes[i + byte]);
        words.push_back(word);
    }
    return words;
}

// Never replaces a file that is there: it may be the only good image.
static void write_file(const std::string &path, const json::array &words, bool replace)
{
    std::string bytes;
    for (const json::value &value : words) {
        const auto word = value.to_number<uint32_t>();
        for (unsigned byte = 0; byte < 4; ++byte)
            bytes += static_cast<char>(word >> (8 * byte) & 0xff);
    }
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (replace ? O_TRUNC : O_EXCL), 0644);
    if (fd < 0 && errno == EEXIST)
        throw ctl_error(EXIT_USAGE, fmt::format("{} exists already", path), "give another name, or --force-file");
    const bool good =
        fd >= 0 && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) && fsync(fd) == 0;
    const int fault = errno;
    if (fd >= 0)
        close(fd);
    if (!good)
        throw ctl_error(EXIT_FAILED, fmt::format("cannot write {}: {}", path, strerror(fault)));
}

static json::array words_of(const std::vector<uint32_t> &words) { return json::array(words.begin(), words.end()); }

struct eeprom_arguments {
    std::string card, address, value, file;
    bool force = false;
    bool force_file = false;
    operation_options how;
};

static json::object request(const char *kind, const eeprom_arguments &given)
{
    const std::string path = card_path(given.card); // checks the id
    json::object made{{"kind", kind}, {"card", path.substr(path.rfind('/') + 1)}};
    if (given.force)
        made["force"] = true;
    given.how.add_to(&made);
    return made;
}

static void print_differing(const json::array &differing)
{
    for (const json::value &entry : differing) {
        const json::object &word = entry.as_object();
        put(fmt::format("{:#05x}: card {:#010x}, file {:#010x}\n", number(word, "address"), number(word, "card"),
                        number(word, "file")));
    }
}

// What a job has read and written, also one that has not come to its end.
void print_job_result(const json::object &job)
{
    const json::object &result = object(job, "result");
    if (result.contains("words"))
        print_words(number(result, "start"), array(result, "words"));
    if (result.contains("differing"))
        print_differing(array(result, "differing"));
    if (result.contains("left"))
        put(fmt::format("{} words differed, {} written, {} left\n", array(result, "differing").size(),
                        array(result, "written").size(), array(result, "left").size()));
    else if (result.contains("differing"))
        put(fmt::format("{} words differ\n", array(result, "differing").size()));
    if (result.contains("address"))
        put(fmt::format("{:#05x}: {:#010x} → {:#010x}{}\n", number(result, "address"), number(result, "old"),
                        number(result, "new"), flag(result, "written") ? ", verified" : ", not written"));
    else if (result.contains("old"))
        put(fmt::format("vlan {} → {}\n", number(result, "old"), number(result, "new")));
}

static uint32_t parse_address(const std::string &text)
{
    const auto address = parse_u32(text);
    if (!address || *address % 4 != 0 || *address >= EEPROM_SIZE)
        throw ctl_error(EXIT_USAGE, fmt::format("there is no EEPROM word {}", text),
                        "an address is a multiple of 4 below 0x800");
    return *address;
}

static int read_word(session *all, const eeprom_arguments &given)
{
    const auto range = parse_range(given.address);
    const uint32_t address = range ? range->first : parse_address(given.address);
    json::object what = request("eeprom-dump", given);
    what["start"] = address;
    what["end"] = range ? range->second : address + 4;
    const json::object job = run_job(all, what, "Reading");
    if (all->how.json)
        put(json::serialize(job) + "\n");
    else if (range)
        print_job_result(job);
    else
        put(fmt::format("{:#05x} = {:#010x}\n", address,
                        array(object(job, "result"), "words")[0].to_number<uint32_t>()));
    return EXIT_DONE;
}

static int write_word(session *all, const eeprom_arguments &given)
{
    const uint32_t address = parse_address(given.address);
    const auto value = parse_u32(given.value);
    if (!value)
        throw ctl_error(EXIT_USAGE, fmt::format("\"{}\" is no value", given.value), "write a number of 32 bits");
    json::object what = request("eeprom-write", given);
    what["address"] = address;
    what["value"] = *value;
    if (all->how.dry_run)
        what["dry_run"] = true;
    confirm(all->how, fmt::format("Write {:#010x} to EEPROM word {:#05x} of {}", *value, address,
                                  all->how.yes || all->how.dry_run ? given.card : card_words(all, given.card)));
    const json::object job = run_job(all, what, "Writing");
    const json::object &done = object(job, "result");
    if (all->how.json)
        put(json::serialize(job) + "\n");
    else
        put(fmt::format("{}{:#05x}: {:#010x} → {:#010x}{}\n", all->how.dry_run ? "would change " : "", address,
                        number(done, "old"), number(done, "new"), flag(done, "written") ? ", verified" : ""));
    return EXIT_DONE;
}

static int dump(session *all, const eeprom_arguments &given)
{
    if (!given.file.empty() && !given.force_file && access(given.file.c_str(), F_OK) == 0)
        throw ctl_error(EXIT_USAGE, fmt::format("{} exists already", given.file), "give another name, or --force-file");
    const json::object job = run_job(all, request("eeprom-dump", given), "Reading");
    const json::object &done = object(job, "result");
    if (!given.file.empty()) {
        write_file(given.file, array(done, "words"), given.force_file);
        put(fmt::format("{} words in {}, each read twice\n", array(done, "words").size(), given.file));
    } else if (all->how.json) {
        put(json::serialize(job) + "\n");
    } else {
        print_words(number(done, "start"), array(done, "words"));
    }
    return EXIT_DONE;
}

static int compare(session *all, const eeprom_arguments &given)
{
    json::object what = request("eeprom-compare", given);
    const std::vector<uint32_t> words = read_file(given.file);
    what["words"] = words_of(words);
    const json::object job = run_job(all, what, "Comparing");
    const json::array &differing = array(object(job, "result"), "differing");
    if (all->how.json) {
        put(json::serialize(job) + "\n");
    } else {
        print_differing(differing);
        put(fmt::format("{} of {} words differ\n", differing.size(), words.size()));
    }
    return differing.empty() ? EXIT_DONE : EXIT_FAILED;
}

// A new file in the current directory, named for the card and the time.
static std::string write_backup(const std::string &card, const json::array &words)
{
    std::string digits;
    for (const char c : card) {
        if (c != ':')
            digits += c;
    }
    const time_t now = time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    strftime(text, sizeof(text), "%Y%m%dT%H%M%SZ", &utc);
    std::string name = fmt::format("{}-{}.bin", digits, text);
    for (int more = 2; access(name.c_str(), F_OK) == 0; ++more)
        name = fmt::format("{}-{}-{}.bin", digits, text, more);
    write_file(name, words, false);
    return name;
}

static int restore(session *all, const eeprom_arguments &given)
{
    const std::vector<uint32_t> words = read_file(given.file);
    json::object what = request("eeprom-restore", given);
    what["words"] = words_of(words);
    json::object trial = what;
    trial["dry_run"] = true;
    const json::object before = run_job(all, trial, "Comparing");
    const json::object &found = object(before, "result");
    const size_t differing = array(found, "differing").size();
    const std::string card = text(before, "card");
    const auto say = [all](const std::string &line) {
        if (!all->how.json)
            put(line + '\n');
    };
    say(fmt::format("{} of {} words differ{}", differing, words.size(),
                    differing != 0 ? " (fxmctl eeprom diff shows them)" : ""));
    if (differing == 0 || all->how.dry_run) {
        if (all->how.json)
            put(json::serialize(before) + "\n");
        return EXIT_DONE;
    }
    confirm(all->how, fmt::format("Write {} words to {}", differing, all->how.yes ? card : card_words(all, card)));
    const std::string backup = write_backup(card, array(found, "backup"));
    say("Backup: " + backup);
    flush();
    bool told = false;
    const auto ended = [&](const json::object &job) {
        told = true;
        if (all->how.json)
            put(json::serialize(job) + "\n");
        if (is_null(job, "result") || !object(job, "result").contains("left")) {
            say("nothing was written: it ended while it compared; run it again");
            return;
        }
        const json::object &done = object(job, "result");
        // Another client may have written between the comparison and the restore.
        if (array(done, "backup") != array(found, "backup"))
            say("The EEPROM has changed since the comparison. What the restore found: " +
                write_backup(card, array(done, "backup")));
        if (text(job, "state") == "done")
            say(fmt::format("{} words written, all {} verified", array(done, "written").size(), words.size()));
        else
            say(fmt::format("{} words written, {} left; run it again to finish, or restore {}",
                            array(done, "written").size(), array(done, "left").size(), backup));
    };
    try {
        run_job(all, what, "Restoring", ended);
    } catch (const ctl_error &failure) {
        if (told)
            throw;
        // Without fxmd nobody knows how far it came.
        throw ctl_error(failure.exit, failure.what(),
                        fmt::format("words may be left to write: run it again to finish, or restore {}", backup));
    }
    return EXIT_DONE;
}

static int unlock(session *all, const eeprom_arguments &given)
{
    const std::string path = card_path(given.card) + "/eeprom-lock";
    confirm(all->how, fmt::format("Take the EEPROM lock of {} away from its holder",
                                  all->how.yes || all->how.dry_run ? given.card : card_words(all, given.card)));
    json::object body;
    if (all->how.dry_run)
        body["dry_run"] = true;
    const json::object done = all->api().send("DELETE", path, body);
    if (all->how.json)
        put(json::serialize(done) + "\n");
    else
        put(fmt::format("{} {:#010x}{}\n", all->how.dry_run ? "the lock register is" : "lock register",
                        number(done, "old"), all->how.dry_run ? "" : fmt::format(" → {:#010x}", number(done, "new"))));
    return EXIT_DONE;
}

void add_eeprom_commands(CLI::App *app, session *all)
{
    auto given = std::make_shared<eeprom_arguments>();
    auto *group = app->add_subcommand("eeprom", "reads and writes EEPROMs")->require_subcommand(1);
    explain(group, reach::card, "Example: fxmctl eeprom diff 02:00:00:00:10:00 good.bin");
    struct entry {
        const char *name, *purpose;
        int (*run)(session *all, const eeprom_arguments &given);
        int words; // behind the card: 1 an address, 2 an address and a value, 3 a file, 4 perhaps a file
        const char *example;
    };
    static constexpr entry entries[] = {
        {"read", "one word, or those of FIRST..END; each is read twice", read_word, 1,
         "fxmctl eeprom read 02:00:00:00:10:00 0x10"},
        {"write", "one word, with verification", write_word, 2,
         "fxmctl eeprom write 02:00:00:00:10:00 0x10 0x600df00d"},
        {"dump", "the whole EEPROM, each word read twice, to a file or the screen", dump, 4,
         "fxmctl eeprom dump 02:00:00:00:10:00 good.bin"},
        {"diff", "compares an EEPROM with a file", compare, 3, "fxmctl eeprom diff 02:00:00:00:10:00 good.bin"},
        {"restore", "writes the words that differ from a file, with a backup in the current directory", restore, 3,
         "fxmctl eeprom restore 02:00:00:00:10:00 good.bin"},
        {"unlock", "clears a lock that another manager has left", unlock, 0, "fxmctl eeprom unlock 02:00:00:00:10:00"},
    };
    for (const entry &known : entries) {
        auto *command = group->add_subcommand(known.name, known.purpose);
        command->add_option("card", given->card, "its id")->required();
        if (known.words == 1 || known.words == 2)
            command->add_option("address", given->address, "byte address of the word, below 0x800")->required();
        if (known.words == 2)
            command->add_option("value", given->value, "of 32 bits")->required();
        if (known.words == 3)
            command->add_option("file", given->file, "2048 bytes, each word least significant byte first")->required();
        if (known.words == 4) {
            command->add_option("file", given->file, "2048 bytes, each word least significant byte first");
            command->add_flag("--force-file", given->force_file, "replace a file that exists");
        }
        if (known.words != 0) {
            command->add_flag("--force", given->force, "take the lock away from another manager (admin)");
            given->how.add_to(command);
        }
        explain(command, reach::card, std::string("Example: ") + known.example,
                known.run == compare ? "words differ, or failed" : "failed");
        command->callback([all, given, run = known.run] { all->run = [all, given, run] { return run(all, *given); }; });
    }
}

} // namespace fxm
