#include "Socket.h"

#include <winsock2.h>

namespace QMNet {

int CloseSocket(curl_socket_t socket)
{
    return ::closesocket(socket);
}

} // namespace QMNet
