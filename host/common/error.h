// A failure as the API reports it: a code, what happened on what, and what to do. Handlers and jobs throw it; one place
// in fxmd turns it into an answer.
#pragma once

#include <stdexcept>
#include <string>

namespace fxm
{

class api_error : public std::runtime_error
{
  public:
    // `code` is one of docs/api.md, such as "FXM_API_ENOENT". `hint` may be empty.
    api_error(std::string code, const std::string &message, std::string hint = "")
        : std::runtime_error(message), code(std::move(code)), hint(std::move(hint))
    {
    }

    std::string code;
    std::string hint;
};

} // namespace fxm
