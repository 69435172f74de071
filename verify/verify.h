/*
 * verify: does what the autoresponder finds in both stores agree with the panel's database?
 *
 * Reads only: the panel's tables in one consistent snapshot, each store through a private copy that SQLite's
 * backup interface makes.  Nothing is written but these copies, which have no name.
 */
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <mysql.h>

#include "verify/finding.h"

namespace kolmo
{

struct VerifyOptions {
    const char *responder_path = nullptr; /* null for responder_db_path */
    const char *handlers_path = nullptr;  /* null for handlers_db_path */
    std::vector<std::string> domains;     /* in either form; empty for all, and for the extra headers */
    int wait_seconds = 60;                /* for a store that somebody holds locked */
    bool check_owners = true;             /* whether owner and mode of the stores' files are looked at */
};

/* Who hears what; what is empty is not called.  Findings come as they are made, domain by domain as the
   rebuild walks them, what the stores have too much last. */
struct VerifySink {
    std::function<void(const Finding &)> finding;
    std::function<void(const std::string &)> trouble; /* what could not be read, or not be trusted */
    std::function<void(const std::string &)> note;    /* what one should know, but is no trouble */
    std::function<void(unsigned long done, unsigned long all)> progress; /* in mailboxes */
};

struct VerifySummary {
    unsigned long domains = 0;   /* with mail service, looked at */
    unsigned long mailboxes = 0; /* that answer */
    unsigned long aliases = 0;
    unsigned long rebuild = 0; /* findings by what mends them */
    unsigned long panel = 0;
    unsigned long manual = 0;
    unsigned long troubles = 0;

    [[nodiscard]] unsigned long findings() const { return rebuild + panel + manual; }
};

/*
 * Compares both stores with the panel.
 *
 * panel    an open connection, which stays the caller's; afterwards its character set is utf8mb4 and
 *          no transaction is open
 * summary  filled in any case
 * Returns 0 when all is as the panel says, 1 when there are findings, 2 when there was trouble: a store that
 * is missing, damaged, locked, in WAL mode, or of another owner, a table of the panel that cannot be read, a
 * domain of the options that the panel does not have.  What a store that cannot be trusted holds is not
 * judged; everything else is.  Reports through the sink only.  Memory that runs out is trouble, too, but
 * where libidn needs it: that ends the process with status 1.  No other exception leaves it but the sink's
 * own.
 */
[[nodiscard]] int verify_stores(MYSQL *panel, const VerifyOptions &options, const VerifySink &sink,
                                VerifySummary *summary);

} // namespace kolmo
