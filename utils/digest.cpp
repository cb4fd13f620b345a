#include "utils/digest.h"

// The plain MD5 functions need no memory and cannot fail, and the digest only names files.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

#include <cstring>

namespace {

void add(MD5_CTX& context, const char* text) noexcept {
    if (text != nullptr && *text != '\0')
        MD5_Update(&context, text, std::strlen(text));
}

}  // namespace

char* get_md5sum(const char* prefix, const char* text, char* out) noexcept {
    MD5_CTX context;
    MD5_Init(&context);
    add(context, prefix);
    add(context, text);
    unsigned char digest[MD5_DIGEST_LENGTH];
    MD5_Final(digest, &context);

    char* end = out;
    for (const unsigned char byte : digest) {
        *end++ = "0123456789abcdef"[byte >> 4];
        *end++ = "0123456789abcdef"[byte & 0x0f];
    }
    *end = '\0';
    return out;
}
