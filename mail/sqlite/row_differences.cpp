#include "mail/sqlite/row_differences.h"

#include "mail/sqlite/sqlite_session.h"

namespace corvo::mail {

RowDifferences rowDifferences(SqliteStatement& look) noexcept {
    switch (look.step()) {
        case SqliteStep::row:
            return {.contents = look.integer(0) != 1};
        case SqliteStep::done:
            return {.missing = true};
        default:
            return {.unknown = true};
    }
}

}  // namespace corvo::mail
