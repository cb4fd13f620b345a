// Progress and failures of the walk: a piece of work is announced, run, and reported on.
//
// Progress is written in debug mode only, to the standard log stream. A failure is one line,
// "<label> failed (<text>), ignored", on the log stream in debug mode and on standard error
// otherwise; it never leaves the runner that reported it. What is not derived from std::exception
// passes through every runner; running out of memory passes through all but the two that run the
// walker's steps.

#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace corvo::mail::restore {

/// Whether this walk tells its progress; set at the start of every walk.
extern bool isDebug;

/// Writes `text` and `end` as they stand, in debug mode.
void progress(std::string_view text, std::string_view end = {});

using Work = std::function<void()>;

/// Runs the work without a word of progress. False after a failure; its line then begins with
/// `label`.
bool attempt(const std::string& label, const Work& work);

/// A stage of a domain or mail name, on one line of progress: "<label>... done". A failure goes on
/// with that line, without the label a second time.
void runStage(const std::string& label, const Work& work);

/// A stage that writes lines of its own, between "<label>:" and "<label> done". A failure's line is
/// whole.
void runCycleStage(const std::string& label, const Work& work);

/// A step of the walk on one line of progress: "<label>... done". A failure repeats the label.
void runStep(const std::string& label, const Work& work);

/// A step that writes lines of its own, between "<label>:" and "<label> done".
void runCycleStep(const std::string& label, const Work& work);

}  // namespace corvo::mail::restore
