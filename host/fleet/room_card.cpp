#include "fleet/room_card.h"

#include <lz4.h>

#include <cstring>
#include <memory>
#include <unordered_set>

#include "daemon/card.h"
#include "fleet/document.h"

namespace fxm::fleet
{

namespace json = boost::json;

// -------------------------------------------------------------------------------------------------------- compression

// The documents of two cards that have announced nothing: every name stands in them. The longer one stands last, where
// the compressor prefers to look. It is made by each process for itself and stored nowhere.
static const std::string &common_text()
{
    static const std::string made = [] {
        std::string text;
        card some;
        some.data = fxm_fxio_t{};
        write_card(&text, some, member_set::all());
        write_details(&text, some);
        auto server = std::make_unique<fxm_fxsv_t>();
        server->fsv_card.fcd_type = 1; // it has all down ports
        some.data = std::move(server);
        write_card(&text, some, member_set::all());
        write_details(&text, some);
        return text;
    }();
    return made;
}

static void append_packed(std::string *out, std::string_view text)
{
    static const LZ4_stream_t prepared = [] {
        LZ4_stream_t made;
        LZ4_initStream(&made, sizeof(made));
        LZ4_loadDict(&made, common_text().data(), static_cast<int>(common_text().size()));
        return made;
    }();
    LZ4_stream_t stream = prepared; // 16 KiB; much less than to read the common text anew
    const size_t before = out->size();
    const int most = LZ4_compressBound(static_cast<int>(text.size()));
    out->resize(before + static_cast<size_t>(most));
    const int size =
        LZ4_compress_fast_continue(&stream, text.data(), out->data() + before, static_cast<int>(text.size()), most, 1);
    out->resize(before + static_cast<size_t>(size));
}

static std::string unpacked(std::string_view from, size_t length)
{
    std::string text(length, '\0');
    LZ4_decompress_safe_usingDict(from.data(), text.data(), static_cast<int>(from.size()), static_cast<int>(length),
                                  common_text().data(), static_cast<int>(common_text().size()));
    return text;
}

// ------------------------------------------------------------------------------------------------------------ members

// Behind a string that begins at `at`.
static size_t skip_string(std::string_view text, size_t at)
{
    while (text[++at] != '"')
        at += text[at] == '\\' ? 1 : 0;
    return at + 1;
}

// Hands each member of an object that has been parsed to `see`: its name, and the whole of it as it stands in the text.
// A large fleet has a million documents, which need not be written anew.
template <typename See> static void each_member(std::string_view text, See see)
{
    size_t at = text.find('{') + 1;
    for (;;) {
        const size_t begin = text.find_first_of("\"}", at);
        if (text[begin] == '}')
            return;
        at = skip_string(text, begin);
        const std::string_view name = text.substr(begin + 1, at - begin - 2);
        for (size_t depth = 0; depth != 0 || (text[at] != ',' && text[at] != '}');) {
            const char c = text[at];
            if (c == '"') {
                at = skip_string(text, at);
                continue;
            }
            depth += c == '{' || c == '[' ? 1 : 0;
            depth -= c == '}' || c == ']' ? 1 : 0;
            ++at;
        }
        see(name, text.substr(begin, at - begin));
        if (text[at] == '}')
            return;
        ++at;
    }
}

room_card read_card(uint64_t id, const json::object &parsed, std::string_view document)
{
    static const std::unordered_set<std::string_view> shown = [] {
        const auto names = member_set::all().names();
        return std::unordered_set<std::string_view>(names.begin(), names.end());
    }();
    facts known;
    known.id = id;
    for (const auto &member : parsed)
        set_fact(&known, member.key(), member.value());
    std::string lineless;
    if (has_control(document))
        document = lineless = json::serialize(parsed);
    thread_local std::string row, details, packed; // they keep their memory
    row.clear();
    details.clear();
    packed.clear();
    each_member(document, [&](std::string_view name, std::string_view member) {
        if (name != "schema" && name != "site" && name != "id" && name != "health")
            (shown.count(name) != 0 ? row : details).append(1, ',').append(member);
    });
    room_card made;
    made.known = known;
    made.rev = number_of(parsed, "rev");
    made.listed = static_cast<uint32_t>(row.size());
    row += details;
    made.length = static_cast<uint32_t>(row.size());
    packed.append(reinterpret_cast<const char *>(known.partners.data()), known.partner_count * sizeof(uint64_t));
    append_packed(&packed, row);
    made.packed = packed; // as large as it must be
    return made;
}

facts room_card::all_facts() const
{
    facts made;
    static_cast<plain_facts &>(made) = known;
    memcpy(made.partners.data(), packed.data(), known.partner_count * sizeof(uint64_t));
    return made;
}

card_members room_card::members() const
{
    return {unpacked(std::string_view(packed).substr(known.partner_count * sizeof(uint64_t)), length), listed};
}

} // namespace fxm::fleet
