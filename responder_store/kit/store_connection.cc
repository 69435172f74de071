#include "responder_store/kit/store_connection.h"

#include <array>
#include <string_view>

#include "common/log.h"
#include "responder_store/kit/busy_retry.h"

namespace kolmo
{

namespace
{

/*
 * Three r: docs/compatibility.md.  Distributions search programs' files for misspelt words; in the file a
 * sign stands where the text ends, so that it is not found there.
 */
const char *no_connection() noexcept
{
    static constexpr std::string_view words = "general DB errror";
    static constinit auto text = [] {
        std::array<char, words.size() + 2> marked{};
        words.copy(marked.data(), words.size());
        marked[words.size()] = '|';
        return marked;
    }();

    text[words.size()] = '\0';
    return text.data();
}

} // namespace

StoreConnection &StoreConnection::operator=(StoreConnection &&other) noexcept
{
    const StoreConnection old(std::move(*this)); /* closed at the end of the scope */

    abandoned_ = other.abandoned_;
    handle_ = other.release();
    return *this;
}

const char *StoreConnection::detail() const noexcept
{
    return is_open() ? sqlite3_errmsg(handle_) : no_connection();
}

sqlite3 *StoreConnection::release() noexcept
{
    abandoned_ = false;
    return std::exchange(handle_, nullptr);
}

Ending open_store(StoreConnection *connection, const char *path, OpenMode mode)
{
    const bool read_only = mode == OpenMode::read_only;
    sqlite3 *handle = nullptr;
    const int rc = read_only ? sqlite3_open_v2(path, &handle, SQLITE_OPEN_READONLY, nullptr)
                             : sqlite3_open(path, &handle);
    StoreConnection opened(handle); /* SQLite hands one out for most failures too */

    if (rc != SQLITE_OK) {
        log_message(LOG_ERR,
                    read_only ? "Unable to open database(readonly) %s: %s" : "Unable to open database %s: %s",
                    path, opened.detail());
        return close_with_retry(&opened) == Ending::done ? Ending::failed : Ending::abandoned;
    }
    (void)sqlite3_busy_timeout(handle, store_busy_timeout_ms);
    *connection = std::move(opened);
    return Ending::done;
}

} // namespace kolmo
