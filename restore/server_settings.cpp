#include "restore/server_settings.h"

#include <string>

#include "restore/numbers.h"
#include "restore/server_parameters.h"
#include "restore/stage.h"

namespace corvo::mail::restore {

namespace {

using mysql::Connection;

constexpr short DEFAULT_LOCK_TIME = 30;  // minutes

enum RelayMode { RELAY_OPEN = 0, RELAY_CLOSED = 1, RELAY_AUTH = 2 };

struct Pop {
    bool beforeSmtp = false;
    short lockTime = DEFAULT_LOCK_TIME;
};

struct Relay {
    RelayMode mode = RELAY_AUTH;
    bool smtpAuth = true;
    Pop pop;
};

bool readSmtpAuth(Connection& connection) {
    const std::string text = getStringMailServerParamSafe("disable_smtp_auth", connection).value;
    const auto disabled = numberOrWarn<int>(text, "SMTP Auth Disable flag value");
    return disabled == 0;
}

// A missing or empty flag means off, without a warning.
bool readPopAuth(Connection& connection) {
    const std::string text = getStringMailServerParamSafe("disable_pop_auth", connection).value;
    if (text.empty())
        return false;
    const auto disabled = numberOrWarn<int>(text, "POP3 Auth Disable flag value");
    return disabled == 0;
}

short readLockTime(Connection& connection) {
    const std::string text = getStringMailServerParamSafe("poplock_time", connection).value;
    return numberOrWarn<short>(text, "POP3 lock time value", Quoted::no)
        .value_or(DEFAULT_LOCK_TIME);
}

Pop readPop(Connection& connection) {
    if (!readPopAuth(connection))
        return {};
    return {true, readLockTime(connection)};
}

Relay readRelay(Connection& connection) {
    const std::string kind = getStringMailServerParam("relay", connection).value;
    if (kind == "open")
        return {RELAY_OPEN, false, {}};
    if (kind == "closed")
        return {RELAY_CLOSED, false, {}};
    if (kind == "auth")
        return {RELAY_AUTH, readSmtpAuth(connection), readPop(connection)};
    return {};
}

}  // namespace

void restoreSubmission(MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    callbacks.setSubmissionEnabled(
        getBoolMailServerParamSafe("message_submission", connection, /*defaultValue=*/false));
}

void restoreMaxMessageSize(MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    const mysql::Field size = getStringMailServerParamSafe("ml_size", connection);
    if (size.null)
        return;
    const auto kib = numberOrWarn<long long>(size.value, "Maximal Message Size", Quoted::no);
    if (!kib)
        return;
    progress(" " + std::to_string(*kib) + "KiB \n");
    callbacks.setMaxMessageSize(*kib << 10);  // defined for every value, as a product would not be
}

void restoreSmtpRelayAndAuth(MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    const Relay relay = readRelay(connection);
    callbacks.setSmtpRelayAndAuth(relay.mode, relay.smtpAuth, relay.pop.beforeSmtp,
                                  relay.pop.lockTime);
}

void restoreShortNamesAuth(MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    const bool mailNames =
        getStringMiscParamSafe("postfix-allow-short-mail-names", connection).value == "true";
    const bool pop3Names =
        getStringMiscParamSafe("allow_short_pop3_names", connection).value == "enabled";
    callbacks.setShortNamesAuth(pop3Names, mailNames);
}

void restoreOverquotaRejection(MailsrvEntitiesCallbacks& callbacks, Connection& connection) {
    const bool permanently = getBoolMiscParamSafe("reject_mail_when_overquota_with_permfail",
                                                  connection, /*defaultValue=*/false);
    const bool reject =
        getBoolMiscParamSafe("reject_mail_when_overquota", connection, /*defaultValue=*/true);
    callbacks.enableRejectOverquota(reject, permanently);
}

void restoreRecipientCanonicalMapper(MailsrvEntitiesCallbacks& callbacks, Connection&) {
    callbacks.restoreRecipientCanonical();
}

}  // namespace corvo::mail::restore
