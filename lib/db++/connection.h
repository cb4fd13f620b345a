// A connection to the panel database, and the statement that is being built on it.

#pragma once

#include <optional>
#include <sstream>
#include <string>

#include "lib/db++/error.h"
#include "lib/db++/query.h"
#include "lib/db++/result.h"

struct st_mysql;

namespace corvo::mysql {

/// Owns or borrows one client handle. Pieces of a statement are streamed in and written raw; a
/// Query tag takes the text out and runs it, so that a failed statement never leaks text into the
/// next:
///
///     Result result = connection << "SELECT name FROM domains WHERE id=" << id << Query::fetch;
///
/// One thread per connection. Failures are thrown as mError.
class Connection {
public:
    /// Opens at once when told so.
    explicit Connection(bool open_now);
    /// Uses an open handle, and closes it at the end when `closesIt` is set.
    Connection(st_mysql* openHandle, bool closesIt);
    /// Owns what db_connect or its like has returned. Throws mError "connection failed" for null,
    /// whose reason has been printed.
    static Connection owning(st_mysql* opened);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Connects with the panel's credentials unless connected. Throws mError "connection failed";
    /// the reason has then been printed.
    void open();

    /// For a connection that was idle: looks whether it lives, and opens it anew, with the same
    /// credentials, when it does not. Not a word is said when that fails; the next statement fails
    /// then, and the next call tries again. Leaves a borrowed connection and a closed one alone.
    void reopenIfLost() noexcept;

    /// `text` escaped for use between single quotes. A length of 0 stands for the string's length.
    /// Throws std::bad_alloc when the text is too long, and mError "Unknown error\n escaping a
    /// text" when the connection is not open.
    std::string escape(const char* text, std::size_t length = 0);
    /// `text` with every backquote doubled, for use between backquotes. A length of 0 stands for
    /// the string's length.
    std::string escape_name(const char* text, std::size_t length = 0);

    /// How the next text piece is written; every piece and every run puts it back to raw.
    enum Mode { MODE_VALUE = 0, MODE_NAME = 1, MODE_RAW = 2 };
    void setMode(int next) noexcept { mode = next; }

    /// Adds a piece; a std::string with all its bytes. A null text writes nothing in any mode; a
    /// raw one sets the stream's fail state: later pieces are lost until the next run clears it.
    /// Throws std::bad_alloc; the pieces before are forgotten then.
    Connection& operator<<(const char* text);
    Connection& operator<<(const std::string& text);
    Connection& operator<<(int number);
    Connection& operator<<(unsigned long long number);
    /// Formatted with "%f".
    Connection& operator<<(double number);

    /// Runs the statement. Returns the first number of the client's info text (records or matched
    /// rows), or the affected rows when there is none or it is 0.
    unsigned long long operator<<(Query::exec_t);
    /// Runs the statement and returns its rows, stored on the client's side.
    Result operator<<(Query::fetch_t);

    /// Prints escape_name's answers to four texts on standard error, for a look by eye. Part of the
    /// interface, as are its lines, which name this function and its place in the source.
    static void test();

private:
    std::ostringstream& statement();
    void append(const char* text, std::size_t length);
    void write(const char* text, std::size_t length);
    std::string takeStatement();
    void run(const std::string& statement);

    // Described to other programs by these names and types.
    st_mysql* handle = nullptr;
    bool owns = true;
    std::optional<std::ostringstream> query;
    int mode = MODE_RAW;
};

}  // namespace corvo::mysql
