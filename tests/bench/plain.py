#!/usr/bin/python3
"""The rebuild as a plain script: the usual modules, the obvious way.

  plain.py PASSWORD      in tools/sandbox

It does the same job: an empty responder store by the panel's utility, then domain by domain, each mailbox's reply, files
and handler, then the same at each alias, committed a domain at a time as the module sqlite3 has it.
"""
import subprocess
import sqlite3
import sys

import MySQLdb

RESPONDERS = "/var/lib/kolmo/mail/autoresponder/responder.db"
HANDLERS = "/var/lib/kolmo/mail/handlers/handlers.db"


def rows(panel, query, *values):
    cursor = panel.cursor()
    cursor.execute(query, values)
    return cursor.fetchall()


def restore(panel, replies, handlers, domain_id, domain):
    mailboxes = rows(panel, "SELECT m.mail_name, r.id, r.keystr, r.key_where, r.subject, r.reply_to, r.content_type, "
                     "r.charset, r.text, r.ans_freq, r.mem_limit FROM mail m JOIN mail_resp r ON r.mn_id = m.id "
                     "WHERE m.dom_id = %s AND m.autoresponder = 'true' AND r.resp_name = 'default'", domain_id)
    names = [domain] + [name for name, in rows(panel, "SELECT name FROM domain_aliases WHERE dom_id = %s", domain_id)]
    for mailbox, reply, *columns in mailboxes:
        forwards = rows(panel, "SELECT address FROM resp_forward WHERE rn_id = %s", reply)
        files = rows(panel, "SELECT filename FROM resp_attach WHERE rn_id = %s", reply)
        for name in names:
            address = f"{mailbox}@{name}".lower()
            forward = forwards[-1][0] if forwards else ""
            replies.execute("REPLACE INTO autoresponder (mn, keystr, key_where, subject, reply_to, content_type, charset, "
                            "body, ans_freq, ans_limit, forward_to, real_owner) VALUES (?,?,?,?,?,?,?,?,?,?,?,?)",
                            (address, *columns, forward, f"{mailbox}@{domain}".lower()))
            replies.executemany("REPLACE INTO attachments VALUES (?, ?)", ((address, file) for file, in files))
            handlers.execute("INSERT OR REPLACE INTO handlers (priority, name, type, address, queue, executable, context, "
                             "protected, enabled) VALUES (90, 'autoresponder', 1, ?, 2, "
                             "'/opt/qsx/handlers/hooks/autoresponder', 'responder', 0, 1)",
                             (f"{mailbox}@{name.encode('idna').decode()}".lower(),))
    replies.commit()
    handlers.commit()


def main():
    subprocess.run(["/opt/qsx/admin/sbin/mail_responders_control", "--init-db"], check=True)
    panel = MySQLdb.connect(host="localhost", user="admin", passwd=sys.argv[1], db="qsx", charset="utf8mb3",
                            unix_socket="/var/run/mysqld/mysqld.sock")
    replies, handlers = sqlite3.connect(RESPONDERS), sqlite3.connect(HANDLERS)
    for domain_id, domain in rows(panel, "SELECT d.id, d.name FROM domains d JOIN DomainServices s ON s.dom_id = d.id "
                                  "WHERE s.type = 'mail'"):
        restore(panel, replies, handlers, domain_id, domain)


main()
