#include "verify/finding.h"

namespace kolmo
{

#define FINDING_CODE(id, name, remedy, cause, help)                                                          \
    const FindingCode code_##id = {name, Remedy::remedy, cause, help};
#include "verify/finding_codes.inc"
#undef FINDING_CODE

std::span<const FindingCode *const> finding_codes()
{
    static const FindingCode *const codes[] = {
#define FINDING_CODE(id, name, remedy, cause, help) &code_##id,
#include "verify/finding_codes.inc"
#undef FINDING_CODE
    };

    return codes;
}

const char *remedy_name(Remedy remedy)
{
    static const char *const names[] = {"rebuild", "panel", "manual"};

    return names[static_cast<int>(remedy)];
}

const char *place_name(Place place)
{
    static const char *const names[] = {"panel", "responder", "handlers"};

    return names[static_cast<int>(place)];
}

} // namespace kolmo
