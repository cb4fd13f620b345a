// The error stream of the upper layer: standard error at once, standard output by the flush.

#pragma once

#include <ios>
#include <ostream>
#include <streambuf>
#include <string>

namespace corvo {

/// Puts every character on std::cerr at once and keeps it; a flush copies what was kept to
/// std::cout. What was never flushed is copied by the destructor, and what no memory is left for
/// at once.
class UtilityErrorStreamBuf : public std::streambuf {
public:
    UtilityErrorStreamBuf() = default;
    ~UtilityErrorStreamBuf() override;
    UtilityErrorStreamBuf(const UtilityErrorStreamBuf&) = delete;
    UtilityErrorStreamBuf& operator=(const UtilityErrorStreamBuf&) = delete;

protected:
    /// There is no put area: every character comes this way.
    int_type overflow(int_type c) override;
    int sync() override;

private:
    void keep(char character);

    std::string pending;  // not yet on standard output
};

/// An output stream with a buffer of its own.
class UtilityErrorStream : public std::ostream {
public:
    UtilityErrorStream();
    ~UtilityErrorStream() override;
    UtilityErrorStream(const UtilityErrorStream&) = delete;
    UtilityErrorStream& operator=(const UtilityErrorStream&) = delete;

private:
    UtilityErrorStreamBuf buffer_;
};

/// The one instance. End each message with std::endl: standard output then keeps the order of
/// events.
extern UtilityErrorStream& uerr;

/// Counts those that may use uerr, as std::ios_base::Init does with the standard streams: the first
/// to come makes it, the last to go destroys it. One in each unit that includes this header lets
/// static objects use it from their constructor to their destructor.
class UtilityErrorStreamInit {
public:
    UtilityErrorStreamInit();
    ~UtilityErrorStreamInit();
    UtilityErrorStreamInit(const UtilityErrorStreamInit&) = delete;
    UtilityErrorStreamInit& operator=(const UtilityErrorStreamInit&) = delete;

private:
    std::ios_base::Init standardStreams_;  // made before uerr, and outlive it
};

static const UtilityErrorStreamInit uerrInit;

}  // namespace corvo
