#include "refresh/rebuild_progress.h"

#include "verify/sqlite_query.h"

namespace kolmo
{

namespace
{

/* https://www.sqlite.org/uri.html: a file that is said never to change is read without locks. */
std::string immutable_uri(const std::string &path)
{
    std::string uri = "file:";

    for (const char c : path) {
        if (c == '%' || c == '?' || c == '#') {
            uri += '%';
            uri += "0123456789ABCDEF"[(c >> 4) & 15];
            uri += "0123456789ABCDEF"[c & 15];
        } else {
            uri += c;
        }
    }
    return uri + "?immutable=1";
}

} // namespace

unsigned long count_replies_unlocked(const std::string &store)
{
    sqlite3 *db = nullptr;
    const int rc =
        sqlite3_open_v2(immutable_uri(store).c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    const SqliteConnection connection(db);
    SqliteQuery count;

    if (rc != SQLITE_OK || count.prepare(db, "SELECT count(*) FROM autoresponder") != 0 || !count.next())
        return 0;
    return static_cast<unsigned long>(count.number(0));
}

} // namespace kolmo
