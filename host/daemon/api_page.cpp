// The page for browsers, and the table of named registers that it shows.
#include <string_view>

#include "common/registers.h"
#include "daemon/api.h"
#include "daemon/embedded.h"

namespace fxm
{

// The page names in itself the only script and the only style that may run, by their hashes. As a header the policy also
// keeps other pages from framing this one.
static std::string policy_of_page()
{
    constexpr std::string_view before = "http-equiv=\"Content-Security-Policy\" content=\"";
    const std::string_view page = page_text;
    const size_t begin = page.find(before);
    if (begin == std::string_view::npos)
        return "default-src 'none'";
    const std::string_view rest = page.substr(begin + before.size());
    return std::string(rest.substr(0, rest.find('"'))) + "; frame-ancestors 'none'";
}

// Everybody may have it: it holds nothing of the fabric.
static void show_page(services &, api_call &call)
{
    static const std::string policy = policy_of_page();
    http_reply reply;
    reply.type = "text/html; charset=utf-8";
    reply.policy = policy;
    reply.headers = {{"Cache-Control", "no-cache"}, {"Referrer-Policy", "no-referrer"}};
    reply.body = page_text;
    call.answer(std::move(reply));
}

// Browsers ask for it.
static void show_icon(services &, api_call &call)
{
    http_reply reply;
    reply.status = 204;
    reply.type.clear();
    call.answer(std::move(reply));
}

static void show_registers(services &, api_call &call)
{
    http_reply reply;
    reply.body = registers_document();
    call.answer(std::move(reply));
}

std::span<const route> page_routes()
{
    static constexpr route routes[] = {
        {"GET", "/", role::none, show_page},
        {"GET", "/favicon.ico", role::none, show_icon},
        {"GET", "/v1/registers", role::view, show_registers},
    };
    return routes;
}

} // namespace fxm
