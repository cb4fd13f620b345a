#include "audit/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

#include "audit/text.h"
#include "restore/walker.h"

namespace corvo::audit {

namespace {

constexpr std::chrono::milliseconds PAUSE{200};

bool isLineShown = false;  // the process has one standard error

}  // namespace

Progress::Progress(const Options& options)
    : isWanted_(options.progress && !options.quiet && ::isatty(STDERR_FILENO) == 1),
      start_(Clock::now()),
      shown_(start_) {}

void Progress::step() {
    ++begun_;
    if (!isWanted_)
        return;
    const Clock::time_point now = Clock::now();
    if (now - shown_ >= PAUSE)
        show(now);
}

void Progress::show(Clock::time_point now) {
    using Seconds = std::chrono::duration<double>;
    const std::size_t all = mail::restore::domainsOfWalk();
    const std::size_t done = begun_ - 1;
    std::string text = fmt::format("{} of {} domains", withSeparators(done), withSeparators(all));
    if (done > 0 && all > done) {
        const double left = Seconds(now - start_).count() / static_cast<double>(done) *
                            static_cast<double>(all - done);
        text += fmt::format(", about {:.0f} s left", left);
    }
    std::fputs(("\r" + text + "\x1b[K").c_str(), stderr);
    isLineShown = true;
    shown_ = now;
}

void clearProgress() noexcept {
    if (isLineShown)
        std::fputs("\r\x1b[K", stderr);
    isLineShown = false;
}

}  // namespace corvo::audit
