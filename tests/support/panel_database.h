/*
 * panel_database: the panel's database in the sandbox, filled as a test wants it.
 *
 * Its own connection, as the account admin, to the private server of tools/sandbox: the tables are those of
 * demo/panel-schema.sql.  Everything that the server refuses fails the test.  A test program that replaces
 * calls of the client library at link time replaces them here too.
 */
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <mysql.h>

namespace kolmo::testing
{

/* A text as an SQL literal; nothing is NULL. */
std::string sql_literal(const std::optional<std::string> &text);

/* A row of mail_resp, apart from its owner. */
struct PanelResponder {
    std::string resp_name = "default";
    std::optional<std::string> keystr = "";
    std::string key_where = "no"; /* no, subj or body */
    std::optional<std::string> subject = "Away";
    std::optional<std::string> reply_to = "";
    std::optional<std::string> content_type = "text/plain";
    std::optional<std::string> charset = "UTF-8";
    std::optional<std::string> text = "Back soon.";
    std::string resp_on = "true"; /* or false */
    int ans_freq = 10;
    int mem_limit = 100;
};

class PanelDatabase
{
public:
    /* Connects; outside of the sandbox the test fails and nothing is connected. */
    PanelDatabase();
    ~PanelDatabase();
    PanelDatabase(const PanelDatabase &) = delete;
    PanelDatabase &operator=(const PanelDatabase &) = delete;

    /* The database `name` anew: all tables, no rows.  What is added from now on is added there. */
    void reset(const std::string &name = "qsx");

    /* One statement or several, separated by semicolons; rows are thrown away. */
    void execute(const std::string &sql);

    /* The first column of the first row, empty when there is none or it is NULL. */
    [[nodiscard]] std::string value(const std::string &sql);

    /* The connection, for a test that needs the client library itself; it stays this object's. */
    [[nodiscard]] MYSQL *connection() { return connection_; }

    /* Each returns the new row's id, counted from 1 in every table. */
    int add_domain(const std::string &name, bool mail_service = true);
    int add_mailbox(int domain_id, const std::string &mail_name, bool autoresponder = true);
    int add_responder(int mailbox_id, const PanelResponder &responder = {});

    /* A mailbox with its default autoresponder; returns the responder's id. */
    int add_mailbox_with_responder(int domain_id, const std::string &mail_name,
                                   const PanelResponder &responder = {});

    void add_forward(int responder_id, const std::string &address);
    void add_attachment(int responder_id, const std::string &filename);
    void add_alias(int domain_id, const std::string &name);

    /* The setting auto_reply_headers of the mail server; nothing is a row whose value is NULL. */
    void set_reply_headers(const std::optional<std::string> &json);

private:
    int insert(const std::string &sql);

    MYSQL *connection_ = nullptr;
};

} // namespace kolmo::testing
