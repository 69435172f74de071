/*
 * finding: one difference between the panel and the stores, or one thing that would become one.
 */
#pragma once

#include <optional>
#include <span>
#include <string>

namespace kolmo
{

/* What mends a finding: a run of the rebuild, a change in the panel, or a command by hand. */
enum class Remedy { rebuild, panel, manual };

/* Where a finding was made. */
enum class Place { panel, responder, handlers };

/* One kind of finding; every code is a row of finding_codes.inc. */
struct FindingCode {
    const char *name; /* as it is printed; stable */
    Remedy remedy;    /* unless a limit of the rebuild is behind the finding: then the limit's */
    const char *cause;
    const char *help;
};

#define FINDING_CODE(id, name, remedy, cause, help) extern const FindingCode code_##id;
#include "verify/finding_codes.inc"
#undef FINDING_CODE

/* All codes, in the order of finding_codes.inc. */
[[nodiscard]] std::span<const FindingCode *const> finding_codes();

/* "rebuild", "panel" or "manual"; "panel", "responder" or "handlers". */
[[nodiscard]] const char *remedy_name(Remedy remedy);
[[nodiscard]] const char *place_name(Place place);

/* The part of a handler's key beside its name and address, as text; nothing stands for NULL. */
struct HandlerKind {
    std::optional<std::string> queue;
    std::optional<std::string> type;
    bool has_blob = false; /* its address is one: another row's may have the same bytes as a text */
};

/* What does not apply is empty. */
struct Finding {
    const FindingCode *code = nullptr;
    const FindingCode *limit = nullptr; /* the limit of the rebuild that is behind it */
    Place place = Place::panel;
    Remedy remedy = Remedy::rebuild;
    std::string domain = {};
    std::string address = {}; /* the key as the store has it or should have it; an extra header's name */
    std::string column = {};
    std::optional<std::string> expected = {}; /* of an attachment the file's name */
    std::optional<std::string> found = {};
    std::string help = {};
    HandlerKind handler = {}; /* of handler-stale: which of the address's handlers */
    std::string command = {}; /* for the shell, when there is one that mends exactly this */
};

} // namespace kolmo
