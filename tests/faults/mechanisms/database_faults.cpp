// A database server that fails: in the middle of any exchange, by being killed, by its limits.

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/faults/disturb/background.h"
#include "tests/faults/disturb/expendable_server.h"
#include "tests/faults/disturb/preloaded.h"
#include "tests/faults/disturb/query_proxy.h"
#include "tests/faults/disturb/socket_detour.h"
#include "tests/faults/mechanisms/points.h"

namespace corvo::faults {

namespace {

struct NamedTrouble {
    const char* name;
    Trouble trouble;
};

constexpr NamedTrouble TROUBLES[] = {
    {"drop-before", Trouble::dropBefore},
    {"drop-after", Trouble::dropAfter},
    {"drop-within-answer", Trouble::dropWithinAnswer},
    {"stall", Trouble::stall},
    {"garbage", Trouble::garbage},
    {"garbled-answer", Trouble::garbledAnswer},
    {"error", Trouble::error},
    {"gone", Trouble::gone},
};

/// Limits of the server's on what one account may do; 0 is none.
struct AccountLimit {
    const char* name;
    unsigned most;
};

constexpr AccountLimit ACCOUNT_LIMITS[] = {
    {"MAX_USER_CONNECTIONS", 3},
    {"MAX_CONNECTIONS_PER_HOUR", 14},
    {"MAX_QUERIES_PER_HOUR", 90},
};

/// Every so many points of a kind are in a quick campaign.
constexpr unsigned QUICK_STEP = 16;

/// Each kill of the server costs a second or two; they are spread over a run's messages.
constexpr unsigned KILLS = 6;

/// How long the server has no room; less than a run waits for.
constexpr std::chrono::milliseconds MOMENT{800};

/// Longer than a server that waits one second for a message.
constexpr std::chrono::milliseconds LONG_REST{2200};
constexpr unsigned IDLE_TIMES = 12;

/// The panel's server and a way to it that nothing stands in.
struct DirectServer {
    std::string path = test::PanelDatabase::socket();
    SocketFile file{path};
    std::function<UniqueFd()> connect = [this] { return file.connect(); };
};

unsigned messagesOfARun(World& world, const DirectServer& server) {
    world.reset(Start::damaged);
    const QueryProxy proxy(server.path, server.connect, {});
    undisturbedRun();
    return proxy.messages();
}

void interruptedExchanges(Points& points, const DirectServer& server, unsigned messages) {
    for (const Start start : STARTS)
        for (const auto& [name, trouble] : TROUBLES)
            for (unsigned message = 1; message <= messages; ++message)
                points.attempt(
                    start, std::string(name) + "/" + std::to_string(message),
                    message % QUICK_STEP == 0, [&, kind = trouble] {
                        const QueryProxy proxy(server.path, server.connect, {message, kind, {}});
                        return hurriedRun();
                    });
}

/// Takes a limit of the panel's login back at its end.
class LimitedAccount {
public:
    LimitedAccount(test::PanelDatabase& panel, const AccountLimit& limit, unsigned most)
        : panel_(panel), limit_(limit) {
        limitTo(most);
    }
    ~LimitedAccount() { limitTo(0); }
    LimitedAccount(const LimitedAccount&) = delete;
    LimitedAccount& operator=(const LimitedAccount&) = delete;

private:
    void limitTo(unsigned most) {
        panel_.execute("ALTER USER '" + panel_.user() + "'@'localhost' WITH " + limit_.name + " " +
                       std::to_string(most) + "; FLUSH USER_RESOURCES");
    }

    test::PanelDatabase& panel_;
    const AccountLimit& limit_;
};

void limitedAccounts(World& world, Points& points) {
    for (const AccountLimit& limit : ACCOUNT_LIMITS)
        for (unsigned most = 1; most <= limit.most; ++most)
            points.attempt(Start::damaged, std::string(limit.name) + "/" + std::to_string(most),
                           most % QUICK_STEP == 1, [&] {
                               const LimitedAccount limited(world.panel(), limit, most);
                               return hurriedRun();
                           });
}

/// The server has room for no more than this many clients beside those that hold on to it.
class CrowdedServer {
public:
    CrowdedServer(test::PanelDatabase& panel, const DirectServer& server, unsigned room)
        : panel_(panel) {
        allow(CONNECTIONS);
        for (unsigned i = room; i < CONNECTIONS; ++i)
            holders_.push_back(server.connect());
    }
    ~CrowdedServer() {
        holders_.clear();
        allow(ROOM_ENOUGH);
    }
    CrowdedServer(const CrowdedServer&) = delete;
    CrowdedServer& operator=(const CrowdedServer&) = delete;

