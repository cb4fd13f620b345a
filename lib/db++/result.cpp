#include "lib/db++/result.h"

#include <mysql.h>

#include "lib/db++/error.h"
#include "utils/guards.h"

namespace corvo::mysql {

namespace {

// Fills an empty field.
void fill(Field& field, const char* bytes, unsigned long length) {
    field.null = bytes == nullptr;
    if (!field.null)
        field.value.assign(bytes, length);
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
    return findField(fields_, name);
}

const Field& Result::row_t::operator[](const std::string& name) const {
    return findField(fields_, name);
}

void Result::Release::operator()(st_mysql_res* result) const noexcept {
    const ErrnoGuard keepErrno;
    mysql_free_result(result);
}

Result::Result(st_mysql_res* result) : stored_(result), columns_(mysql_fetch_fields(result)) {}

std::size_t Result::size() const noexcept {
    return ::mysql_num_rows(stored_.get());
}

bool Result::fetch(row_t* row) {
    const MYSQL_ROW values = mysql_fetch_row(stored_.get());
    const unsigned long* lengths = mysql_fetch_lengths(stored_.get());
    if (values == nullptr)
        return false;
    row->fields_.clear();
    const unsigned int count = mysql_num_fields(stored_.get());
    for (unsigned int i = 0; i < count; ++i) {
        const auto [column, isNew] =
            row->fields_.try_emplace(std::string(columns_[i].name, columns_[i].name_length));
        if (!isNew)
            throw mError("duplicated field " + column->first + " in query");
        fill(column->second, values[i], lengths[i]);
    }
    return true;
}

}  // namespace corvo::mysql
