#include "restore/reports.h"

#include <iostream>

#include "restore/stage.h"
#include "utils/error_stream.h"

namespace corvo::mail::restore {

namespace {

std::size_t reports = 0;

}  // namespace

std::ostream& warning() {
    ++reports;
    return uerr;
}

std::ostream& failureLine() {
    ++reports;
    return isDebug ? std::clog : std::cerr;
}

std::size_t reportCount() noexcept {
    return reports;
}

void resetReportCount() noexcept {
    reports = 0;
}

}  // namespace corvo::mail::restore
