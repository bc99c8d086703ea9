#include "daemon/roles.h"

#include <fmt/format.h>
#include <grp.h>
#include <unistd.h>

#include <algorithm>

#include "daemon/tokens.h"

namespace fxm
{

const char *word(role value)
{
    constexpr const char *words[] = {"none", "view", "operate", "admin"};
    return words[static_cast<size_t>(value)];
}

static std::optional<uint32_t> look_up(const std::string &name)
{
    std::vector<char> buffer(65536);
    struct group entry {
    };
    struct group *found = nullptr;
    if (getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
        return std::nullopt;
    return entry.gr_gid;
}

role role_of(std::string_view name)
{
    for (const role value : {role::view, role::operate, role::admin}) {
        if (name == word(value))
            return value;
    }
    return role::none;
}

roles::roles(const role_settings &settings, logger *log)
    : groups_{{}, {settings.group_view, {}}, {settings.group_operate, {}}, {settings.group_admin, {}}},
      own_uid_(geteuid())
{
    std::string missing;
    for (group &entry : groups_) {
        if (entry.name.empty())
            continue;
        entry.gid = look_up(entry.name);
        if (!entry.gid)
            missing += (missing.empty() ? "" : ", ") + entry.name;
    }
    if (!missing.empty())
        log->warning("these groups do not exist, and nobody gets their roles: {}", missing);
    if (!settings.token_file.empty()) {
        for (token_line &line : read_tokens(settings.token_file))
            tokens_.emplace_back(std::move(line.token), role_of(line.role));
    }
}

// Takes the same time wherever the texts differ.
static bool equal(const std::string &left, const std::string &right)
{
    unsigned differ = left.size() != right.size() ? 1 : 0;
    for (size_t i = 0; i < std::min(left.size(), right.size()); ++i)
        differ |= static_cast<unsigned char>(left[i] ^ right[i]);
    return differ == 0;
}

std::string words(const caller &who)
{
    if (!who.user.empty())
        return fmt::format("user={} role={}", who.user, who.role);
    return fmt::format("uid={} pid={} role={}", who.uid, who.pid, who.role);
}

role roles::of(const http_request &request) const
{
    if (request.who.granted)
        return *request.who.granted;
    if (!request.who.local) {
        constexpr std::string_view scheme = "Bearer ";
        if (!request.authorization.starts_with(scheme))
            return role::none;
        role best = role::none;
        const std::string given = request.authorization.substr(scheme.size());
        for (const auto &[token, value] : tokens_) {
            if (equal(token, given))
                best = std::max(best, value);
        }
        return best;
    }
    // Whoever runs fxmd can do anything to it anyway.
    if (request.who.uid == 0 || request.who.uid == own_uid_)
        return role::admin;
    for (const role value : {role::admin, role::operate, role::view}) {
        const auto &gid = groups_[static_cast<size_t>(value)].gid;
        if (gid && std::find(request.who.groups.begin(), request.who.groups.end(), *gid) != request.who.groups.end())
            return value;
    }
    return role::none;
}

std::string roles::hint(role needed, bool local) const
{
    if (!local)
        return fmt::format("send \"Authorization: Bearer TOKEN\" with a token of the role {}", word(needed));
    return fmt::format("ask for membership of the group {} (usermod -aG {} USER), or use sudo",
                       groups_[static_cast<size_t>(needed)].name, groups_[static_cast<size_t>(needed)].name);
}

std::optional<uint32_t> roles::group_of(role value) const { return groups_[static_cast<size_t>(value)].gid; }

} // namespace fxm
