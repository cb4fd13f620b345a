// The floor under a full restore: floor [--all]
//
// A program with the same result as `mail_rebuild --all` that makes the calls which this result and
// its durability cost, and no others: the same walk and statements, a connection per domain and per
// mail name with the credentials read for each, an account look-up wherever the owner of a file is
// set, every .qmail and each new forward in it written beside, flushed and renamed under its lock,
// a flush of each maildirsize, a connection and transaction per row of the local databases, and at
// the end a flush of the file systems and of the databases' folders. It shows how much of the real
// program's cost is the job's and how much its own. What is right already it writes all the same.
//
// What it does not do: it opens no path component by component and looks at nothing that it has
// opened. Links of anybody in the middle of a path are followed, as are those that lie in the place
// of the skeleton's directories; only files and homes are opened by O_NOFOLLOW. It trusts names,
// numbers and addresses from the database, checks no sum for overflow, needs delivery files that
// end with a line end, knows no debug mode and no other mode, lets no attachments exceed a quota,
// and ends with a line about it at the first failure, whatever fails.

#include "bench/floor.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <mysql.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

static char root[PATH_MAX] = "/var/qmail/mailnames";
static char panelSocket[PATH_MAX] = "/var/lib/mysql/mysql.sock";

static char* trimmed(char* text) {
    while (isspace((unsigned char)*text))
        ++text;
    char* end = text + strlen(text);
    while (end > text && isspace((unsigned char)end[-1]))
        --end;
    *end = '\0';
    return text;
}

static void readConfiguration(void) {
    char text[TEXT_SIZE];
    if (!readText(AT_FDCWD, "/etc/vhc/vhc.conf", text))
        return;
    char* rest = text;
    for (char* line = strsep(&rest, "\n"); line != NULL; line = strsep(&rest, "\n")) {
        char* value = line;
        const char* const name = strsep(&value, " \t");
        if (value == NULL)
            continue;
        value = trimmed(strsep(&value, "#"));
        if (strcmp(name, "CORVO_MAILNAMES_D") == 0)
            format(root, sizeof root, "%s", value);
        else if (strcmp(name, "MYSQL_SOCKET") == 0)
            format(panelSocket, sizeof panelSocket, "%s", value);
    }
}

enum { HOST, PORT, USERNAME, PASSWORD, DBNAME, CREDENTIALS };

// Sets what the text of an ini file says in its section "corvo".
static void readDsn(char* text, char* credentials[static CREDENTIALS]) {
    static const char* const KEYS[] = {"host", "port", "username", "password", "dbname"};
    bool inSection = false;
    for (char* line = strsep(&text, "\n"); line != NULL; line = strsep(&text, "\n")) {
        char* value = trimmed(strsep(&line, ";"));
        if (*value == '[')
            inSection = strcmp(value, "[corvo]") == 0;
        const char* const key = trimmed(strsep(&value, "="));
        for (int i = 0; inSection && value != NULL && i < CREDENTIALS; ++i)
            if (strcmp(key, KEYS[i]) == 0)
                credentials[i] = trimmed(value);
    }
}

static MYSQL* connectToPanel(void) {
    char dsn[TEXT_SIZE];
    char shadow[TEXT_SIZE];
    char* credentials[CREDENTIALS] = {"localhost", "0", "admin", NULL, "vhc"};
    if (readText(AT_FDCWD, "/etc/vhc/private/dsn.ini", dsn))
        readDsn(dsn, credentials);
    if (credentials[PASSWORD] == NULL) {
        if (!readText(AT_FDCWD, "/etc/vhc/.vhc.shadow", shadow))
            fail("/etc/vhc/.vhc.shadow", strerror(errno));
        credentials[PASSWORD] = shadow;
        shadow[strcspn(shadow, "\n")] = '\0';
    }
    MYSQL* const panel = mysql_init(NULL);
    if (mysql_real_connect(panel, credentials[HOST], credentials[USERNAME], credentials[PASSWORD],
                           credentials[DBNAME], (unsigned)strtol(credentials[PORT], NULL, 10),
                           panelSocket, 0) == NULL ||
        mysql_query(panel, "SET NAMES utf8") != 0)
        fail("connection", mysql_error(panel));
    return panel;
}

__attribute__((format(printf, 2, 3))) static MYSQL_RES* query(MYSQL* panel, const char* text, ...) {
    char statement[1024];
    va_list arguments;
    va_start(arguments, text);
    const int length = vsnprintf(statement, sizeof statement, text, arguments);
    va_end(arguments);
    MYSQL_RES* result = NULL;
    if (mysql_real_query(panel, statement, (unsigned long)length) == 0)
        result = mysql_store_result(panel);
    if (result == NULL)
        fail(statement, mysql_error(panel));
    return result;
}

static bool boolOption(MYSQL* panel, const char* name, bool otherwise) {
    MYSQL_RES* const result = query(panel, "SELECT    val  FROM misc    WHERE param='%s'", name);
    const MYSQL_ROW row = mysql_fetch_row(result);
    const bool on = row == NULL ? otherwise : row[0] != NULL && strcmp(row[0], "true") == 0;
    mysql_free_result(result);
    return on;
}

