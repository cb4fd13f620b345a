#include "tests/support/recorder.h"

#include <stdexcept>

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
    for (const auto& [name, bindSlot] : bindings())
        bindSlot();
}

void Recorder::bind(const std::string& slot) {
    for (const auto& [name, bindSlot] : bindings()) {
        if (name == slot)
            return bindSlot();
    }
    throw std::invalid_argument("no slot " + slot);
}

void Recorder::on(const std::string& slot, Action action) {
    actions[slot] = std::move(action);
}

std::vector<Recorder::Binding> Recorder::bindings() {
    return {
        binding("registerDomain", callbacks.registerDomain),
        binding("registerDomainAlias", callbacks.registerDomainAlias),
        binding("setDomainCatchall", callbacks.setDomainCatchall),
        binding("registerDomainCertificate", callbacks.registerDomainCertificate),
        binding("registerMailname", callbacks.registerMailname),
        binding("registerMailAlias", callbacks.registerMailAlias),
        binding("registerMailRedirect", callbacks.registerMailRedirect),
        binding("registerMailForwarding", callbacks.registerMailForwarding),
        binding("addWhiteListNetwork", callbacks.addWhiteListNetwork),
        binding("addBlackListedDomain", callbacks.addBlackListedDomain),
        binding("setRBLServers", callbacks.setRBLServers),
        binding("setSubmissionEnabled", callbacks.setSubmissionEnabled),
        binding("setMaxMessageSize", callbacks.setMaxMessageSize),
        binding("setSmtpRelayAndAuth", callbacks.setSmtpRelayAndAuth),
        binding("setShortNamesAuth", callbacks.setShortNamesAuth),
        binding("registerMailbox", callbacks.registerMailbox),
        binding("setMailboxQuota", callbacks.setMailboxQuota),
        binding("enableRejectOverquota", callbacks.enableRejectOverquota),
        binding("restoreRecipientCanonical", callbacks.restoreRecipientCanonical),
    };
}

template <typename... Arguments>
Recorder::Binding Recorder::binding(const char* name, boost::function<void(Arguments...)>& slot) {
    return {name, [this, name, &slot] {
                slot = [this, name](Arguments... arguments) { called(name, {text(arguments)...}); };
            }};
}

void Recorder::called(const std::string& slot, const std::vector<std::string>& arguments) {
    std::string joined;
    for (const std::string& argument : arguments)
        joined += (joined.empty() ? "" : ", ") + argument;
    lines_.push_back(slot + '(' + joined + ')');
    if (const auto action = actions.find(slot); action != actions.end())
        action->second();
}

}  // namespace corvo::test
