// What a doctor finds: a line for each check, with what to type where something is wrong.
#pragma once

#include <string>
#include <vector>

namespace fxm
{

enum class verdict { ok, warning, wrong };

struct finding {
    verdict how;
    std::string about;
    std::string what;
    std::string advice; // what to type
};

class report
{
  public:
    void ok(std::string about, std::string what) { add(verdict::ok, std::move(about), std::move(what), ""); }
    void warn(std::string about, std::string what, std::string advice)
    {
        add(verdict::warning, std::move(about), std::move(what), std::move(advice));
    }
    void wrong(std::string about, std::string what, std::string advice)
    {
        add(verdict::wrong, std::move(about), std::move(what), std::move(advice));
    }
    bool good() const; // nothing is wrong
    void print(bool as_json, bool colour) const;

  private:
    void add(verdict how, std::string about, std::string what, std::string advice)
    {
        findings_.push_back({how, std::move(about), std::move(what), std::move(advice)});
    }
    std::vector<finding> findings_;
};

} // namespace fxm
