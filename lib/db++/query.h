// Tags that end a statement: streamed into a Connection they run what was accumulated.

#pragma once

namespace corvo::mysql {

class Query {
public:
    enum class exec_t { tag };
    enum class fetch_t { tag };

    /// Runs a statement without rows; see Connection.
    static constexpr exec_t exec = exec_t::tag;
    /// Runs a statement with rows; see Connection.
    static constexpr fetch_t fetch = fetch_t::tag;
};

}  // namespace corvo::mysql
