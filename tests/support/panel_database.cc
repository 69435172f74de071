#include "tests/support/panel_database.h"

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/sandbox.h"

namespace kolmo::testing
{

namespace
{

std::string panel_schema()
{
    std::ifstream stream(KOLMO_PANEL_SCHEMA, std::ios::binary);
    std::ostringstream text;

    EXPECT_TRUE(stream.is_open()) << KOLMO_PANEL_SCHEMA;
    text << stream.rdbuf();
    return text.str();
}

} // namespace

std::string sql_literal(const std::optional<std::string> &text)
{
    if (!text)
        return "NULL";

    std::string literal = "'";

    for (const char c : *text) {
        if (c == '\'' || c == '\\')
            literal += '\\';
        literal += c;
    }
    return literal + '\'';
}

PanelDatabase::PanelDatabase()
{
    if (!in_sandbox()) {
        ADD_FAILURE() << "run this in tools/sandbox";
        return;
    }
    connection_ = mysql_init(nullptr);
    mysql_options(connection_, MYSQL_SET_CHARSET_NAME, "utf8mb4");
    if (mysql_real_connect(
            connection_, "localhost", "admin", sandbox_variable("KOLMO_SANDBOX_PASSWORD").c_str(), nullptr, 0,
            sandbox_variable("KOLMO_SANDBOX_SOCKET").c_str(), CLIENT_MULTI_STATEMENTS) == nullptr)
        ADD_FAILURE() << mysql_error(connection_);
}

PanelDatabase::~PanelDatabase()
{
    mysql_close(connection_);
}

void PanelDatabase::reset(const std::string &name)
{
    static const std::string schema = panel_schema();

    execute("DROP DATABASE IF EXISTS " + name + "; CREATE DATABASE " + name + " CHARACTER SET utf8mb4; USE " +
            name);
    execute(schema);
}

void PanelDatabase::execute(const std::string &sql)
{
    int result = mysql_real_query(connection_, sql.data(), sql.size());

    while (result == 0) {
        mysql_free_result(mysql_store_result(connection_));
        result = mysql_next_result(connection_);
    }
    EXPECT_EQ(result, -1) << mysql_error(connection_) << "\n" << sql;
}

std::string PanelDatabase::value(const std::string &sql)
{
    if (mysql_real_query(connection_, sql.data(), sql.size()) != 0) {
        ADD_FAILURE() << mysql_error(connection_) << "\n" << sql;
        return "";
    }

    MYSQL_RES *const rows = mysql_store_result(connection_);
    const MYSQL_ROW row = rows != nullptr ? mysql_fetch_row(rows) : nullptr;
    std::string text = row != nullptr && row[0] != nullptr ? row[0] : "";

    mysql_free_result(rows);
    return text;
}

int PanelDatabase::insert(const std::string &sql)
{
    EXPECT_EQ(mysql_real_query(connection_, sql.data(), sql.size()), 0) << mysql_error(connection_) << "\n"
                                                                        << sql;
    return static_cast<int>(mysql_insert_id(connection_));
}

int PanelDatabase::add_domain(const std::string &name, bool mail_service)
{
    const int id = insert("INSERT INTO domains (name) VALUES (" + sql_literal(name) + ")");

    (void)insert("INSERT INTO DomainServices VALUES (" + std::to_string(id) + ", 'web')");
    if (mail_service)
        (void)insert("INSERT INTO DomainServices VALUES (" + std::to_string(id) + ", 'mail')");
    return id;
}

int PanelDatabase::add_mailbox(int domain_id, const std::string &mail_name, bool autoresponder)
{
    return insert("INSERT INTO mail (dom_id, mail_name, autoresponder) VALUES (" + std::to_string(domain_id) +
                  ", " + sql_literal(mail_name) + ", " + (autoresponder ? "'true'" : "'false'") + ")");
}

int PanelDatabase::add_responder(int mailbox_id, const PanelResponder &responder)
{
    std::string values = std::to_string(mailbox_id);

    for (const std::optional<std::string> &text :
         {std::optional(responder.resp_name), responder.keystr, std::optional(responder.key_where),
          responder.subject, responder.reply_to, responder.content_type, responder.charset, responder.text,
          std::optional(responder.resp_on)})
        values += ", " + sql_literal(text);
    return insert(
        "INSERT INTO mail_resp (mn_id, resp_name, keystr, key_where, subject, reply_to, content_type, "
        "charset, text, resp_on, ans_freq, mem_limit) VALUES (" +
        values + ", " + std::to_string(responder.ans_freq) + ", " + std::to_string(responder.mem_limit) +
        ")");
}

int PanelDatabase::add_mailbox_with_responder(int domain_id, const std::string &mail_name,
                                              const PanelResponder &responder)
{
    return add_responder(add_mailbox(domain_id, mail_name), responder);
}

void PanelDatabase::add_forward(int responder_id, const std::string &address)
{
    (void)insert("INSERT INTO resp_forward (rn_id, address) VALUES (" + std::to_string(responder_id) + ", " +
                 sql_literal(address) + ")");
}

void PanelDatabase::add_attachment(int responder_id, const std::string &filename)
{
    (void)insert("INSERT INTO resp_attach (rn_id, filename) VALUES (" + std::to_string(responder_id) + ", " +
                 sql_literal(filename) + ")");
}

void PanelDatabase::add_alias(int domain_id, const std::string &name)
{
    (void)insert("INSERT INTO domain_aliases (dom_id, name) VALUES (" + std::to_string(domain_id) + ", " +
                 sql_literal(name) + ")");
}

void PanelDatabase::set_reply_headers(const std::optional<std::string> &json)
{
    (void)insert("REPLACE INTO ServiceNodeConfiguration (name, value, serviceNodeId, section) VALUES "
                 "('auto_reply_headers', " +
                 sql_literal(json) + ", 1, 'mailServer')");
}

} // namespace kolmo::testing
