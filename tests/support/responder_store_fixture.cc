#include "tests/support/responder_store_fixture.h"

#include "responder_store/responder_db.h"
#include "tests/support/responder_schema.h"

namespace kolmo::testing
{

ResponderStore::ResponderStore() : StoreFile("responder.db", responder_db_path)
{
    EXPECT_EQ(sqlite3_open(path().c_str(), &connection_), SQLITE_OK);
    (void)sqlite3_busy_timeout(connection_, 5000);
    execute(responder_schema);
}

ResponderStore::~ResponderStore()
{
    EXPECT_EQ(sqlite3_close(connection_), SQLITE_OK);
}

Lines ResponderStore::rows(const std::string &table) const
{
    return query("SELECT * FROM " + table + " ORDER BY rowid");
}

Lines ResponderStore::rows() const
{
    Lines all;

    for (const std::string table : {"autoresponder", "attachments", "extra_headers"})
        for (const std::string &row : rows(table))
            all.push_back(table + ": " + row);
    return all;
}

ResponderRecord sample_responder()
{
    static char name[] = "default";
    static char keystr[] = "key";
    static char key_where[] = "where";
    static char subject[] = "Subject";
    static char reply_to[] = "Reply@Example.org";
    static char content_type[] = "text/plain";
    static char charset[] = "UTF-8";
    static char text[] = "Gone\nfishing";
    static char on[] = "true";
    static char forward_address[] = "Forward@Example.org";
    static char mail_name[] = "Owner";

    return {4,       5,    name, keystr, key_where, subject,         reply_to, content_type,
            charset, text, on,   17,     -3,        forward_address, mail_name};
}

std::string sample_row(const std::string &mailname, const std::string &owner)
{
    return mailname +
           "|key|where|Subject|Reply@Example.org|Forward@Example.org|text/plain|UTF-8|Gone\nfishing|17|-3|" +
           owner;
}

bool in_transaction(const StoreConnection &connection)
{
    return connection.get() != nullptr && sqlite3_get_autocommit(connection.get()) == 0;
}

} // namespace kolmo::testing
