#include "restore/server_parameters.h"

#include <optional>

#include "restore/reports.h"

namespace corvo::mail::restore {

namespace {

using mysql::Connection;
using mysql::Field;

// Empty when there is no row.
using Parameter = std::optional<Field>;
using Reader = Parameter(const std::string& name, Connection& connection);

Parameter firstRow(Connection& connection, const std::string& statement,
                   const std::string& column) {
    mysql::Result result = connection << statement << mysql::Query::fetch;
    mysql::Result::row_t row;
    if (!result.fetch(&row))
        return std::nullopt;
    return row[column];
}

Parameter readMisc(const std::string& name, Connection& connection) {
    return firstRow(connection, "SELECT    val  FROM misc    WHERE param='" + name + "'", "val");
}

Parameter readMailServer(const std::string& name, Connection& connection) {
    return firstRow(connection,
                    "SELECT    value  FROM ServiceNodeConfiguration    WHERE name='" + name +
                        "' AND serviceNodeId=1 AND section='mailServer'",
                    "value");
}

Parameter readOrWarn(Reader read, const std::string& name, Connection& connection) {
    try {
        return read(name, connection);
    } catch (const mysql::mError& error) {
        // Every parameter's warning speaks of the authentication type.
        warning() << "Warning: MySQL Error on Mail Authentication Type query: " << error.what()
                  << ", ignored" << std::endl;
        return std::nullopt;
    }
}

Field orNull(const Parameter& parameter) {
    return parameter.value_or(Field{"", true});
}

bool isTrue(const Parameter& parameter, bool defaultValue) {
    return parameter ? parameter->value == "true" : defaultValue;
}

}  // namespace

Field getStringMiscParam(const std::string& name, Connection& connection) {
    return orNull(readMisc(name, connection));
}

Field getStringMailServerParam(const std::string& name, Connection& connection) {
    return orNull(readMailServer(name, connection));
}

Field getStringMiscParamSafe(const std::string& name, Connection& connection) {
    return orNull(readOrWarn(readMisc, name, connection));
}

Field getStringMailServerParamSafe(const std::string& name, Connection& connection) {
    return orNull(readOrWarn(readMailServer, name, connection));
}

bool getBoolMiscParamSafe(const std::string& name, Connection& connection, bool defaultValue) {
    return isTrue(readOrWarn(readMisc, name, connection), defaultValue);
}

bool getBoolMailServerParamSafe(const std::string& name, Connection& connection,
                                bool defaultValue) {
    return isTrue(readOrWarn(readMailServer, name, connection), defaultValue);
}

}  // namespace corvo::mail::restore
