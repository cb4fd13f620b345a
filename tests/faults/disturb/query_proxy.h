// Between the program and the database server: passes everything on until one exchange goes wrong.

#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "tests/faults/disturb/background.h"
#include "tests/faults/disturb/socket_detour.h"

namespace corvo::faults {

/// What happens to the message that the fault meets: a new connection or a packet of the program's.
enum class Trouble {
    none,
    dropBefore,        // the server never sees it; the connection ends
    dropAfter,         // the server has answered; the connection ends without the answer
    dropWithinAnswer,  // half of the answer's first piece comes, then the end
    stall,             // nothing happens for a while, then the connection ends
    garbage,           // bytes without meaning come in place of the answer
    garbledAnswer,     // the answer comes, its bytes after the packet's header changed
    error,             // the server says that it is out of connections
    gone,              // all connections end, and nobody listens any more
    interlude,         // something else happens first, then it is passed on
};

struct ProxyFault {
    unsigned message = 0;  // which message, counted from 1 over all connections
    Trouble trouble = Trouble::none;
    std::function<void()> interlude;
};

/// Takes the place of the server's socket for this process and its children, as long as it lives.
class QueryProxy {
public:
    /// `socket` is the path whose place it takes, `server` makes a new connection to the server.
    /// Throws std::system_error.
    QueryProxy(const std::string& socket, const std::function<UniqueFd()>& server,
               const ProxyFault& fault);
    ~QueryProxy();
    QueryProxy(const QueryProxy&) = delete;
    QueryProxy& operator=(const QueryProxy&) = delete;

    /// Messages so far.
    unsigned messages() const { return *messages_; }

private:
    struct Unmap {
        void operator()(std::atomic<unsigned>* counter) const;
    };

    std::unique_ptr<std::atomic<unsigned>, Unmap> messages_;  // shared with the process
    std::unique_ptr<Background> process_;
    std::unique_ptr<SocketDetour> detour_;
};

}  // namespace corvo::faults
