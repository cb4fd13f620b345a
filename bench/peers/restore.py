#!/usr/bin/python3
"""The full restore as a straightforward Python program, to measure against: the same tree, delivery
files, quotas and handlers from the panel database, with the same durable steps: a connection per
domain and per mail name, a SQLite transaction and connection per row, a flush of every .qmail and
maildirsize, and of the file system and the databases' folders at the end.

What it does not do: it follows any link in the mail tree, writes each .qmail once, without its lock
and without the forwards that it had, does not see mail that arrives while it counts, reads no dsn.ini
and the password once, and ends at the first failure.
"""

import ctypes
import os
import pwd
import re
import socket
import sqlite3
import sys
import time

import MySQLdb

MAILNAMES = "/var/qmail/mailnames"
USERDB = "/var/lib/corvo/mail/userdb/userdb.db"
HANDLERS = "/var/lib/corvo/mail/handlers/handlers.db"
HOOK = "/usr/local/vhc/handlers/hooks/check-quota"
SKELETON = ["", "/Maildir", "/Maildir/tmp", "/Maildir/new", "/Maildir/cur"] + [
    f"/Maildir/.{folder}{part}" for folder in ("Spam", "Sent", "Drafts", "Trash")
    for part in ("", "/tmp", "/new", "/cur")] + ["/@attachments"]
SIZE_IN_NAME = re.compile(r",S=(\d+)(?::|$)")


def first_line(path):
    with open(path) as file:
        return file.readline().rstrip("\n")


def setting(name):
    with open("/etc/vhc/vhc.conf") as file:
        return next(line.split()[1] for line in file if line.startswith(f"{name} "))


ACCOUNT = pwd.getpwnam("popuser")
DELIVERY = first_line(f"{MAILNAMES}/.default_delivery")
CREDENTIALS = {"unix_socket": setting("MYSQL_SOCKET"), "user": "admin", "db": "vhc",
               "passwd": first_line("/etc/vhc/.vhc.shadow"), "charset": "utf8", "autocommit": None}


def connect():
    return MySQLdb.connect(**CREDENTIALS)


def rows(connection, statement):
    cursor = connection.cursor()
    cursor.execute(statement)
    return cursor.fetchall()


def make_directory(path, mode):
    try:
        os.mkdir(path)
    except FileExistsError:
        pass
    os.chown(path, ACCOUNT.pw_uid, ACCOUNT.pw_gid)
    os.chmod(path, mode)


def ascii_address(address):
    name, _, domain = address.rpartition("@")
    return address if address.isascii() else f"{name}@{domain.encode('idna').decode()}"


def replace(temporary, path, text, owner, mode, flush):
    """Writes a file beside another and renames it into its place, once `flush` has flushed it."""
    with open(temporary, "w") as file:
        os.fchown(file.fileno(), *owner)
        os.fchmod(file.fileno(), mode)
        file.write(text)
        file.flush()
        flush(file.fileno())
    os.rename(temporary, path)


def write_delivery(home, delivers, forwards):
    lines = ["| true"] + [DELIVERY] * delivers + [f"&{address}" for address in forwards]
    replace(f"{home}/.qmail.tmp", f"{home}/.qmail", "\n".join(lines) + "\n",
            (ACCOUNT.pw_uid, ACCOUNT.pw_gid), 0o600, os.fdatasync)


def usage(maildir):
    """Bytes and messages, from the sizes in the messages' names where they have one."""
    folders = [maildir] + [entry.path for entry in os.scandir(maildir)
                           if entry.name.startswith(".") and entry.is_dir(follow_symlinks=False)]
    total = messages = 0
    for folder in folders:
        for part in ("new", "cur"):
            for entry in os.scandir(f"{folder}/{part}"):
                size = SIZE_IN_NAME.search(entry.name)
                total += int(size[1]) if size else entry.stat(follow_symlinks=False).st_size
                messages += 1
    return total, messages


