#include "audit/check/check.h"

#include "audit/check/checks.h"
#include "audit/check/subject.h"

namespace corvo::audit {

void checkMachine(const CheckSink& sink) {
    checkAccount(sink);
    checkConfiguration(sink);
    const bool areCredentialsKnown = checkCredentials(sink);
    const auto panel = checkConnection(sink, areCredentialsKnown);
    if (panel)
        checkPanel(sink, *panel);
    checkDelivery(sink);
    checkLockFolder(sink);
    checkMailRoot(sink, panel.get());
    checkRoom(sink, panel.get());
    checkLocalDatabases(sink);
    checkProtection(sink);
    checkProcesses(sink);
    if (panel)
        checkPanelRows(sink, *panel);
    else
        Subject(sink, "panel rows")
            .problem("not looked at, without the panel database",
                     "check again when the panel database answers");
}

}  // namespace corvo::audit
