#include "Platform/SocketStartup.h"

namespace Platform {

int StartSockets() { return 0; }

}  // namespace Platform
