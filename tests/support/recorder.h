// A set of callbacks that writes down what the walker reports.

#pragma once

#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "restore/entities_callbacks.h"

namespace corvo::test {

/// Binds slots of a callback set of its own to a list of text lines. Must stay where it is.
class Recorder {
public:
    using Action = std::function<void()>;

    Recorder() = default;
    ~Recorder() = default;
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// Binds the slots with these names; an unknown name throws std::invalid_argument.
    Recorder(std::initializer_list<std::string> slots);

    /// Binds all 19 slots.
    void bindAll();
    void bind(const std::string& slot);

    /// Runs `action` at each call of a bound slot, after the call was written down.
    void on(const std::string& slot, Action action);

    /// A line per call: `setDomainCatchall("example.com", 1, "gone")`.
    const std::vector<std::string>& lines() const { return lines_; }

    /// What to pass to the walker.
    mail::restore::MailsrvEntitiesCallbacks callbacks;

private:
    template <typename... Arguments>
    void record(const char* name, boost::function<void(Arguments...)>& slot);
    void called(const std::string& slot, const std::vector<std::string>& arguments);

    std::vector<std::string> lines_;
    std::map<std::string, Action> actions_;
};

/// An action for Recorder::on that throws a copy of `exception`.
template <typename Exception>
Recorder::Action throwing(Exception exception) {
    return [exception] { throw exception; };
}

}  // namespace corvo::test
