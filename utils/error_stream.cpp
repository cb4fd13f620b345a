#include "utils/error_stream.h"

#include <iostream>
#include <new>

namespace corvo {

// Below the inclusion of <iostream>, so that std::cerr and std::cout are made before it and
// outlive it.
UtilityErrorStream uerr;

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
    rdbuf(&buffer);
}

UtilityErrorStream::~UtilityErrorStream() = default;

}  // namespace corvo
