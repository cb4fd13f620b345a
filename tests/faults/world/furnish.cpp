#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/faults/world/world.h"
#include "tests/support/files.h"
#include "tests/support/installation.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite.h"

namespace corvo::faults {

namespace {

using test::POPUSER_GID;
using test::POPUSER_UID;

constexpr long long MIB = 1 << 20;

void setOwnerAndMode(const std::string& path, uid_t uid, gid_t gid, mode_t mode) {
    if (::chown(path.c_str(), uid, gid) != 0 || ::chmod(path.c_str(), mode) != 0)
        throw std::runtime_error("owner and mode of " + path);
}

/// A file of the mail storage; the directories on its way belong to popuser as well.
void store(const std::string& relative, const std::string& content, mode_t mode = 0600) {
    test::writeFile(test::MAILNAMES + "/" + relative, content, POPUSER_UID, POPUSER_GID, mode);
    for (std::size_t slash = relative.find('/'); slash != std::string::npos;
         slash = relative.find('/', slash + 1)) {
        const bool isDomain = slash == relative.find('/');
        setOwnerAndMode(test::MAILNAMES + "/" + relative.substr(0, slash), POPUSER_UID, POPUSER_GID,
                        isDomain ? 0750 : 0700);
    }
}

void storeMessages(const std::string& maildir) {
    const std::string message = "Subject: kept\n\nNothing may be lost.\n";
    store(maildir + "/new/1700000001.M1P1.host,S=37", message);
    store(maildir + "/cur/1700000002.M2P2.host,S=37:2,S", message);
    store(maildir + "/cur/1700000003.M3P3.host:2,", message + message);
}

/// Delivered into for a long time, and left half restored by something else.
void furnishOldHomes() {
    storeMessages("example.com/info/Maildir");
    storeMessages("example.com/info/Maildir/.Sent");
    storeMessages("example.com/info/Maildir/.Archive");
    store("example.com/info/.qmail",
          "| true\n| /usr/bin/deliverquota ./Maildir\n&old@example.org\n");
    store("example.com/info/Maildir/maildirsize", "1000S,0C\n           1           1\n", 0644);
    store("example.com/info/Maildir/tmp/1700000000.9.host-maildirsize", "", 0644);

    storeMessages("example.com/office/Maildir");
    store("example.com/office/.qmail", "&elsewhere@example.org", 0640);
    setOwnerAndMode(test::MAILNAMES + "/example.com/office", 0, 0, 0755);
    setOwnerAndMode(test::MAILNAMES + "/example.com/office/Maildir/cur", 0, POPUSER_GID, 0750);

    store("example.com/former/.qmail", "./Maildir/\n");
    setOwnerAndMode(test::MAILNAMES + "/example.com/former/.qmail", 0, 0, 0600);
    store("example.com/team/.qmail", "| true\n&gone@example.org\n&info@example.com\n");
    store("example.com/team/Maildir/maildirsize", "half", 0644);
}

void furnishCrowdedHome() {
    storeMessages("example.com/crowded/Maildir");
    store("example.com/crowded/@attachments/report.pdf", std::string(40000, 'r'));
    store("example.com/crowded/@attachments/2020/photo.jpg", std::string(20000, 'p'), 0640);
    store("example.com/crowded/@attachments/2020/deep/note.txt", "note\n");
    store("example.com/crowded/.qmail", "");
    store("example.com/crowded/.qmail.tmp", "left by a killed run");
}

/// What the panel does not know of stays as it is.
void furnishForeignHomes() {
    storeMessages("gone.example/nobody/Maildir");
    store("gone.example/nobody/.qmail", "./Maildir/\n");
    storeMessages("example.com/removed/Maildir");
    storeMessages("xn--bcher-kva.example/kontakt/Maildir");
    setOwnerAndMode(test::MAILNAMES + "/xn--bcher-kva.example", 0, 0, 0700);
}

void furnishDatabases() {
    test::sqliteExecute(test::USERDB,
                        "INSERT INTO mailbox_quota VALUES ('example.com', 'info', '5B'),"
                        " ('example.com', 'removed', '7K'), ('gone.example', 'nobody', '0B')");
    test::sqliteExecute(test::HANDLERS,
                        "INSERT INTO handlers VALUES (1, 1, 0, 99, 'check-quota', 'all-recipients',"
                        " '/old/check-quota', 'permanent', 0), (4, 5, 1, 3, 'grey',"
                        " 'office@example.com', '/usr/local/vhc/handlers/hooks/grey', 'none', 1)");
}

void furnishCanary() {
    const std::string canary = "/var/lib/canary/";
    std::filesystem::remove_all(canary);  // the sandbox keeps it between the tests of a process
    test::writeFile(canary + "root/.ssh/authorized_keys", "ssh-ed25519 AAAA\n", 0, 0, 0600);
    test::writeFile(canary + "root/.bashrc", "umask 077\n", 0, 0, 0644);
    test::writeFile(canary + "home/stranger/mbox", "From stranger\n", test::STRANGER_UID,
                    test::STRANGER_GID, 0660);
    test::writeFile(canary + "bin/tool", "#!/bin/sh\n", 0, 0, 04755);
    test::makeLink("root/.ssh", canary + "keys");
    test::writeFile("/var/qmail/canary/users/assign", "=info:popuser:1031:1032\n", 0, 0, 0644);
    test::writeFile("/var/qmail/popuser/.forward", "stranger\n", POPUSER_UID, POPUSER_GID, 0600);
    test::writeFile("/var/lib/corvo/canary", "beside the databases\n", 0, 0, 0600);
    test::writeFile("/var/lib/corvo/mail/userdb/canary", "beside one database\n", POPUSER_UID,
                    POPUSER_GID, 0600);
    test::writeFile("/run/lock/canary", "beside the lock folder\n", 0, 0, 0600);
    test::writeFile("/usr/local/vhc/handlers/hooks/check-quota", "#!/bin/sh\n", 0, 0, 0755);
}

void describeMailnames(test::PanelDatabase& panel) {
    auto example = panel.domain("example.com").defaultQuota(100 * MIB);
    example.mailname("info").quota(10 * MIB).alias("hello");
    example.mailname("Office");
    example.mailname("former").delivery(false).quota(0);
    example.mailname("team")
        .group()
        .redirect("info@example.com")
        .redirect("office@example.com")
        .redirect(
            "anna@b\xC3\xBC"
            "cher.example");
    example.mailname("crowded").quota(50000);
    auto books = panel.domain("xn--bcher-kva.example");
    books.mailname("kontakt");
    books.mailname("neu").quota(2 * MIB);
    auto shop = panel.domain("Shop.Example.net").defaultQuota(50 * MIB);
    shop.mailname("orders");
}

}  // namespace

void furnish(test::PanelDatabase& panel) {
    test::installMailServer();
    furnishOldHomes();
    furnishCrowdedHome();
    furnishForeignHomes();
    furnishDatabases();
    furnishCanary();
    describeMailnames(panel);
    panel.misc("reject_mail_when_overquota", "true");
}

}  // namespace corvo::faults
