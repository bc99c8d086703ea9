#include "daemon/library_error.h"

#include <fmt/format.h>

#include <iterator>

#include "common/card_id.h"
#include "fxm.h"

namespace fxm
{

struct meaning {
    const char *name;
    const char *cause;
    const char *hint;
};

// By the value of the result.
static constexpr meaning meanings[] = {
    {"FXM_API_SUCCESS", "done", ""},
    {"FXM_API_EINVAL", "an argument is out of range", ""},
    {"FXM_API_ERANGE", "a limit was exceeded", ""},
    {"FXM_API_ENOENT", "the library does not know the card", "fxmctl cards lists the cards"},
    {"FXM_API_ENOLINK", "no channel of the card is up, or it is out of monitoring",
     "fxmctl show lists the channels; --livecheck looks for one on which the card answers"},
    {"FXM_API_ENOMEM", "out of memory", ""},
    {"FXM_API_EPROTO", "the frame could not be sent, or the card refused the access", "see fxmctl log"},
    {"FXM_API_ETIMEDOUT", "the card did not answer, or did not take the value, in time",
     "fxmctl show says which channels are up and when the card was last seen"},
    {"FXM_API_EBUSY", "another manager holds the lock of the EEPROM",
     "wait for it; fxmctl eeprom unlock or --force takes the lock away"},
    {"FXM_API_ENOSYS", "the library is not running", "fxmctl status says why"},
};

static const meaning &meaning_of(int result)
{
    const bool known = result >= 0 && result < static_cast<int>(std::size(meanings));
    return meanings[known ? result : FXM_API_EPROTO];
}

const char *result_name(int result) { return meaning_of(result).name; }

api_error library_error(int result, const std::string &what, uint64_t card)
{
    const meaning &found = meaning_of(result);
    return {found.name, fmt::format("{} of card {}: {}", what, format_id(card), found.cause), found.hint};
}

void throw_result(int result, const std::string &what, uint64_t card) { throw library_error(result, what, card); }

} // namespace fxm
