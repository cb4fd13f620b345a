#include "lib/db++/result.h"

#include <mysql.h>

#include "lib/db++/error.h"
#include "utils/guards.h"

namespace corvo::mysql {

namespace {

Field makeField(const char* bytes, unsigned long length) {
    if (bytes == nullptr)
        return {.value = {}, .null = true};
    return {.value = std::string(bytes, length), .null = false};
}

// Serves both forms of operator[]; the constness of a row is that of its fields.
template <typename Fields>
auto& findField(Fields& row, const std::string& name) {
    const auto found = row.find(name);
    if (found == row.end())
        throw mError("No field named " + name + " in result set");
    return found->second;
}

}  // namespace

Field& Result::row_t::operator[](const std::string& name) {
    return findField(fields, name);
}

const Field& Result::row_t::operator[](const std::string& name) const {
    return findField(fields, name);
}

void Result::Release::operator()(st_mysql_res* stored) const noexcept {
    const ErrnoGuard keepErrno;
    mysql_free_result(stored);
}

Result::Result(st_mysql_res* result) : stored(result), columns(mysql_fetch_fields(result)) {}

bool Result::fetch(row_t* row) {
    const MYSQL_ROW values = mysql_fetch_row(stored.get());
    const unsigned long* lengths = mysql_fetch_lengths(stored.get());
    if (values == nullptr)
        return false;
    row->fields.clear();
    const unsigned int count = mysql_num_fields(stored.get());
    for (unsigned int i = 0; i < count; ++i) {
        const std::string name(columns[i].name, columns[i].name_length);
        if (!row->fields.emplace(name, makeField(values[i], lengths[i])).second)
            throw mError("duplicated field " + name + " in query");
    }
    return true;
}

}  // namespace corvo::mysql
