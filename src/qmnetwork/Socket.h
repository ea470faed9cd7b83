#pragma once

#include <curl/curl.h>

namespace QMNet {

/// Closes a socket curl handed over through CURLOPT_CLOSESOCKETFUNCTION; 0 on success.
int CloseSocket(curl_socket_t socket);

} // namespace QMNet
