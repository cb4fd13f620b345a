#include "utils/error_stream.h"

#include <iostream>
#include <new>

namespace corvo {

namespace {

// Room for the stream, which others than this unit's initialisation make and destroy.
union Room {
    constexpr Room() noexcept : empty() {}
    ~Room() {}  // NOLINT(modernize-use-equals-default): the default is deleted
    Room(const Room&) = delete;
    Room& operator=(const Room&) = delete;

    char empty;
    UtilityErrorStream stream;
};

constinit Room room;
constinit int users = 0;

}  // namespace

constinit UtilityErrorStream& uerr = room.stream;

UtilityErrorStreamInit::UtilityErrorStreamInit() {
    if (users++ == 0)
        ::new (&room.stream) UtilityErrorStream;
}

UtilityErrorStreamInit::~UtilityErrorStreamInit() {
    if (--users == 0)
        room.stream.~UtilityErrorStream();
}

UtilityErrorStreamBuf::~UtilityErrorStreamBuf() {
    UtilityErrorStreamBuf::sync();
}

UtilityErrorStreamBuf::int_type UtilityErrorStreamBuf::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return c;
    const char character = traits_type::to_char_type(c);
    std::cerr.put(character);
    keep(character);
    return c;
}

void UtilityErrorStreamBuf::keep(char character) {
    try {
        pending.push_back(character);
    } catch (const std::bad_alloc&) {
        // The message is worth more than its wholeness: it goes out in pieces.
        std::cout << pending << character;
        pending.clear();
    }
}

int UtilityErrorStreamBuf::sync() {
    std::cerr.flush();
    std::cout << pending << std::flush;
    pending.clear();
    return 0;
}

// The base is made before the buffer, which it may only be told of here.
UtilityErrorStream::UtilityErrorStream() : std::ostream(nullptr) {
    rdbuf(&buffer_);
}

UtilityErrorStream::~UtilityErrorStream() = default;

}  // namespace corvo
