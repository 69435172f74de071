#include "tests/support/sqlite_faults.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include <gtest/gtest.h>

namespace kolmo::testing
{

namespace
{

/* Counts down to the call that it fails. */
struct Fault {
    std::optional<SqliteCall> kind; /* none: any */
    int left;
    int code;
};

/* How often a kind of call is refused, and how often the one at hand has been. */
struct Busyness {
    int times = 0;
    int done = 0;
    bool is_due = false; /* it has to come, and has not yet */
};

constexpr std::size_t kinds = 6;

} // namespace

struct SqliteFaults::State {
    std::vector<std::string> calls;
    int fallible_calls = 0;
    std::vector<Fault> faults;
    std::string failed_call;
    bool opens_with_handle = true;
    std::array<Busyness, kinds> busy;

    std::vector<long> pauses;
    int pauses_to_failure = 0;
    int pauses_to_action = 0;
    std::function<void()> action;
    bool sleeps = false;

    std::set<sqlite3 *> open;
    std::set<const sqlite3 *> closed;
    std::map<sqlite3_stmt *, std::string> statements;

    /* The code that the call at hand has to return instead of being made, if any. */
    std::optional<int> refusal(SqliteCall kind, std::string call);

    /* Records a pause; whether it is the one that fails. */
    bool pause_fails(long nanoseconds);
};

std::optional<int> SqliteFaults::State::refusal(SqliteCall kind, std::string call)
{
    std::optional<int> code;

    fallible_calls++;
    for (Fault &fault : faults)
        if ((!fault.kind || *fault.kind == kind) && --fault.left == 0) {
            code = fault.code;
            failed_call = call;
        }
    calls.push_back(std::move(call));

    Busyness &kind_busy = busy[static_cast<std::size_t>(kind)];

    if (code)
        return code;
    if (kind_busy.done < kind_busy.times) {
        kind_busy.done++;
        kind_busy.is_due = false;
        return SQLITE_BUSY;
    }
    kind_busy.done = 0;
    return std::nullopt;
}

bool SqliteFaults::State::pause_fails(long nanoseconds)
{
    calls.push_back("pause " + std::to_string(nanoseconds));
    pauses.push_back(nanoseconds);
    if (--pauses_to_action == 0) {
        const SqliteFaults::Aside aside;

        action();
    }
    return --pauses_to_failure == 0;
}

namespace
{

SqliteFaults::State *living = nullptr;
bool is_aside = false;

/* Where the call at hand is to be noted, or null when it is to go straight through. */
SqliteFaults::State *watcher()
{
    return is_aside ? nullptr : living;
}

std::string bind_call(int index, const char *text, int length, sqlite3_destructor_type destructor)
{
    std::string call = "bind " + std::to_string(index) + ' ';

    if (text == nullptr)
        return call + "NULL";
    call += '\'' + std::string(text) + '\'';
    if (length < 0 || static_cast<std::size_t>(length) != std::strlen(text))
        call += " length " + std::to_string(length);
    if (destructor != SQLITE_STATIC)
        call += " copied";
    return call;
}

void note_open(SqliteFaults::State *state, sqlite3 *connection)
{
    if (connection == nullptr)
        return;
    state->open.insert(connection);
    state->closed.erase(connection);
}

/* Runs `open` unless it has to fail without a handle. */
template <typename Open>
int open_watched(SqliteFaults::State *state, std::string call, sqlite3 **connection, Open &&open)
{
    const std::optional<int> refusal = state->refusal(SqliteCall::open, std::move(call));

    if (refusal && !state->opens_with_handle) {
        *connection = nullptr;
        return *refusal;
    }

    const int rc = open();

    note_open(state, *connection);
    return refusal.value_or(rc);
}

} // namespace

} // namespace kolmo::testing

using kolmo::testing::SqliteCall;
using kolmo::testing::SqliteFaults;
using kolmo::testing::watcher;

