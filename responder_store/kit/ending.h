/*
 * ending: how an operation on a store, or a step of one, came to its end.
 */
#ifndef KOLMO_RESPONDER_STORE_KIT_ENDING_H
#define KOLMO_RESPONDER_STORE_KIT_ENDING_H

namespace kolmo
{

enum class Ending {
    done,
    failed,    /* reported, the connection perhaps closed */
    abandoned, /* a pause failed: nothing was logged, and nothing may be touched again */
};

/* What callers outside the kit see of it: 0, or -1 for either failure. */
[[nodiscard]] constexpr int to_result(Ending ending)
{
    return ending == Ending::done ? 0 : -1;
}

} // namespace kolmo

#endif
