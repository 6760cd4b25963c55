#include "Platform/SocketStartup.h"

#include <winsock2.h>

namespace Platform {

int StartSockets() {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data);
}

}  // namespace Platform