def write_maildirsize(home, quota):
    limit = 0
    if quota >= 0:
        attachments = sum(os.lstat(os.path.join(folder, name)).st_size
                          for folder, _, names in os.walk(f"{home}/@attachments") for name in names)
        limit = max(quota - attachments, 0) or 1  # 0 would be no limit at all
    maildir = f"{home}/Maildir"
    total, messages = usage(maildir)
    replace(f"{maildir}/tmp/{int(time.time())}.{os.getpid()}.{socket.gethostname()}-maildirsize",
            f"{maildir}/maildirsize", f"{limit}S,0C\n{total:12}{messages:12}\n",
            (ACCOUNT.pw_uid, ACCOUNT.pw_gid), 0o644, os.fsync)


def store(database, statement, values):
    """One statement in a connection and a transaction of its own."""
    connection = sqlite3.connect(database, timeout=60)
    with connection:
        connection.execute(statement, values)
    connection.close()


def restore_mail_name(domain, default, row):
    number, name, postbox, delivery, group, quota = row
    home = f"{MAILNAMES}/{domain}/{name}"
    for entry in SKELETON:
        make_directory(home + entry, 0o700)
    quota = default if quota == -1 else quota
    sys.stderr.write(f"DEBUG setMailboxQuota(..., {quota})\n")
    write_maildirsize(home, quota)
    store(USERDB, "REPLACE INTO mailbox_quota (domain_name, mailbox_name, quota) VALUES (?, ?, ?)",
          (domain, name, f"{max(quota, 0)}B"))
    connection = connect()
    forwards = []
    if group == "true":
        addresses = rows(connection, f"SELECT address FROM mail_redir WHERE mn_id={number}")
        forwards = [ascii_address(address) for address, in addresses]
    connection.close()
    write_delivery(home, postbox == delivery == "true", forwards)


def restore_domain(number, domain):
    make_directory(f"{MAILNAMES}/{domain}", 0o750)
    connection = connect()
    limits = rows(connection, f"""
        SELECT l.value FROM SubscriptionProperties sp JOIN Subscriptions s ON sp.subscription_id = s.id
          JOIN Limits l ON l.id = sp.value
        WHERE s.object_type = 'domain' AND s.object_id = {number} AND sp.name = 'limitsId'
          AND l.limit_name = 'mbox_quota'""")
    for row in rows(connection, f"""
            SELECT id, LOWER(mail_name), postbox, delivery, mail_group, mbox_quota FROM mail
            WHERE dom_id = {number}"""):
        restore_mail_name(domain, limits[0][0] if limits else -1, row)
    connection.close()


def restore_handlers(connection):
    settings = dict(rows(connection, "SELECT param, val FROM misc"))
    permanent = settings.get("reject_mail_when_overquota_with_permfail") == "true"
    store(HANDLERS, "DELETE FROM handlers WHERE name = 'check-quota'", ())
    if settings.get("reject_mail_when_overquota", "true") != "true":
        return
    for queue in (1, 4):
        store(HANDLERS, """
            INSERT OR REPLACE INTO handlers
              (priority, name, type, address, queue, executable, context, protected, enabled)
            VALUES (10, 'check-quota', 4, 'all-recipients', ?, ?, ?, 0, 1)""",
              (queue, HOOK, "permanent" if permanent else "none"))


def at_folder(path, flush):
    folder = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
    flush(folder)
    os.close(folder)


def flush_storage():
    at_folder(MAILNAMES, ctypes.CDLL(None).syncfs)
    for database in (USERDB, HANDLERS):
        at_folder(os.path.dirname(database), os.fsync)


def main():
    os.umask(0o077)
    connection = connect()
    for number, domain in rows(connection, """
            SELECT d.id, LOWER(d.name) FROM domains d JOIN DomainServices s ON d.id = s.dom_id
              JOIN Parameters p ON p.id = s.parameters_id
            WHERE s.type = 'mail' AND p.parameter = 'nonexist_mail'"""):
        restore_domain(number, domain)
    restore_handlers(connection)
    connection.close()
    flush_storage()


main()