    static constexpr unsigned MOST_ROOM = 3;

private:
    static constexpr unsigned CONNECTIONS = 10;  // the least that the server takes for a limit
    static constexpr unsigned ROOM_ENOUGH = 200;

    void allow(unsigned connections) {
        panel_.execute("SET GLOBAL max_connections=" + std::to_string(connections));
    }

    test::PanelDatabase& panel_;
    std::vector<UniqueFd> holders_;
};

void crowdedServers(World& world, Points& points, const DirectServer& server) {
    for (const Start start : STARTS)
        for (unsigned room = 0; room <= CrowdedServer::MOST_ROOM; ++room)
            points.attempt(start, "room-for-connections/" + std::to_string(room), true, [&] {
                const CrowdedServer crowded(world.panel(), server, room);
                return hurriedRun();
            });
}

/// The server is as crowded for a moment; the run waits for it to pass.
void momentarilyCrowdedServers(World& world, Points& points, const DirectServer& server) {
    for (unsigned room = 1; room < CrowdedServer::MOST_ROOM; ++room)
        points.attempt(Start::damaged, "room-after-a-moment/" + std::to_string(room), true,
                       [&] {
                           Background crowd([&](const Background::Ready& ready) {
                               const CrowdedServer crowded(world.panel(), server, room);
                               ready();
                               std::this_thread::sleep_for(MOMENT);
                               return 0;
                           });
                           const Outcome outcome = undisturbedRun();
                           if (crowd.finish() != 0)
                               throw std::runtime_error("the crowd failed");
                           return outcome;
                       },
                       {.passes = true});
}

/// The server bears with idle connections for a second only, and a run that takes longer.
class ImpatientServer {
public:
    explicit ImpatientServer(test::PanelDatabase& panel) : panel_(panel) { allow("1"); }
    ~ImpatientServer() { allow("DEFAULT"); }
    ImpatientServer(const ImpatientServer&) = delete;
    ImpatientServer& operator=(const ImpatientServer&) = delete;

private:
    void allow(const std::string& seconds) { panel_.execute("SET GLOBAL wait_timeout=" + seconds); }

    test::PanelDatabase& panel_;
};

void idleConnections(World& world, Points& points, const DirectServer& server, unsigned messages) {
    for (unsigned i = 0; i < IDLE_TIMES; ++i) {
        const unsigned message = 2 + (messages - 2) * i / IDLE_TIMES;
        points.attempt(Start::damaged, "idle-at/" + std::to_string(message), i == IDLE_TIMES / 2,
                       [&] {
                           const ImpatientServer impatient(world.panel());
                           const auto rest = [] { std::this_thread::sleep_for(LONG_REST); };
                           const QueryProxy proxy(server.path, server.connect,
                                                  {message, Trouble::interlude, rest});
                           return hurriedRun();
                       });
    }
}

/// The server is killed when a message comes by; `again`: it is back before the message goes on.
Outcome runWithKilledServer(ExpendableServer& server, const DirectServer& panelServer,
                            unsigned message, bool again) {
    const auto connect = [&] { return SocketFile(server.socket()).connect(); };
    const auto interlude = [&] {
        server.kill();
        if (again)
            server.revive();
    };
    Outcome outcome;
    {
        const QueryProxy proxy(panelServer.path, connect, {message, Trouble::interlude, interlude});
        outcome = hurriedRun();
    }
    server.reviveIfKilled();
    return outcome;
}

void killedServers(World& world, Points& points, const DirectServer& panelServer,
                   unsigned messages) {
    std::unique_ptr<ExpendableServer> server;  // started for the first point that needs it
    for (const bool again : {false, true})
        for (unsigned kill = 0; kill < KILLS; ++kill) {
            const unsigned message = 2 + (messages - 2) * kill / KILLS;
            const std::string name = again ? "server-restarted/" : "server-killed/";
            points.attempt(Start::damaged, name + std::to_string(message), kill == KILLS / 2, [&] {
                if (!server)
                    server = std::make_unique<ExpendableServer>(world.panel());
                return runWithKilledServer(*server, panelServer, message, again);
            });
        }
}

}  // namespace

void databaseFaults(World& world, Report& report, const Selection& /*selection*/) {
    Points points(world, report);
    const DirectServer server;
    const unsigned messages = messagesOfARun(world, server);
    interruptedExchanges(points, server, messages);
    limitedAccounts(world, points);
    crowdedServers(world, points, server);
    momentarilyCrowdedServers(world, points, server);
    idleConnections(world, points, server, messages);
    killedServers(world, points, server, messages);
}

}  // namespace corvo::faults
