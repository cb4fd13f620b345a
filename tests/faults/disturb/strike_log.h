// What a tracer has to tell of the run that it strikes.

#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace corvo::faults {

/// Shared with the children that this process makes: what one of them notes can be read here when
/// it has ended. Throws std::system_error when there is no memory.
class StrikeLog {
public:
    StrikeLog();
    StrikeLog(const StrikeLog&) = delete;
    StrikeLog& operator=(const StrikeLog&) = delete;
    ~StrikeLog();

    /// The run had the call that was to be struck.
    void setMet();
    bool isMet() const;

    /// A path whose look or reading was made to fail. What does not fit is left out.
    void noteUnread(const std::string& path);
    std::vector<std::string> unread() const;

private:
    struct Shared;

    Shared* shared_;
};

}  // namespace corvo::faults
