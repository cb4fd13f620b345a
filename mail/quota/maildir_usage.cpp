#include "mail/quota/maildir_usage.h"

#include "mail/quota/maildir_scan.h"

namespace {

using corvo::mail::MaildirUsage;

// Has `count(usage)` go on from what the outputs hold.
template <typename Count>
int countInto(long long* bytes, long long* messages, std::time_t* newest, Count count) noexcept {
    MaildirUsage usage{*bytes, *messages, {*newest, 0}};
    const int result = count(usage);
    *bytes = usage.bytes;
    *messages = usage.messages;
    *newest = usage.newest.tv_sec;
    return result;
}

// Has `raise(time)` go on from what the output holds.
template <typename Raise>
int raiseInSeconds(std::time_t* newest, Raise raise) noexcept {
    timespec time{*newest, 0};
    const int result = raise(time);
    *newest = time.tv_sec;
    return result;
}

}  // namespace

int process_maildir_subdir(const char* directory, long long* bytes, long long* messages,
                           std::time_t* newest) noexcept {
    return countInto(bytes, messages, newest, [directory](MaildirUsage& usage) noexcept {
        return corvo::mail::countDirectory(directory, usage);
    });
}

int process_maildirpp_subfolder(const char* folder, long long* bytes, long long* messages,
                                std::time_t* newest) noexcept {
    return countInto(bytes, messages, newest, [folder](MaildirUsage& usage) noexcept {
        return corvo::mail::countFolder(folder, usage);
    });
}

int get_maildirpp_messages_usage(long long* bytes, long long* messages,
                                 std::time_t* newest) noexcept {
    *bytes = 0;  // the caller need not have set them
    *messages = 0;
    return countInto(bytes, messages, newest, corvo::mail::countMaildir);
}

int get_maildirpp_folder_mtime(const char* folder, std::time_t* newest) noexcept {
    return raiseInSeconds(newest, [folder](timespec& time) noexcept {
        return corvo::mail::raiseToFolder(folder, time);
    });
}

int get_maildirpp_mtime(std::time_t* newest) noexcept {
    return raiseInSeconds(newest, corvo::mail::raiseToMaildir);
}
