#include "tests/faults/disturb/query_proxy.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <list>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "utils/guards.h"

namespace corvo::faults {

namespace {

constexpr const char* PROXY_SOCKET = "/run/query_proxy.sock";
constexpr std::chrono::milliseconds STALL{200};

constexpr std::size_t HEADER = 4;  // three bytes of length, low byte first, and a number
constexpr std::size_t PIECE = 65536;

unsigned byteAt(const std::string& bytes, std::size_t position) {
    return static_cast<unsigned char>(bytes[position]);
}

/// The length of the packet that the bytes begin with, or 0 when it is not all there.
std::size_t packetIn(const std::string& bytes) {
    if (bytes.size() < HEADER)
        return 0;
    const std::size_t length =
        HEADER + byteAt(bytes, 0) + (byteAt(bytes, 1) << 8U) + (byteAt(bytes, 2) << 16U);
    return bytes.size() < length ? 0 : length;
}

std::string packet(unsigned number, std::string_view body) {
    std::string bytes;
    for (const unsigned shift : {0U, 8U, 16U})
        bytes += static_cast<char>((body.size() >> shift) & 0xffU);
    bytes += static_cast<char>(number);
    return bytes.append(body);
}

std::string outOfConnections(unsigned number) {
    return packet(number, "\xff\x10\x04#08004Too many connections");
}

std::string garbageLike(unsigned number) {
    std::string body;
    for (unsigned i = 0; i < 300; ++i)
        body += static_cast<char>((i * 167 + number * 31 + 13) & 0xffU);
    return packet(number, body);
}

/// One connection of the program's and the one that it leads to.
struct Exchange {
    UniqueFd program;
    UniqueFd server;
    std::string unread;                // the beginning of a packet of the program's
    Trouble awaiting = Trouble::none;  // what is to happen to the next answer; stall: the end

