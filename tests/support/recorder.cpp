#include "tests/support/recorder.h"

#include <stdexcept>

#include "tests/support/slots.h"

namespace corvo::test {

namespace {

std::string text(const std::string& value) {
    return '"' + value + '"';
}

std::string text(bool value) {
    return value ? "true" : "false";
}

std::string text(long long value) {
    return std::to_string(value);
}

std::string text(int value) {
    return std::to_string(value);
}

std::string text(short value) {
    return std::to_string(value);
}

std::string text(const std::vector<std::string>& values) {
    std::string joined;
    for (const std::string& value : values)
        joined += (joined.empty() ? "" : ", ") + text(value);
    return '[' + joined + ']';
}

}  // namespace

Recorder::Recorder(std::initializer_list<std::string> slots) {
    for (const std::string& slot : slots)
        bind(slot);
}

void Recorder::bindAll() {
    forEachSlot(callbacks, [this](const char* name, auto& slot) { record(name, slot); });
}

void Recorder::bind(const std::string& slot) {
    bool found = false;
    forEachSlot(callbacks, [&](const char* name, auto& candidate) {
        if (name != slot)
            return;
        record(name, candidate);
        found = true;
    });
    if (!found)
        throw std::invalid_argument("no slot " + slot);
}

void Recorder::on(const std::string& slot, Action action) {
    actions_[slot] = std::move(action);
}

template <typename... Arguments>
void Recorder::record(const char* name, boost::function<void(Arguments...)>& slot) {
    slot = [this, name](Arguments... arguments) { called(name, {text(arguments)...}); };
}

void Recorder::called(const std::string& slot, const std::vector<std::string>& arguments) {
    std::string joined;
    for (const std::string& argument : arguments)
        joined += (joined.empty() ? "" : ", ") + argument;
    lines_.push_back(slot + '(' + joined + ')');
    if (const auto action = actions_.find(slot); action != actions_.end())
        action->second();
}

}  // namespace corvo::test
