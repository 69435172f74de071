/*
 * responder_schema: the responder store's tables as the stand-in for the panel's utility declares them
 * (tools/stand-in/mail_responders_control).  The columns and their order are binding, the keys are not.
 */
#pragma once

namespace kolmo::testing
{

constexpr char responder_schema[] = R"(
BEGIN;
CREATE TABLE autoresponder (
    mn TEXT NOT NULL UNIQUE,
    keystr TEXT,
    key_where TEXT,
    subject TEXT,
    reply_to TEXT,
    forward_to TEXT,
    content_type TEXT,
    charset TEXT,
    body TEXT,
    ans_freq INTEGER,
    ans_limit INTEGER,
    real_owner TEXT
);
CREATE TABLE attachments (mn TEXT NOT NULL, filename TEXT NOT NULL, UNIQUE (mn, filename));
CREATE TABLE extra_headers (name TEXT NOT NULL UNIQUE, value TEXT);
COMMIT;
)";

} // namespace kolmo::testing
