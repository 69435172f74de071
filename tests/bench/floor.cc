/*
 * floor: what a rebuild cannot do without.
 *
 * It issues the statements of mail_responders_rebuild, each prepared, bound, stepped and finalized as often
 * as there, opens the stores as often, runs the utility, and does nothing else: no message, no check, no list
 * that could be spared, no setting of SQLite's.  What goes wrong ends it.
 *
 *     floor PASSWORD      in tools/sandbox
 */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include <idna.h>
#include <mysql.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>

namespace
{

const char responder_path[] = "/var/lib/kolmo/mail/autoresponder/responder.db";
const char handlers_path[] = "/var/lib/kolmo/mail/handlers/handlers.db";
const char socket_path[] = "/var/run/mysqld/mysqld.sock";

MYSQL *panel;

void must(bool well, const char *what)
{
    if (well)
        return;
    (void)std::fprintf(stderr, "floor: %s\n", what);
    std::exit(1);
}

MYSQL_RES *ask(const std::string &query)
{
    must(mysql_real_query(panel, query.c_str(), query.size()) == 0, mysql_error(panel));

    MYSQL_RES *const rows = mysql_store_result(panel);

    must(rows != nullptr, mysql_error(panel));
    return rows;
}

sqlite3 *open_store(const char *path)
{
    sqlite3 *store = nullptr;

    must(sqlite3_open(path, &store) == SQLITE_OK, path);
    (void)sqlite3_busy_timeout(store, 50);
    return store;
}

struct Value {
    Value(const char *of) : text(of != nullptr ? of : "") {}
    Value(int of) : number(of) {}

    const char *text = nullptr;
    int number = 0;
};

sqlite3_stmt *prepare(sqlite3 *store, const char *sql, std::initializer_list<Value> values)
{
    sqlite3_stmt *statement = nullptr;
    int place = 1;

    must(sqlite3_prepare_v2(store, sql, -1, &statement, nullptr) == SQLITE_OK, sql);
    for (const Value &value : values) {
        if (value.text != nullptr)
            (void)sqlite3_bind_text(statement, place++, value.text, static_cast<int>(std::strlen(value.text)),
                                    SQLITE_STATIC);
        else
            (void)sqlite3_bind_int(statement, place++, value.number);
    }
    return statement;
}

void run(sqlite3 *store, const char *sql, std::initializer_list<Value> values = {})
{
    sqlite3_stmt *const statement = prepare(store, sql, values);

    must(sqlite3_step(statement) == SQLITE_DONE, sqlite3_errmsg(store));
    (void)sqlite3_finalize(statement);
}

std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return 'A' <= c && c <= 'Z' ? c + 32 : c; });
    return text;
}

std::string ascii(const char *domain)
{
    char *text = nullptr;

    must(idna_to_ascii_8z(domain, &text, 0) == IDNA_SUCCESS, domain);

    const std::string result = text;

    std::free(text);
    return result;
}

void insert_handler(sqlite3 *handlers, int priority, const char *name, int type, const char *address,
                    int queue, const char *executable, const char *context, int enabled)
{
    run(handlers,
        "INSERT OR REPLACE INTO handlers(priority, name, type, address, queue, executable, context, "
        "protected, "
        "enabled) VALUES(?, ?, ?, LOWER(?), ?, ?, ?, ?, ?)",
        {priority, name, type, address, queue, executable, context, 0, enabled});
}

std::vector<std::string> split(const std::string &list)
{
    std::vector<std::string> items;

    for (std::size_t from = 0, comma = 0; comma != std::string::npos; from = comma + 1) {
        comma = list.find(',', from);
        items.push_back(list.substr(from, comma - from));
    }
    return items;
}

void register_handlers(const std::vector<std::string> &names, const std::string &domain)
{
    sqlite3 *const handlers = open_store(handlers_path);

    run(handlers, "BEGIN TRANSACTION;");
    for (const std::string &name : names)
        insert_handler(handlers, 90, "autoresponder", 1, lowered(name + "@" + ascii(domain.c_str())).c_str(),
                       2, "/opt/qsx/handlers/hooks/autoresponder", "responder", 1);
    run(handlers, "END TRANSACTION;");
    (void)sqlite3_close(handlers);
}

void write_mailbox(sqlite3 *store, const std::string &name, const char *domain, MYSQL_ROW row)
{
    const std::string address = lowered(name + "@" + domain);
    const std::string owner = lowered(std::string(row[14]) + "@" + domain);
    MYSQL_RES *const files = ask("SELECT filename FROM resp_attach WHERE rn_id=" + std::string(row[0]));

    run(store, "BEGIN TRANSACTION;");
    run(store,
        "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, "
        "charset, body, "
        "ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );",
        {row[3], row[4], row[5], row[6], row[13], row[7], row[8], row[9], std::atoi(row[11]),
         std::atoi(row[12]), owner.c_str(), address.c_str()});
    run(store, "END TRANSACTION;");
    if (mysql_num_rows(files) > 0) {
        run(store, "BEGIN TRANSACTION;");
        while (const MYSQL_ROW file = mysql_fetch_row(files))
            run(store, "REPLACE INTO attachments VALUES (?, ?  );", {address.c_str(), file[0]});
        run(store, "END TRANSACTION;");
    }
    mysql_free_result(files);
}

