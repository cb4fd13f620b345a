#include "audit/walk_gaps.h"

#include <cstddef>

#include "audit/text.h"
#include "restore/walker.h"

namespace corvo::audit {

void omitGapsOfWalk(Output& output) {
    if (const std::size_t reports = mail::restore::reportsOfLastWalk(); reports > 0)
        output.omit("the panel database was not read whole: see the " +
                    counted(reports, "line", "lines") + " above");
}

void omitUnmetScope(Output& output, const Scope& scope) {
    if (!scope.isAll())
        output.omit("nothing that the panel knows is meant by --domain and --mailbox");
}

}  // namespace corvo::audit
