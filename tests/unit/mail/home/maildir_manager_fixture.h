// What the tests of Maildir homes share.

#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "mail/home/fs_error.h"
#include "mail/home/maildir_manager.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace corvo::test::homes {

namespace fs = std::filesystem;

using mail::FSError;
using mail::MaildirManager;
using mail::MaildirPPManager;

/// What comes before the C library's calls while a test wants it, see maildir_manager_test.cpp:
/// true lets the call through, false fails it with the errno that was set.
inline std::function<bool(const char*)> letThrough;

inline const std::string ROOT = MAILNAMES + "/example.com";
inline const std::string HOME = ROOT + "/info";
inline const std::string OUTSIDE = "/var/lib/corvo/outside";

// What a home is made of, in the order of creation.
inline const std::vector<std::string> SKELETON = {
    "Maildir",         "Maildir/tmp",         "Maildir/new",         "Maildir/cur",
    "Maildir/.Spam",   "Maildir/.Spam/tmp",   "Maildir/.Spam/new",   "Maildir/.Spam/cur",
    "Maildir/.Sent",   "Maildir/.Sent/tmp",   "Maildir/.Sent/new",   "Maildir/.Sent/cur",
    "Maildir/.Drafts", "Maildir/.Drafts/tmp", "Maildir/.Drafts/new", "Maildir/.Drafts/cur",
    "Maildir/.Trash",  "Maildir/.Trash/tmp",  "Maildir/.Trash/new",  "Maildir/.Trash/cur",
    "@attachments"};

inline MaildirManager& manager() {
    return MaildirManager::getInstance();
}

/// What an operation threw, as far as it is a file system's error.
struct Thrown {
    int error = 0;
    bool isFSError = false;
    fs::path path1;
    fs::path path2;
    std::string text;
};

inline Thrown failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const fs::filesystem_error& e) {
        return {e.code().value(), dynamic_cast<const FSError*>(&e) != nullptr, e.path1(), e.path2(),
                e.what()};
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

inline void createHome() {
    manager().createMailnameHome("example.com", "info");
}

inline void createRoot() {
    manager().createDomainRoot("example.com");
}

class MaildirManagerTest : public SandboxTest {
protected:
    MaildirManagerTest() { writeFile(OUTSIDE + "/file", "kept\n"); }
};

inline std::string listOfNewHome() {
    std::vector<std::string> sorted = SKELETON;
    std::sort(sorted.begin(), sorted.end());
    std::string list;
    for (const std::string& entry : sorted)
        list += "d 0700 " + popuser() + " " + entry + "\n";
    return list;
}

}  // namespace corvo::test::homes
