#pragma once

namespace Platform {

// Starts the socket library for this process (WSAStartup on Windows; nothing on POSIX).
// 0 on success, else the error code.
int StartSockets();

}  // namespace Platform
