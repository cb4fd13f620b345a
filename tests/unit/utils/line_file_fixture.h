// What the tests of line files share.

#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sandbox.h"
#include "utils/line_file.h"

namespace corvo::test::lines {

// What stands in front of the C library's calls while a test wants it, see line_file_test.cpp.

/// Descriptors of files below this path are closed, and the close reported as failed.
inline const char* closesThatFail = nullptr;

/// What is written by calls of write(), one entry each, while it is wanted.
inline std::vector<std::string>* writes = nullptr;

/// Whether the last byte of a file cannot be read.
inline bool isLastByteUnreadable = false;

/// A file that gets this size as soon as something is read.
struct Growth {
    const char* path = nullptr;
    off_t size = 0;
};
inline Growth growth;

/// A file that others write to as soon as something is read.
inline const char* writtenToWhenRead = nullptr;

inline const std::string HOME = MAILNAMES + "/example.com/info";
inline const std::string PATH = HOME + "/.qmail";
inline const std::string TEMPORARY = PATH + ".tmp";

/// file_strings with a list that ends by itself.
inline int change(const std::vector<const char*>& lines, int action, int where,
                  const std::string& path = PATH) {
    std::vector<const char*> list = lines;
    list.push_back(nullptr);
    return file_strings(path.c_str(), list.data(), action, where);
}

/// A message with the suffix that messlog2 adds.
inline std::string withError(const std::string& text, int error) {
    return text + "\nSystem error " + std::to_string(error) + ": " + std::strerror(error) + "\n";
}

inline std::string unableToOpen(const std::string& path, int error) {
    return withError("Unable to open file " + path + ": " + std::strerror(error) + "\n", error);
}

inline std::string unableToStat(int error) {
    return withError("file_str: Unable to stat file " + PATH + ": " + std::strerror(error) + "\n",
                     error);
}

class LineFileTest : public LoggingTest {
protected:
    LineFileTest() { makeDirectory(HOME); }

    void haveFile(const std::string& contents) {
        writeFile(PATH, contents, POPUSER_UID, POPUSER_GID, 0600);
    }

    /// What came on standard error alone.
    std::string errorLine() {
        EXPECT_EQ(streams.out(), "");
        return streams.err();
    }
};

struct Case {
    std::string before;
    std::vector<const char*> lines;
    int action;
    int where;
    std::string after;
};

inline const std::string LONG(9000, 'l');
inline const std::string LONG_LINE = LONG + "\n";
inline const std::string PIECE(4096, 'p');

}  // namespace corvo::test::lines