extern "C" {

int __real_sqlite3_open(const char *path, sqlite3 **connection);
int __real_sqlite3_open_v2(const char *path, sqlite3 **connection, int flags, const char *vfs);
int __real_sqlite3_busy_timeout(sqlite3 *connection, int milliseconds);
int __real_sqlite3_prepare_v2(sqlite3 *connection, const char *sql, int length, sqlite3_stmt **statement,
                              const char **tail);
int __real_sqlite3_bind_text(sqlite3_stmt *statement, int index, const char *text, int length,
                             sqlite3_destructor_type destructor);
int __real_sqlite3_bind_int(sqlite3_stmt *statement, int index, int number);
int __real_sqlite3_bind_int64(sqlite3_stmt *statement, int index, sqlite3_int64 number);
int __real_sqlite3_step(sqlite3_stmt *statement);
int __real_sqlite3_reset(sqlite3_stmt *statement);
int __real_sqlite3_finalize(sqlite3_stmt *statement);
int __real_sqlite3_exec(sqlite3 *connection, const char *sql, sqlite3_callback callback, void *argument,
                        char **error);
int __real_sqlite3_close(sqlite3 *connection);
int __real_sqlite3_close_v2(sqlite3 *connection);
int __real_nanosleep(const timespec *pause, timespec *remainder);

int __wrap_sqlite3_open(const char *path, sqlite3 **connection)
{
    SqliteFaults::State *const state = watcher();

    if (state == nullptr)
        return __real_sqlite3_open(path, connection);
    return kolmo::testing::open_watched(state, std::string("open ") + path, connection,
                                        [&] { return __real_sqlite3_open(path, connection); });
}

int __wrap_sqlite3_open_v2(const char *path, sqlite3 **connection, int flags, const char *vfs)
{
    SqliteFaults::State *const state = watcher();

    if (state == nullptr)
        return __real_sqlite3_open_v2(path, connection, flags, vfs);
    return kolmo::testing::open_watched(state, std::string("open_v2 ") + path + ' ' + std::to_string(flags),
                                        connection,
                                        [&] { return __real_sqlite3_open_v2(path, connection, flags, vfs); });
}

int __wrap_sqlite3_busy_timeout(sqlite3 *connection, int milliseconds)
{
    if (SqliteFaults::State *const state = watcher(); state != nullptr)
        state->calls.push_back("busy_timeout " + std::to_string(milliseconds));
    return __real_sqlite3_busy_timeout(connection, milliseconds);
}

int __wrap_sqlite3_prepare_v2(sqlite3 *connection, const char *sql, int length, sqlite3_stmt **statement,
                              const char **tail)
{
    SqliteFaults::State *const state = watcher();

    if (state == nullptr)
        return __real_sqlite3_prepare_v2(connection, sql, length, statement, tail);

    if (const auto refusal = state->refusal(SqliteCall::prepare, std::string("prepare ") + sql)) {
        *statement = nullptr;
        return *refusal;
    }

    const int rc = __real_sqlite3_prepare_v2(connection, sql, length, statement, tail);

    if (*statement != nullptr)
        state->statements[*statement] = sql;
    return rc;
}

int __wrap_sqlite3_bind_text(sqlite3_stmt *statement, int index, const char *text, int length,
                             sqlite3_destructor_type destructor)
{
    if (SqliteFaults::State *const state = watcher(); state != nullptr)
        if (const auto refusal =
                state->refusal(SqliteCall::bind, kolmo::testing::bind_call(index, text, length, destructor)))
            return *refusal;
    return __real_sqlite3_bind_text(statement, index, text, length, destructor);
}

int __wrap_sqlite3_bind_int(sqlite3_stmt *statement, int index, int number)
{
    if (SqliteFaults::State *const state = watcher(); state != nullptr)
        if (const auto refusal = state->refusal(SqliteCall::bind, "bind " + std::to_string(index) + ' ' +
                                                                      std::to_string(number)))
            return *refusal;
    return __real_sqlite3_bind_int(statement, index, number);
}

int __wrap_sqlite3_bind_int64(sqlite3_stmt *statement, int index, sqlite3_int64 number)
{
    if (SqliteFaults::State *const state = watcher(); state != nullptr)
        if (const auto refusal = state->refusal(SqliteCall::bind, "bind64 " + std::to_string(index) + ' ' +
                                                                      std::to_string(number)))
            return *refusal;
    return __real_sqlite3_bind_int64(statement, index, number);
}

int __wrap_sqlite3_step(sqlite3_stmt *statement)
{
    if (SqliteFaults::State *const state = watcher(); state != nullptr)
        if (const auto refusal = state->refusal(SqliteCall::step, "step"))
            return *refusal;
    return __real_sqlite3_step(statement);
}

int __wrap_sqlite3_reset(sqlite3_stmt *statement)
{
    if (SqliteFaults::State *const state = watcher(); state != nullptr)
        state->calls.emplace_back("reset");
    return __real_sqlite3_reset(statement);
}

int __wrap_sqlite3_finalize(sqlite3_stmt *statement)
{
    if (SqliteFaults::State *const state = watcher(); state != nullptr && statement != nullptr) {
        state->calls.emplace_back("finalize");
        state->statements.erase(statement);
    }
    return __real_sqlite3_finalize(statement);
}

/* A refused one hands out an error text, as SQLite does, for the caller to free. */
int __wrap_sqlite3_exec(sqlite3 *connection, const char *sql, sqlite3_callback callback, void *argument,
                        char **error)
{
    if (SqliteFaults::State *const state = watcher(); state != nullptr)
        if (const auto refusal = state->refusal(SqliteCall::exec, std::string("exec ") + sql)) {
            if (error != nullptr)
                *error = sqlite3_mprintf("refused by the test");
            return *refusal;
        }
    return __real_sqlite3_exec(connection, sql, callback, argument, error);
}

int __wrap_sqlite3_close(sqlite3 *connection)
{
    SqliteFaults::State *const state = watcher();

    if (state == nullptr || connection == nullptr)
        return __real_sqlite3_close(connection);
    if (const auto refusal = state->refusal(SqliteCall::close, "close"))
        return *refusal;

    const int rc = __real_sqlite3_close(connection);

    if (rc == SQLITE_OK) {
        state->open.erase(connection);
        state->closed.insert(connection);
    }
    return rc;
}

/* Nothing that its callers could see fail. */
int __wrap_sqlite3_close_v2(sqlite3 *connection)
{
    if (SqliteFaults::State *const state = watcher(); state != nullptr && connection != nullptr) {
        state->calls.emplace_back("close_v2");
        state->open.erase(connection);
        state->closed.insert(connection);
    }
    return __real_sqlite3_close_v2(connection);
}

int __wrap_nanosleep(const timespec *pause, timespec *remainder)
{
    SqliteFaults::State *const state = watcher();

    if (state == nullptr)
        return __real_nanosleep(pause, remainder);
    if (state->pause_fails(pause->tv_sec * 1'000'000'000 + pause->tv_nsec)) {
        errno = EINTR;
        return -1;
    }
    if (state->sleeps)
        return __real_nanosleep(pause, remainder);
    if (pause->tv_sec < 0 || pause->tv_nsec < 0 || pause->tv_nsec > 999'999'999) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

} // extern "C"

namespace kolmo::testing
{

SqliteFaults::SqliteFaults() : state_(std::make_unique<State>())
{
    EXPECT_EQ(living, nullptr) << "two at a time";
    living = state_.get();
}

SqliteFaults::~SqliteFaults()
{
    living = nullptr;
    for (const Fault &fault : state_->faults)
        EXPECT_LE(fault.left, 0) << "the call that had to fail never came";
    for (const Busyness &busy : state_->busy)
        EXPECT_FALSE(busy.is_due) << "the call that had to be busy never came";
    EXPECT_LE(state_->pauses_to_failure, 0) << "the pause that had to fail never came";
    EXPECT_LE(state_->pauses_to_action, 0) << "the pause in which something had to happen never came";
    for (const auto &[statement, sql] : state_->statements)
        (void)__real_sqlite3_finalize(statement);
    for (sqlite3 *const connection : state_->open)
        EXPECT_EQ(__real_sqlite3_close(connection), SQLITE_OK);
}

void SqliteFaults::fail_call(int nth, int code)
{
    state_->faults.push_back({std::nullopt, nth, code});
}

void SqliteFaults::fail_call(SqliteCall kind, int nth, int code)
{
    state_->faults.push_back({kind, nth, code});
}

void SqliteFaults::open_without_handle()
{
    state_->opens_with_handle = false;
}

void SqliteFaults::be_busy(SqliteCall kind, int times)
{
    state_->busy[static_cast<std::size_t>(kind)] = {times, 0, times > 0};
}

void SqliteFaults::fail_pause(int nth)
{
    state_->pauses_to_failure = nth;
}

void SqliteFaults::at_pause(int nth, std::function<void()> action)
{
    state_->pauses_to_action = nth;
    state_->action = std::move(action);
}

void SqliteFaults::sleep_really()
{
    state_->sleeps = true;
}

const std::vector<std::string> &SqliteFaults::calls() const
{
    return state_->calls;
}

int SqliteFaults::count(const std::string &call) const
{
    return static_cast<int>(std::count_if(
        state_->calls.begin(), state_->calls.end(), [&, start = call + ' '](const std::string &made) {
            return made == call || made.compare(0, start.size(), start) == 0;
        }));
}

int SqliteFaults::calls_made() const
{
    return state_->fallible_calls;
}

std::vector<long> SqliteFaults::pauses() const
{
    return state_->pauses;
}

const std::string &SqliteFaults::failed_call() const
{
    return state_->failed_call;
}

std::vector<sqlite3 *> SqliteFaults::open_connections() const
{
    return {state_->open.begin(), state_->open.end()};
}

bool SqliteFaults::is_closed(const sqlite3 *connection) const
{
    return state_->closed.count(connection) != 0;
}

std::vector<std::string> SqliteFaults::open_statements() const
{
    std::vector<std::string> texts;

    for (const auto &[statement, sql] : state_->statements)
        texts.push_back(sql);
    return texts;
}

SqliteFaults::Aside::Aside() : was_aside_(std::exchange(is_aside, true)) {}

SqliteFaults::Aside::~Aside()
{
    is_aside = was_aside_;
}

} // namespace kolmo::testing
