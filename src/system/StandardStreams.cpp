#include "system/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

namespace velquin {

void holdClosedStandardStreams() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) != -1) continue;
        const int held = ::open("/dev/null", O_RDONLY);
        if (held >= 0 && held != fd) {
            ::dup2(held, fd);
            ::close(held);
        }
    }
}

}  // namespace velquin
