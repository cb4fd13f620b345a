#include "audit/show.h"

#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "audit/progress.h"
#include "audit/status.h"
#include "audit/text.h"
#include "audit/walk_gaps.h"
#include "restore/walker.h"

namespace corvo::audit {

namespace {

using Name = const std::string&;
using Slots = mail::restore::MailsrvEntitiesCallbacks;

// By their numbers in the slots.
constexpr std::array CATCHALL_MODES = {"none", "bounce", "catch"};
constexpr std::array RELAY_MODES = {"open", "closed", "auth"};

constexpr long long NO_QUOTA = -1;

// The names under which a domain's certificate is used: its own and this before it.
constexpr std::string_view MAIL_HOST = "mail.";

constexpr const char* onOrOff(bool isOn) {
    return isOn ? "on" : "off";
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

// The fields of both, one behind the other.
Record together(Record first, const Record& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// What the panel says, printed as it is told.
class Show {
public:
    Show(const Options& options, Output& output)
        : scope_(options.scope), output_(output), progress_(options) {}

    int run() {
        Slots slots;
        bindDomainSlots(slots);
        bindMailnameSlots(slots);
        if (scope_.isAll()) {
            bindListSlots(slots);
            bindSettingSlots(slots);
        }
        mail::restore::walkMailServerEntities(slots);
        tellOfGaps();
        return finish() && output_.isWhole() ? NOTHING_TO_REPAIR : NOT_WHOLE;
    }

private:
    void bindDomainSlots(Slots& slots) {
        slots.registerDomain = [this](Name domain, bool off) {
            progress_.step();
            domains_ += scope_.includes(domain) ? 1 : 0;
            printOf(domain, "domain", {{"enabled", !off}}, onOrOff(!off));
        };
        slots.registerDomainAlias = [this](Name domain, Name alias, bool aliasOff, bool domainOff) {
            printOf(domain, "domain-alias",
                    {{"alias", alias}, {"enabled", !aliasOff}, {"domain_enabled", !domainOff}},
                    alias + ", " + onOrOff(!aliasOff));
        };
        slots.setDomainCatchall = [this](Name domain, int mode, Name value) {
            const char* const name = CATCHALL_MODES.at(static_cast<std::size_t>(mode));
            printOf(domain, "catchall", {{"mode", name}, {"value", valueUnlessEmpty(value)}},
                    value.empty() ? name : fmt::format("{} \"{}\"", name, value));
        };
        slots.registerDomainCertificate = [this](Name name, Name file) {
            if (isCertificateMeant(name))
                print("certificate", {{"name", name}, {"file", file}}, name + ": " + file);
        };
    }

    // No mail name is ever reported to registerMailForwarding.
    void bindMailnameSlots(Slots& slots) {
        slots.registerMailname = [this](Name domain, Name mailname) {
            mailnames_ += scope_.includes(domain, mailname) ? 1 : 0;
            printOf(domain, mailname, "mailname", {}, "");
        };
        slots.registerMailbox = [this](Name domain, Name mailname, bool delivers) {
            printOf(domain, mailname, "mailbox", {{"delivers", delivers}},
                    delivers ? "delivers" : "does not deliver");
        };
        slots.setMailboxQuota = [this](Name domain, Name mailname, long long quota) {
            const bool isGiven = quota != NO_QUOTA;
            printOf(domain, mailname, "quota", {{"bytes", isGiven ? Value(quota) : Value()}},
                    isGiven ? fmt::format("{} bytes", quota) : "none");
        };
        slots.registerMailAlias = [this](Name domain, Name mailname, Name alias, bool domainOff) {
            printOf(domain, mailname, "mail-alias",
                    {{"alias", alias}, {"domain_enabled", !domainOff}}, alias);
        };
        slots.registerMailRedirect = [this](Name domain, Name mailname, Name address) {
            printOf(domain, mailname, "forward", {{"address", address}}, address);
        };
    }

    void bindListSlots(Slots& slots) {
        slots.addWhiteListNetwork = [this](Name address, int mask) {
            print("white-list", {{"address", address}, {"mask", mask}},
                  fmt::format("{}/{}", address, mask));
        };
        slots.addBlackListedDomain = [this](Name sender) {
            print("black-list", {{"sender_domain", sender}}, sender);
        };
        slots.setRBLServers = [this](const std::vector<std::string>& servers) {
            print("rbl-servers", {{"servers", servers}},
                  servers.empty() ? "none" : joined(servers));
        };
    }

    void bindSettingSlots(Slots& slots) {
        slots.setSubmissionEnabled = [this](bool enabled) {
            print("submission", {{"enabled", enabled}}, onOrOff(enabled));
        };
        slots.setMaxMessageSize = [this](long long size) {
            print("message-size", {{"bytes", size}}, fmt::format("{} bytes", size));
        };
        slots.setSmtpRelayAndAuth = [this](int mode, bool smtpAuth, bool popBeforeSmtp,
                                           short lockTime) {
            const char* const name = RELAY_MODES.at(static_cast<std::size_t>(mode));
            print(
                "relaying",
                {{"mode", name},
                 {"smtp_auth", smtpAuth},
                 {"pop_before_smtp", popBeforeSmtp},
                 {"lock_minutes", lockTime}},
                fmt::format("{}, SMTP authentication {}, POP before SMTP {}, lock time {} minutes",
                            name, onOrOff(smtpAuth), onOrOff(popBeforeSmtp), lockTime));
        };
        slots.setShortNamesAuth = [this](bool pop3Names, bool mailNames) {
            print("short-names", {{"pop3", pop3Names}, {"mail", mailNames}},
                  fmt::format("POP3 {}, mail {}", onOrOff(pop3Names), onOrOff(mailNames)));
        };
        slots.enableRejectOverquota = [this](bool reject, bool permanently) {
            print("over-quota", {{"reject", reject}, {"permanently", permanently}},
                  fmt::format("rejection {}, permanent {}", onOrOff(reject), onOrOff(permanently)));
        };
        slots.restoreRecipientCanonical = [this] { print("recipient-canonical", {}, "in use"); };
    }

    // By its own name, or by that of the domain whose mail host it is for.
    bool isCertificateMeant(Name name) const {
        return scope_.includes(name) ||
               (name.starts_with(MAIL_HOST) && scope_.includes(name.substr(MAIL_HOST.size())));
    }

    void printOf(Name domain, const char* kind, const Record& fields, const std::string& text) {
        if (!scope_.includes(domain))
            return;
        print(kind, together({{"domain", domain}}, fields), domain + ": " + text);
    }

    void printOf(Name domain, Name mailname, const char* kind, const Record& fields,
                 const std::string& text) {
        if (!scope_.includes(domain, mailname))
            return;
        const std::string address = mailname + "@" + domain;
        print(kind, together({{"domain", domain}, {"mailbox", address}}, fields),
              address + (text.empty() ? "" : ": " + text));
    }

    void print(const char* kind, const Record& fields, const std::string& text) {
        output_.print(together({{"kind", kind}}, fields),
                      fmt::format("{:<19} {}", kind, printable(text)), Tone::plain);
        ++items_;
    }

    void tellOfGaps() {
        omitGapsOfWalk(output_);
        if (items_ == 0)
            omitUnmetScope(output_, scope_);
    }

    bool finish() {
        const Record summary = {
            {"domains", domains_}, {"mailnames", mailnames_}, {"items", items_}};
        return output_.finish(summary, counted(domains_, "domain", "domains") + ", " +
                                           counted(mailnames_, "mail name", "mail names") + ".");
    }

    const Scope& scope_;
    Output& output_;
    Progress progress_;
    std::size_t domains_ = 0;
    std::size_t mailnames_ = 0;
    std::size_t items_ = 0;
};

}  // namespace

int show(const Options& options, Output& output) {
    return Show(options, output).run();
}

}  // namespace corvo::audit
