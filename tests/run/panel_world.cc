#include "tests/run/panel_world.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/sandbox.h"

namespace kolmo::testing
{

namespace
{

namespace fs = std::filesystem;

const std::string stand_in_folder = KOLMO_SOURCE_DIR "/tools/stand-in/";

sqlite3 *open_file(const std::string &path)
{
    sqlite3 *db = nullptr;

    EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK) << path;
    return db;
}

void run_sql(sqlite3 *db, const std::string &sql)
{
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(db) << "\n"
        << sql;
}

int keep_row(void *rows, int columns, char **values, char **)
{
    std::string row;

    for (int i = 0; i < columns; i++)
        row += (i > 0 ? "," : "") + std::string(values[i] != nullptr ? values[i] : "NULL");
    static_cast<std::vector<std::string> *>(rows)->push_back(row);
    return 0;
}

std::vector<std::string> sorted(std::vector<std::string> rows)
{
    std::sort(rows.begin(), rows.end());
    return rows;
}

/* As SQLite's quote() writes it: unlike MariaDB's, its literals know no backslash. */
std::string quoted(const std::string &text)
{
    std::string literal = "'";

    for (const char c : text)
        literal += c == '\'' ? "''" : std::string(1, c);
    return literal + '\'';
}

std::string handler(const std::string &address, int priority, const std::string &name,
                    const std::string &executable, const std::string &context)
{
    return "2,1,1," + std::to_string(priority) + ',' + quoted(name) + ',' + quoted(address) + ',' +
           quoted(executable) + ',' + quoted(context) + ",0";
}

void make_handlers_store()
{
    change_store(handlers_store, read_file(stand_in_folder + "handlers-store.sql"));

    const group *const owner = ::getgrnam("popuser");

    ASSERT_NE(owner, nullptr);
    EXPECT_EQ(::chown(handlers_store.c_str(), 0, owner->gr_gid), 0);
    EXPECT_EQ(::chmod(handlers_store.c_str(), 0640), 0);
}

} // namespace

void reset_panel_files()
{
    for (const char *folder : {"/etc/qsx", "/opt/qsx", "/var/lib/kolmo"})
        fs::remove_all(folder);
    for (const std::string &path : {dsn_path, utility_path, responder_store, handlers_store})
        fs::create_directories(fs::path(path).parent_path());
    write_file(shadow_path, sandbox_variable("KOLMO_SANDBOX_PASSWORD") + "\n");
    fs::copy_file(stand_in_folder + "mail_responders_control", utility_path);
    fs::copy_file(utility_path, "/opt/qsx/stand-in");
    make_handlers_store();
}

void write_file(const std::string &path, std::string_view content, unsigned int mode)
{
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);

    stream << content;
    stream.close();
    EXPECT_TRUE(stream.good()) << path;
    EXPECT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

std::string read_file(const std::string &path)
{
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;

    EXPECT_TRUE(stream.is_open()) << path;
    text << stream.rdbuf();
    return text.str();
}

void write_utility(const std::string &script)
{
    write_file(utility_path, "#!/bin/sh\n" + script + "\n", 0755);
}

void change_store(const std::string &path, const std::string &sql)
{
    sqlite3 *const db = open_file(path);

    run_sql(db, sql);
    EXPECT_EQ(sqlite3_close(db), SQLITE_OK);
}

void make_responder_store()
{
    EXPECT_EQ(std::system(stand_in.c_str()), 0);
}

std::vector<std::string> query_store(const std::string &path, const std::string &sql)
{
    std::vector<std::string> rows;
    sqlite3 *const db = open_file(path);

    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), keep_row, &rows, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    EXPECT_EQ(sqlite3_close(db), SQLITE_OK);
    return rows;
}

std::vector<std::string> responder_rows()
{
    return sorted(
        query_store(responder_store,
                    "SELECT 'autoresponder ' || quote(mn), quote(keystr), quote(key_where), quote(subject), "
                    "quote(reply_to), quote(forward_to), quote(content_type), quote(charset), quote(body), "
                    "quote(ans_freq), quote(ans_limit), quote(real_owner) FROM autoresponder;"
                    "SELECT 'attachments ' || quote(mn), quote(filename) FROM attachments;"
                    "SELECT 'extra_headers ' || quote(name), quote(value) FROM extra_headers;"));
}

std::vector<std::string> handler_rows()
{
    return sorted(query_store(handlers_store,
                              "SELECT queue, type, enabled, priority, quote(name), quote(address), "
                              "quote(executable), quote(context), protected FROM handlers"));
}

std::string reply_row(const std::string &address, const PanelResponder &responder, const std::string &owner,
                      const std::string &forward)
{
    std::string row = "autoresponder " + quoted(address);

    for (const std::string &text :
         {responder.keystr.value_or(""), responder.key_where, responder.subject.value_or(""),
          responder.reply_to.value_or(""), forward, responder.content_type.value_or(""),
          responder.charset.value_or(""), responder.text.value_or("")})
        row += ',' + quoted(text);
    return row + ',' + std::to_string(responder.ans_freq) + ',' + std::to_string(responder.mem_limit) + ',' +
           quoted(owner.empty() ? address : owner);
}

std::string attachment_row(const std::string &address, const std::string &filename)
{
    return "attachments " + quoted(address) + ',' + quoted(filename);
}

std::string header_row(const std::string &name, const std::string &value)
{
    return "extra_headers " + quoted(name) + ',' + quoted(value);
}

std::string handler_row(const std::string &address)
{
    return handler(address, 90, "autoresponder", "/opt/qsx/handlers/hooks/autoresponder", "responder");
}

std::string foreign_handler_row(const std::string &address, int priority, const std::string &name)
{
    return handler(address, priority, name, "/opt/qsx/handlers/other", "other");
}

std::string add_foreign_handler(const std::string &address, int priority, const std::string &name)
{
    const std::string row = foreign_handler_row(address, priority, name);

    change_store(handlers_store, "INSERT INTO handlers VALUES (" + row + ")");
    return row;
}

StoreLock::StoreLock(Kind kind)
{
    for (const std::string &path : {responder_store, handlers_store}) {
        holders_.push_back(open_file(path));
        run_sql(holders_.back(),
                kind == Kind::exclusive ? "BEGIN EXCLUSIVE" : "BEGIN; SELECT count(*) FROM sqlite_master");
    }
}

void StoreLock::release()
{
    for (sqlite3 *const holder : holders_) {
        run_sql(holder, "COMMIT");
        EXPECT_EQ(sqlite3_close(holder), SQLITE_OK);
    }
    holders_.clear();
}

} // namespace kolmo::testing
