#!/usr/bin/env bash
# The full restore as an administrator would write it with the tools at hand, to measure against:
# the same tree, delivery files, quotas and handlers from the panel database.
#
# What it does not do: it follows any link in the mail tree, takes no locks, flushes no file,
# does not see mail that arrives while it counts, reads no dsn.ini, converts no name that is not ASCII,
# connects once per domain and mail group instead of once per mail name, and ends at the first failure.
set -euo pipefail

mailnames=/var/qmail/mailnames
userdb=/var/lib/corvo/mail/userdb/userdb.db
handlers=/var/lib/corvo/mail/handlers/handlers.db
hook=/usr/local/vhc/handlers/hooks/check-quota
socket=$(sed -n 's/^MYSQL_SOCKET //p' /etc/vhc/vhc.conf)
delivery=$(head -n 1 "$mailnames/.default_delivery")
MYSQL_PWD=$(head -n 1 /etc/vhc/.vhc.shadow)
export MYSQL_PWD
umask 077

panel() {
  mariadb --no-defaults --default-character-set=utf8 --socket="$socket" --user=admin \
    --skip-column-names --batch vhc -e "$1"
}

local_database() { sqlite3 -cmd '.timeout 5000' "$1" "$2"; }

default_quota() {  # domain id
  panel "SELECT l.value FROM SubscriptionProperties sp JOIN Subscriptions s ON sp.subscription_id = s.id
           JOIN Limits l ON l.id = sp.value
         WHERE s.object_type = 'domain' AND s.object_id = $1 AND sp.name = 'limitsId'
           AND l.limit_name = 'mbox_quota'"
}

make_home() {  # home
  local maildir=$1/Maildir
  local entries=("$1" "$maildir" "$1/@attachments" "$maildir"/{tmp,new,cur}
                 "$maildir"/.{Spam,Sent,Drafts,Trash}{,/tmp,/new,/cur})
  mkdir -p "${entries[@]}"
  chown popuser:popuser "${entries[@]}"
  chmod 700 "${entries[@]}"
}

write_delivery() {  # home, mail name id, postbox and delivery, mail group
  {
    echo '| true'
    [ "$3" != truetrue ] || echo "$delivery"
    [ "$4" != true ] || panel "SELECT address FROM mail_redir WHERE mn_id = $2" | sed 's/^/\&/'
  } >"$1/.qmail"
  chown popuser:popuser "$1/.qmail"
  chmod 600 "$1/.qmail"
}

# Bytes and messages, from the sizes in the messages' names where they have one.
usage() {  # Maildir
  find "$1"/{,.[!.]*/}{new,cur} -type f -printf '%s %f\n' | awk '
    match($2, /,S=[0-9]+(:|$)/) { $1 = substr($2, RSTART + 3) + 0 }
    { bytes += $1 }
    END { printf "%12d%12d\n", bytes, NR }'
}

write_maildirsize() {  # home, quota
  local maildir=$1/Maildir limit=$2 attachments
  if [ "$limit" -ge 0 ]; then
    attachments=$(find "$1/@attachments" -type f -printf '%s\n' | awk '{ s += $1 } END { print s + 0 }')
    limit=$((limit > attachments ? limit - attachments : 0))
    [ "$limit" -gt 0 ] || limit=1  # 0 would be no limit at all
  else
    limit=0
  fi
  (umask 022 && { echo "${limit}S,0C"; usage "$maildir"; } >"$maildir/tmp/$$-maildirsize")
  chown popuser:popuser "$maildir/tmp/$$-maildirsize"
  mv "$maildir/tmp/$$-maildirsize" "$maildir/maildirsize"
}

restore_mail_name() {  # domain, default quota, then a row of the panel
  local home=$mailnames/$1/$4 quota=$8
  make_home "$home"
  write_delivery "$home" "$3" "$5$6" "$7"
  [ "$quota" -ne -1 ] || quota=$2
  echo "DEBUG setMailboxQuota(..., $quota)" >&2
  write_maildirsize "$home" "$quota"
  local_database "$userdb" "REPLACE INTO mailbox_quota (domain_name, mailbox_name, quota)
    VALUES ('$1', '${4//\'/\'\'}', '$((quota > 0 ? quota : 0))B')"
}

restore_domain() {  # id, name
  local default row
  mkdir -p "$mailnames/$2"
  chown popuser:popuser "$mailnames/$2"
  chmod 750 "$mailnames/$2"
  default=$(default_quota "$1")
  panel "SELECT id, LOWER(mail_name), postbox, delivery, mail_group, mbox_quota FROM mail
         WHERE dom_id = $1" |
    while read -r -a row; do
      restore_mail_name "$2" "${default:--1}" "${row[@]}"
    done
}

restore_handlers() {
  local reject permanent
  reject=$(panel "SELECT val FROM misc WHERE param = 'reject_mail_when_overquota'")
  permanent=$(panel "SELECT val FROM misc WHERE param = 'reject_mail_when_overquota_with_permfail'")
  [ "$permanent" = true ] && permanent=permanent || permanent=none
  local_database "$handlers" "DELETE FROM handlers WHERE name = 'check-quota'"
  [ "${reject:-true}" = true ] || return 0
  for queue in 1 4; do
    local_database "$handlers" "INSERT OR REPLACE INTO handlers
      (priority, name, type, address, queue, executable, context, protected, enabled)
      VALUES (10, 'check-quota', 4, 'all-recipients', $queue, '$hook', '$permanent', 0, 1)"
  done
}

panel "SELECT d.id, LOWER(d.name) FROM domains d JOIN DomainServices s ON d.id = s.dom_id
         JOIN Parameters p ON p.id = s.parameters_id
       WHERE s.type = 'mail' AND p.parameter = 'nonexist_mail'" |
  while read -r id name; do
    restore_domain "$id" "$name"
  done
restore_handlers
