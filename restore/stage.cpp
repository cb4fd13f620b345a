#include "restore/stage.h"

#include <exception>
#include <iostream>
#include <new>

#include "restore/reports.h"

namespace corvo::mail::restore {

bool isDebug = false;

namespace {

void reportFailure(const std::string& label, const std::exception& failure) {
    failureLine() << label << " failed (" << failure.what() << "), ignored\n";
}

// Running out of memory has passed through all stages and ends here, as the step's failure.
bool attemptStep(const std::string& label, const Work& work) {
    try {
        return attempt(label, work);
    } catch (const std::bad_alloc& failure) {
        reportFailure(label, failure);
        return false;
    }
}

}  // namespace

void progress(std::string_view text, std::string_view end) {
    if (isDebug)
        std::clog << text << end;
}

bool attempt(const std::string& label, const Work& work) {
    try {
        work();
        return true;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& failure) {
        reportFailure(label, failure);
        return false;
    }
}

void runStage(const std::string& label, const Work& work) {
    progress(label, "...");
    // In debug mode the label stands on the line already.
    if (attempt(isDebug ? std::string() : label, work))
        progress(" done\n");
}

void runCycleStage(const std::string& label, const Work& work) {
    progress(label, ":\n");
    if (attempt(label, work))
        progress(label, " done\n");
}

void runStep(const std::string& label, const Work& work) {
    progress(label, "...");
    if (attemptStep(label, work))
        progress(" done\n");
}

void runCycleStep(const std::string& label, const Work& work) {
    progress(label, ":\n");
    if (attemptStep(label, work))
        progress(label, " done\n");
}

}  // namespace corvo::mail::restore
