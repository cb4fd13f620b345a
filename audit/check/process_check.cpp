#include <algorithm>
#include <cerrno>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "audit/check/checks.h"
#include "audit/check/processes.h"
#include "audit/check/subject.h"
#include "mail/delivery/delivery_agent.h"

namespace corvo::audit {

namespace {

constexpr std::string_view RESTORATION = "mail_rebuild";

struct Found {
    std::vector<std::string> runs;
    std::vector<std::string> deliveries;
    bool isFirstSeen = false;  // the first of all processes, which is always there
};

std::string_view programOf(const mail::DeliveryAgent& agent) {
    const std::string_view path = agent.path;
    return path.substr(path.rfind('/') + 1);
}

bool isDelivery(std::string_view name) {
    return std::any_of(std::begin(mail::DELIVERY_AGENTS), std::end(mail::DELIVERY_AGENTS),
                       [&](const mail::DeliveryAgent& agent) { return programOf(agent) == name; });
}

void take(pid_t process, std::string_view name, Found& found) {
    found.isFirstSeen = found.isFirstSeen || (process == 1 && !name.empty());
    const std::string described = std::string(name) + " " + std::to_string(process);
    if (name == RESTORATION)
        found.runs.push_back(described);
    else if (isDelivery(name))
        found.deliveries.push_back(described);
}

// In an order that stays.
std::string listed(std::vector<std::string> processes) {
    std::sort(processes.begin(), processes.end());
    std::string text;
    for (const std::string& process : processes)
        text += (text.empty() ? "" : ", ") + process;
    return text;
}

void judge(const Subject& subject, const std::vector<std::string>& processes, bool areAllSeen,
           const char* advice) {
    if (!processes.empty())
        subject.warning("under way: " + listed(processes), advice);
    else if (!areAllSeen)
        subject.warning("the processes of others cannot be seen", "check as root");
    else
        subject.ok("none");
}

}  // namespace

void checkProcesses(const CheckSink& sink) {
    const Subject runs(sink, "restorations");
    const Subject deliveries(sink, "deliveries");
    Found found;
    if (!forEachProcess([&](pid_t process, std::string_view name) { take(process, name, found); }))
        return runs.unreadable("/proc", errno);
    judge(runs, found.runs, found.isFirstSeen, "let it end before the next one starts");
    judge(deliveries, found.deliveries, found.isFirstSeen,
          "hold deliveries where .qmail files are missing or damaged");
}

}  // namespace corvo::audit
