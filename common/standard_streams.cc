#include "common/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

namespace kolmo
{

void occupy_standard_streams()
{
    int fd;

    do
        fd = ::open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        (void)::close(fd);
}

} // namespace kolmo
