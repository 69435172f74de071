/*
 * standard_streams: descriptors 0 to 2, which a service manager may leave closed.
 */
#pragma once

namespace kolmo
{

/*
 * Opens /dev/null in the place of each standard stream that is closed; call it first of all.
 *
 * A free descriptor below 3 would be given to the database's socket or to a pipe, and everything that is
 * printed would go there.
 */
void occupy_standard_streams();

} // namespace kolmo
