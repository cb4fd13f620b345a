#include "restore/rows.h"

#include <utility>

#include "restore/reports.h"
#include "restore/stage.h"

namespace corvo::mail::restore {

Rows::Rows(mysql::Connection& connection, const std::string& statement, CycleLabel label)
    : cycle_(std::move(label)) {
    try {
        result_.emplace(connection << statement << mysql::Query::fetch);
    } catch (const mysql::mError& error) {
        warning() << "Warning: MySQL Query error on " << cycle_.name << ": " << error.what()
                  << ", ignored" << std::endl;
    }
}

bool Rows::next(Row& row) {
    Fetched fetched = fetch(row);
    while (fetched == Fetched::NOTHING)
        fetched = fetch(row);
    return fetched == Fetched::ROW;
}

bool Rows::fetchOnce(Row& row) {
    return fetch(row) == Fetched::ROW;
}

Rows::Fetched Rows::fetch(Row& row) {
    if (!result_)
        return Fetched::END;
    try {
        return result_->fetch(&row) ? Fetched::ROW : Fetched::END;
    } catch (const mysql::mError& error) {
        warning() << "Warning: MySQL Fetch Row Error on " << cycle_.name << cycle_.separator
                  << error.what() << ", row ignored" << std::endl;
        progress(cycle_.skipMark);
        return Fetched::NOTHING;
    }
}

}  // namespace corvo::mail::restore
