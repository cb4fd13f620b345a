// The rows of a statement.

#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>

struct st_mysql_field;
struct st_mysql_res;

namespace corvo::mysql {

/// One value of a row.
struct Field {
    std::string value;  // the column's bytes; may hold zero bytes
    bool null = false;  // SQL NULL; the value is then empty
};

/// Walks the rows of a stored result, which it owns. Movable. Use it up or destroy it before the
/// next statement runs on the same handle.
class Result {
public:
    /// A row as a map from column name to field.
    class row_t {
        using Fields = std::map<std::string, Field>;

    public:
        /// Throws mError "No field named <name> in result set"; never inserts.
        Field& operator[](const std::string& name);
        const Field& operator[](const std::string& name) const;

        bool contains(const std::string& name) const { return fields_.contains(name); }
        std::size_t size() const noexcept { return fields_.size(); }

        /// The pairs of column name and field, in the order of the names.
        Fields::const_iterator begin() const noexcept { return fields_.begin(); }
        Fields::const_iterator end() const noexcept { return fields_.end(); }

    private:
        friend class Result;
        Fields fields_;
    };

    /// Takes ownership of a stored result.
    explicit Result(st_mysql_res* result);

    /// How many rows there are.
    std::size_t size() const noexcept;

    /// Refills `row` with the next row. False at the end, `row` untouched. Throws mError
    /// "duplicated field <name> in query" when two columns bear one name; the next call goes on
    /// with the next row.
    bool fetch(row_t* row);

private:
    struct Release {
        void operator()(st_mysql_res* stored) const noexcept;
    };

    std::unique_ptr<st_mysql_res, Release> stored_;
    st_mysql_field* columns_;  // owned by the stored result
};

}  // namespace corvo::mysql
