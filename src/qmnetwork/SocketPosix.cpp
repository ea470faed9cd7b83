#include "Socket.h"

#include <unistd.h>

namespace QMNet {

int CloseSocket(curl_socket_t socket)
{
    return ::close(socket);
}

} // namespace QMNet
