#include "tests/faults/world/delivery_record.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/files.h"

namespace corvo::faults {

namespace {

const std::string RECORD = "/run/delivery-record";

/// Path and content of each file, each with a zero byte at its end, and one more at the end of all.
std::string asText(const Tree& state) {
    std::string text;
    for (const auto& [path, entry] : state)
        text += path + '\0' + entry.content + '\0';
    return text + '\0';
}

}  // namespace

DeliveryRecord::DeliveryRecord(const DeliveryScene& scene) : scene_(scene) {
    test::writeFile(RECORD, "");
}

void DeliveryRecord::note() {
    Tree now = scene_.deliveryFiles();
    if (now == last_)
        return;
    std::ofstream(RECORD, std::ios::app) << asText(now);
    last_ = std::move(now);
}

std::vector<Tree> DeliveryRecord::states() const {
    std::istringstream record(test::contentsOf(RECORD));
    std::vector<Tree> all;
    Tree state;
    for (std::string path; std::getline(record, path, '\0');) {
        if (path.empty()) {
            all.push_back(std::move(state));
            state.clear();
            continue;
        }
        Entry& entry = state[path];
        entry.mode = S_IFREG;
        std::getline(record, entry.content, '\0');
    }
    return all;
}

}  // namespace corvo::faults