static void restoreForwards(MYSQL* panel, const char* id, struct Delivery* delivery) {
    MYSQL_RES* const redirects = query(panel, "SELECT address FROM mail_redir WHERE mn_id=%s", id);
    for (MYSQL_ROW row = mysql_fetch_row(redirects); row != NULL;
         row = mysql_fetch_row(redirects)) {
        char address[512];
        toAscii(row[0], address, sizeof address);
        addForward(delivery, address);
    }
    mysql_free_result(redirects);
}

static bool isTrue(const char* flag) {
    return strcmp(flag, "true") == 0;
}

enum { ID, MAIL_NAME, POSTBOX, DELIVERY, MAIL_GROUP, MBOX_QUOTA };

static void restoreMailname(const char* domain, long long defaultQuota, MYSQL_ROW row,
                            struct Owner owner) {
    char path[PATH_MAX];
    struct Delivery delivery;
    format(path, sizeof path, "%s/%s/%s", root, domain, row[MAIL_NAME]);
    delivery.home = makeHome(path, owner);
    lockPathOf(path, delivery.lockPath);
    restoreDelivery(&delivery, isTrue(row[POSTBOX]) && isTrue(row[DELIVERY]));

    long long quota = strtoll(row[MBOX_QUOTA], NULL, 10);
    if (quota == -1)
        quota = defaultQuota;
    fprintf(stderr, "DEBUG setMailboxQuota(..., %lld)\n", quota);
    storeQuotaFile(domain, delivery.home, quota);
    storeQuotaRow(domain, row[MAIL_NAME], quota);

    MYSQL* const panel = connectToPanel();
    if (isTrue(row[MAIL_GROUP]))
        restoreForwards(panel, row[ID], &delivery);
    dropForwards(&delivery);
    noteFileSystem(delivery.home);
    mysql_close(panel);
    close(delivery.home);
}

static void restoreMailnames(MYSQL* panel, const char* id, const char* domain, struct Owner owner) {
    MYSQL_RES* const limit = query(
        panel,
        "SELECT l.value AS value  FROM SubscriptionProperties as sp, Subscriptions as s, domains "
        "as "
        "d, Limits l  WHERE sp.subscription_id=s.id    AND object_type='domain' AND "
        "d.id=s.object_id "
        "   AND sp.name='limitsId' AND l.id=sp.value    AND l.limit_name='mbox_quota' AND d.id=%s",
        id);
    const MYSQL_ROW row = mysql_fetch_row(limit);
    const long long defaultQuota = row == NULL ? -1 : strtoll(row[0], NULL, 10);
    mysql_free_result(limit);

    MYSQL_RES* const names = query(
        panel,
        "SELECT id, LOWER(mail_name) AS mail_name, postbox, delivery, mail_group, mbox_quota FROM "
        "mail  WHERE dom_id=%s",
        id);
    for (MYSQL_ROW name = mysql_fetch_row(names); name != NULL; name = mysql_fetch_row(names))
        restoreMailname(domain, defaultQuota, name, owner);
    mysql_free_result(names);
}

static void restoreDomain(const char* id, const char* domain, struct Owner owner) {
    char path[PATH_MAX];
    format(path, sizeof path, "%s/%s", root, domain);
    makeDomainRoot(path, owner);
    MYSQL* const panel = connectToPanel();
    restoreMailnames(panel, id, domain, owner);
    mysql_close(panel);
}

int main(int argc, char** argv) {
    if (argc > 2 || (argc == 2 && strcmp(argv[1], "--all") != 0))
        fail("usage", "floor [--all]");
    // The database client sleeps a microsecond in each connect; the kernel's slack makes that
    // fifty.
    prctl(PR_SET_TIMERSLACK, 1UL);
    const struct Owner owner = lookUpPopuser();
    readConfiguration();
    MYSQL* const panel = connectToPanel();
    MYSQL_RES* const domains = query(panel, "%s",
                                     "SELECT    d.id AS id, LOWER(d.name) AS name,   s.status AS "
                                     "status,   p.value AS nonExisting "
                                     "FROM domains d, DomainServices s, Parameters p    WHERE "
                                     "d.id=s.dom_id AND s.type='mail'     "
                                     " AND p.id=s.parameters_id AND p.parameter='nonexist_mail'");
    for (MYSQL_ROW row = mysql_fetch_row(domains); row != NULL; row = mysql_fetch_row(domains))
        restoreDomain(row[0], row[1], owner);
    mysql_free_result(domains);
    const bool permanent = boolOption(panel, "reject_mail_when_overquota_with_permfail", false);
    replaceHandlers(boolOption(panel, "reject_mail_when_overquota", true), permanent);
    mysql_close(panel);
    flushFileSystems();
    flushDatabaseFolders();
    return 0;
}