    bool open() const { return program && server; }
    void end() {
        program.reset();
        server.reset();
    }
};

void sendAll(const UniqueFd& to, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(to.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            return;  // the reader is gone, which the next poll tells
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

/// Empty when the other side has ended the connection.
std::string receive(const UniqueFd& from) {
    std::string bytes(PIECE, '\0');
    const ssize_t got =
        retryOnEintr([&] { return ::recv(from.get(), bytes.data(), bytes.size(), 0); });
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
}

class Relay {
public:
    Relay(UniqueFd listener, const std::function<UniqueFd()>& server, const ProxyFault& fault,
          std::atomic<unsigned>& messages)
        : listener_(std::move(listener)), server_(server), fault_(fault), messages_(messages) {}

    /// Never returns: its process is killed.
    [[noreturn]] void serve() {
        for (;;) {
            const std::vector<pollfd> ready = wait();
            std::size_t next = 1;
            for (Exchange& exchange : exchanges_) {
                serve(exchange, ready[next].revents != 0, ready[next + 1].revents != 0);
                next += 2;
            }
            exchanges_.remove_if([](const Exchange& exchange) { return !exchange.open(); });
            if (ready[0].revents != 0)
                accept();
        }
    }

private:
    std::vector<pollfd> wait() {
        std::vector<pollfd> all = {{listener_.get(), POLLIN, 0}};
        for (const Exchange& exchange : exchanges_) {
            all.push_back({exchange.program.get(), POLLIN, 0});
            all.push_back({exchange.server.get(), POLLIN, 0});
        }
        const bool isGarbled = std::any_of(exchanges_.begin(), exchanges_.end(), isStalling);
        const int patience = isGarbled ? static_cast<int>(STALL.count()) : -1;
        if (retryOnEintr([&] { return ::poll(all.data(), all.size(), patience); }) == 0)
            exchanges_.remove_if(isStalling);
        return all;
    }

    static bool isStalling(const Exchange& exchange) { return exchange.awaiting == Trouble::stall; }

    void accept() {
        Exchange exchange;
        exchange.program = UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        exchange.server = server_();
        if (!exchange.open())
            return;
        if (passesOn(exchange, 0))
            exchanges_.push_back(std::move(exchange));
    }

    void serve(Exchange& exchange, bool programSpoke, bool serverSpoke) {
        if (exchange.open() && serverSpoke)
            answer(exchange);
        if (exchange.open() && programSpoke)
            request(exchange);
    }

    void request(Exchange& exchange) {
        const std::string bytes = receive(exchange.program);
        if (bytes.empty())
            return exchange.end();
        if (isStalling(exchange))
            exchange.awaiting = Trouble::none;
        exchange.unread += bytes;
        while (const std::size_t length = packetIn(exchange.unread)) {
            if (!passesOn(exchange, byteAt(exchange.unread, HEADER - 1) + 1U))
                return;
            sendAll(exchange.server, exchange.unread.substr(0, length));
            exchange.unread.erase(0, length);
        }
    }

    void answer(Exchange& exchange) {
        std::string bytes = receive(exchange.server);
        if (bytes.empty() || exchange.awaiting == Trouble::dropAfter)
            return exchange.end();
        if (exchange.awaiting == Trouble::dropWithinAnswer) {
            sendAll(exchange.program, bytes.substr(0, bytes.size() / 2));
            return exchange.end();
        }
        if (exchange.awaiting == Trouble::garbledAnswer) {
            for (std::size_t i = HEADER; i < bytes.size(); i += 3)
                bytes[i] = static_cast<char>(~byteAt(bytes, i));
            // What is promised now may never come.
            exchange.awaiting = Trouble::stall;
        }
        sendAll(exchange.program, bytes);
    }

    /// Counts a message, and lets the fault happen when it is the one. False when the connection is
    /// at its end. `number` is the answer's in its packet.
    bool passesOn(Exchange& exchange, unsigned number) {
        if (++messages_ != fault_.message)
            return true;
        switch (fault_.trouble) {
            case Trouble::none:
                return true;
            case Trouble::dropAfter:
            case Trouble::dropWithinAnswer:
            case Trouble::garbledAnswer:
                exchange.awaiting = fault_.trouble;
                return true;
            case Trouble::interlude:
                fault_.interlude();
                return true;
            case Trouble::dropBefore:
                break;
            case Trouble::stall:
                std::this_thread::sleep_for(STALL);
                break;
            case Trouble::garbage:
                sendAll(exchange.program, garbageLike(number));
                break;
            case Trouble::error:
                sendAll(exchange.program, outOfConnections(number));
                break;
            case Trouble::gone:
                listener_.reset();
                for (Exchange& other : exchanges_)
                    other.end();
                break;
        }
        exchange.end();
        return false;
    }

    UniqueFd listener_;
    const std::function<UniqueFd()>& server_;
    const ProxyFault& fault_;
    std::atomic<unsigned>& messages_;
    std::list<Exchange> exchanges_;
};

std::atomic<unsigned>* sharedCounter() {
    void* const page = ::mmap(nullptr, sizeof(std::atomic<unsigned>), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        throw std::system_error(errno, std::generic_category(), "mmap");
    return new (page) std::atomic<unsigned>(0);
}

}  // namespace

void QueryProxy::Unmap::operator()(std::atomic<unsigned>* counter) const {
    ::munmap(counter, sizeof *counter);
}

QueryProxy::QueryProxy(const std::string& socket, const std::function<UniqueFd()>& server,
                       const ProxyFault& fault)
    : messages_(sharedCounter()) {
    UniqueFd listener = listenAt(PROXY_SOCKET);
    process_ = std::make_unique<Background>([&](const Background::Ready& ready) -> int {
        Relay relay(std::move(listener), server, fault, *messages_);
        ready();
        relay.serve();
    });
    detour_ = std::make_unique<SocketDetour>(socket, PROXY_SOCKET);
}

QueryProxy::~QueryProxy() {
    detour_.reset();
    process_.reset();
    ::unlink(PROXY_SOCKET);
}

}  // namespace corvo::faults
