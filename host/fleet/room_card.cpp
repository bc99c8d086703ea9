#include "fleet/room_card.h"

#include <lz4.h>

#include <cstring>
#include <memory>
#include <unordered_set>
#include <vector>

#include "daemon/card.h"
#include "fleet/document.h"

namespace fxm::fleet
{

namespace json = boost::json;

// -------------------------------------------------------------------------------------------------------- compression

static std::string full_text(const card &of)
{
    std::string text;
    write_card(&text, of, member_set::all());
    write_details(&text, of);
    return text;
}

// The documents of two cards that have announced nothing: every name stands in them. The longer one stands last, where
// the compressor prefers to look. It is made by each process for itself and stored nowhere.
static const std::string &common_text()
{
    static const std::string made = [] {
        auto server = std::make_unique<fxm_fxsv_t>();
        server->fsv_card.fcd_type = 1; // it has all down ports
        card large;
        large.data = std::move(server);
        return full_text(blank_card(card_class::fxio)) + full_text(large);
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

// The document of a card that has announced nothing: its members, in their order, stand for those that are left out.
struct blank_document {
    enum class place : uint8_t { nowhere, row, details };
    struct member {
        std::string_view name, text;
        place at;
    };
    std::string text;
    std::vector<member> members;

    explicit blank_document(card_class kind) : text('{' + full_text(blank_card(kind)) + '}')
    {
        const auto names = member_set::all().names();
        const std::unordered_set<std::string_view> listed(names.begin(), names.end());
        each_member(text, [&](std::string_view name, std::string_view of) {
            const bool apart = name == "id" || name == "health";
            members.push_back({name, of, apart ? place::nowhere : listed.count(name) ? place::row : place::details});
        });
    }

    // Of the member with that name, which mostly stands behind the last one that was found; members.size(): there is none.
    size_t find(std::string_view name, size_t behind) const
    {
        for (const size_t from : {behind, size_t{0}}) {
            for (size_t i = from; i < members.size(); ++i) {
                if (members[i].name == name)
                    return i;
            }
        }
        return members.size();
    }
};

static const blank_document &blank_of(card_class kind)
{
    static const blank_document server(card_class::fxsv), device(card_class::fxio);
    return kind == card_class::fxsv ? server : device;
}

room_card read_card(uint64_t id, const json::object &parsed, std::string_view document)
{
    facts known;
    known.id = id;
    for (const auto &member : parsed)
        set_fact(&known, member.key(), member.value());
    std::string lineless;
    if (has_control(document))
        document = lineless = json::serialize(parsed);
    thread_local std::string own, packed; // they keep their memory
    own = '{';
    packed.clear();
    each_member(document, [&](std::string_view name, std::string_view member) {
        if (name != "schema" && name != "site" && name != "id" && name != "health")
            own.append(member).append(1, ',');
    });
    own += '}';
    room_card made;
    made.known = known;
    made.rev = number_of(parsed, "rev");
    made.length = static_cast<uint32_t>(own.size());
    packed.append(reinterpret_cast<const char *>(known.partners.data()), known.partner_count * sizeof(uint64_t));
    append_packed(&packed, own);
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
    using place = blank_document::place;
    const std::string own = unpacked(std::string_view(packed).substr(known.partner_count * sizeof(uint64_t)), length);
    const blank_document &blank = blank_of(known.kind);
    thread_local std::vector<std::string_view> texts; // of the members of the blank document; it keeps its memory
    thread_local std::string details;
    texts.assign(blank.members.size(), {});
    details.clear();
    card_members made;
    made.text.reserve(blank.text.size() + own.size());
    size_t next = 0;
    each_member(own, [&](std::string_view name, std::string_view member) {
        const size_t number = blank.find(name, next);
        if (number == texts.size()) {
            details.append(1, ',').append(member);
            return;
        }
        texts[number] = member;
        next = number + 1;
    });
    for (size_t i = 0; i < texts.size(); ++i) {
        const auto &[name, text, at] = blank.members[i];
        if (at != place::nowhere)
            (at == place::row ? made.text : details).append(1, ',').append(texts[i].empty() ? text : texts[i]);
    }
    made.listed = made.text.size();
    made.text += details;
    return made;
}

} // namespace fxm::fleet