void write_replies(sqlite3 *store, const std::vector<std::string> &names, const char *ids, const char *domain)
{
    MYSQL_RES *const replies = ask(
        "SELECT mail_resp.id, mail_resp.mn_id, mail_resp.resp_name, mail_resp.keystr,mail_resp.key_where, "
        "mail_resp.subject, mail_resp.reply_to, mail_resp.content_type, mail_resp.charset, mail_resp.text, "
        "mail_resp.resp_on, mail_resp.ans_freq, mail_resp.mem_limit, resp_forward.address, mail.mail_name "
        "FROM "
        "mail_resp LEFT JOIN resp_forward ON resp_forward.rn_id=mail_resp.id LEFT JOIN mail ON "
        "mail_resp.mn_id=mail.id WHERE mail_resp.resp_name='default' AND mail_resp.mn_id IN (" +
        std::string(ids) + ")");
    std::vector<std::pair<std::string, MYSQL_ROW>> rows;

    while (const MYSQL_ROW row = mysql_fetch_row(replies))
        rows.emplace_back(row[1], row);

    const std::vector<std::string> wanted = split(ids);

    for (std::size_t i = 0; i < wanted.size(); i++) {
        const auto found =
            std::find_if(rows.rbegin(), rows.rend(), [&](const auto &row) { return row.first == wanted[i]; });

        must(found != rows.rend(), "a mailbox without a reply");
        write_mailbox(store, names[i], domain, found->second);
    }
    mysql_free_result(replies);
}

void copy_handlers(const char *domain, const char *alias)
{
    struct Row {
        int priority, type, queue, enabled;
        std::string name, executable, context, address;
    };
    sqlite3 *const handlers = open_store(handlers_path);
    sqlite3_stmt *const select =
        prepare(handlers,
                "SELECT priority, type, queue, name, executable, context, enabled, address FROM handlers "
                "WHERE address LIKE '%' || ? || '%'",
                {domain});
    const auto text = [&](int column) {
        return reinterpret_cast<const char *>(sqlite3_column_text(select, column));
    };
    std::vector<Row> rows;

    while (sqlite3_step(select) == SQLITE_ROW) {
        const std::string address = text(7);

        rows.push_back({sqlite3_column_int(select, 0), sqlite3_column_int(select, 1),
                        sqlite3_column_int(select, 2), sqlite3_column_int(select, 6), text(3), text(4),
                        text(5), address.substr(0, address.find('@') + 1) + alias});
    }
    (void)sqlite3_finalize(select);
    run(handlers, "BEGIN TRANSACTION;");
    for (auto row = rows.rbegin(); row != rows.rend(); ++row)
        insert_handler(handlers, row->priority, row->name.c_str(), row->type, row->address.c_str(),
                       row->queue, row->executable.c_str(), row->context.c_str(), row->enabled);
    run(handlers, "END TRANSACTION;");
    (void)sqlite3_close(handlers);
}

void copy_replies(sqlite3 *store, const char *domain, const char *alias)
{
    const std::string renamed = "SELECT replace(mn, '@" + std::string(domain) + "', '@" + alias + "'), ";
    const std::string replies =
        "REPLACE INTO autoresponder " + renamed +
        "keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, "
        "ans_freq, ans_limit, real_owner FROM autoresponder;";
    const std::string files = "REPLACE INTO attachments " + renamed + "filename FROM attachments;";

    run(store, "BEGIN TRANSACTION;");
    run(store, replies.c_str());
    run(store, files.c_str());
    run(store, "END TRANSACTION;");
}

void restore_domain(sqlite3 *store, const std::string &id, const char *domain)
{
    MYSQL_RES *const mailboxes = ask("SELECT group_concat(mail_name SEPARATOR ','), group_concat(id "
                                     "SEPARATOR ',') FROM mail  WHERE dom_id=" +
                                     id + " AND autoresponder='true'");

    if (const MYSQL_ROW row = mysql_fetch_row(mailboxes); row[0] != nullptr) {
        const std::vector<std::string> names = split(row[0]);

        register_handlers(names, domain);
        write_replies(store, names, row[1], domain);
    }
    mysql_free_result(mailboxes);

    MYSQL_RES *const aliases = ask("SELECT name FROM domain_aliases  WHERE dom_id=" + id);

    while (const MYSQL_ROW row = mysql_fetch_row(aliases)) {
        copy_handlers(domain, row[0]);
        copy_replies(store, domain, row[0]);
    }
    mysql_free_result(aliases);
}

void run_utility()
{
    const char *const argv[] = {"/opt/qsx/admin/sbin/mail_responders_control", "--init-db", nullptr};
    pid_t child = -1;
    int status = -1;

    must(posix_spawn(&child, argv[0], nullptr, nullptr, const_cast<char *const *>(argv), environ) == 0,
         argv[0]);
    must(waitpid(child, &status, 0) == child && status == 0, argv[0]);
}

} // namespace

int main(int argc, char **argv)
{
    must(argc == 2, "usage: floor PASSWORD");
    run_utility();

    sqlite3 *const store = open_store(responder_path);

    panel = mysql_init(nullptr);
    must(mysql_real_connect(panel, "localhost", "admin", argv[1], "qsx", 0, socket_path, 0) != nullptr,
         mysql_error(panel));
    must(mysql_query(panel, "SET NAMES utf8") == 0, mysql_error(panel));

    MYSQL_RES *const domains = ask("SELECT d.id, d.name FROM domains d  LEFT JOIN DomainServices ds ON "
                                   "d.id=ds.dom_id  WHERE ds.type='mail'");

    while (const MYSQL_ROW row = mysql_fetch_row(domains))
        restore_domain(store, row[0], row[1]);
    mysql_free_result(domains);
    /* No shape of a benchmark has extra headers. */
    mysql_free_result(ask("select value from ServiceNodeConfiguration where name='auto_reply_headers' and "
                          "serviceNodeId=1 and section='mailServer'"));
    mysql_close(panel);
    (void)sqlite3_close(store);
}
