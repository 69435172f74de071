/*
 * sqlite_faults: SQLite that fails when a test says so, and pauses that take no time.
 *
 * For test programs that use the target kolmo_sqlite_faults, in which sqlite3_open, sqlite3_open_v2,
 * sqlite3_busy_timeout, sqlite3_prepare_v2, sqlite3_bind_text, sqlite3_bind_int, sqlite3_bind_int64,
 * sqlite3_step, sqlite3_reset, sqlite3_finalize, sqlite3_exec, sqlite3_close, sqlite3_close_v2 and nanosleep,
 * called from anything that is linked statically, lead here (-Wl,--wrap=).  The real SQLite is always
 * underneath; only a call that is made to fail is not made.  Without a SqliteFaults they do what they always
 * do.
 *
 *     SqliteFaults faults;
 *     faults.fail_call(3);                    // the third fallible call from here on fails
 *     result = responder_db_add_attachments(...);
 *     EXPECT_EQ(faults.calls(), ...);         // "prepare BEGIN TRANSACTION;", "step", "finalize", ...
 *     // at the end of the scope: the test has failed unless there was a third call
 *
 * What the code under test leaves open on purpose is open to assertions, and is closed at the end of the
 * scope, so that the leak checker reports the real leaks only.  So the object has to be declared before any
 * StoreConnection that is opened while it lives; one that was open before is left to its owner.
 */
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sqlite3.h>

namespace kolmo::testing
{

/* The calls that can fail; open is both ways to open, bind all ways to bind. */
enum class SqliteCall { open, prepare, bind, step, exec, close };

class SqliteFaults
{
public:
    /* Records from here on, and fails nothing yet.  One at a time. */
    SqliteFaults();

    /* Closes what is still open.  The test fails when what had to fail, or to be busy, never came. */
    ~SqliteFaults();

    SqliteFaults(const SqliteFaults &) = delete;
    SqliteFaults &operator=(const SqliteFaults &) = delete;

    /*
     * Fail the nth fallible call from now on, all kinds counted together, or the nth of one kind; 1 is the
     * next, 0 none.  It returns `code` and is not made, but for an open, which hands out a handle all the
     * same.  A close that is made to fail therefore leaves the connection open.  Several can be set.
     */
    void fail_call(int nth, int code = SQLITE_ERROR);
    void fail_call(SqliteCall kind, int nth, int code = SQLITE_ERROR);

    /* An open that is made to fail hands out no handle. */
    void open_without_handle();

    /*
     * Every call of this kind returns SQLITE_BUSY `times` times before it is really made: the caller that
     * tries again is through at attempt times + 1, and the next call starts anew.
     */
    void be_busy(SqliteCall kind, int times);

    /* Fail the nth pause from now on, as a signal does: errno EINTR. */
    void fail_pause(int nth);

    /* Do this in the nth pause from now on, as another process might: let go of a lock, for instance. */
    void at_pause(int nth, std::function<void()> action);

    /* Pauses take their time.  Otherwise none is slept; one that nanosleep(2) rejects fails either way. */
    void sleep_really();

    /*
     * All calls so far, attempts refused as busy and failed ones included:
     *     "open PATH", "open_v2 PATH FLAGS", "busy_timeout 50", "prepare SQL", "bind 1 'text'", "bind 2
     * NULL", "bind 3 42", "step", "reset", "finalize", "exec SQL", "close", "close_v2", "pause NANOSECONDS" A
     * text that is bound with a length of less or more than all of it, or copied, has " length N" or "
     * copied" after it.  Closing and finalizing null is nothing and not recorded.
     */
    [[nodiscard]] const std::vector<std::string> &calls() const;

    /* Those that are equal to `call`, or begin with it and a blank. */
    [[nodiscard]] int count(const std::string &call) const;

    /* The fallible calls so far.  For sweeps: a good run makes calls_made() of them. */
    [[nodiscard]] int calls_made() const;

    /* The nanoseconds of all pauses so far, in order. */
    [[nodiscard]] std::vector<long> pauses() const;

    /* The latest call that was made to fail, as it was recorded; empty when there was none. */
    [[nodiscard]] const std::string &failed_call() const;

    /* The connections that were opened while this lived and are open still. */
    [[nodiscard]] std::vector<sqlite3 *> open_connections() const;

    /* Whether a connection, also one from before, has been closed (and its address not given out again). */
    [[nodiscard]] bool is_closed(const sqlite3 *connection) const;

    /* The texts of the statements that were prepared and not finalized, in no particular order. */
    [[nodiscard]] std::vector<std::string> open_statements() const;

    /* What happens in its scope is the test's own affair: neither recorded nor made to fail. */
    class Aside
    {
    public:
        Aside();
        ~Aside();
        Aside(const Aside &) = delete;
        Aside &operator=(const Aside &) = delete;

    private:
        bool was_aside_;
    };

    struct State;

private:
    std::unique_ptr<State> state_;
};

} // namespace kolmo::testing
