// A pipe server whose process is gone: it creates the two pipes of the native side, hands
// their handles to a child and exits, so GetNamedPipeServerProcessId names a process that
// no longer exists. The daemon must refuse such a server (it cannot be identified).
#include <windows.h>

#include <cstdio>
#include <cstdlib>

namespace {

HANDLE CreatePipe(const char* name, SECURITY_ATTRIBUTES* inherit) {
    return CreateNamedPipeA(name, PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, 1, 65536, 65536,
                            0, inherit);
}

DWORD WINAPI Watchdog(void*) {
    Sleep(30000);
    ExitProcess(1);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3) {  // the child: keeps the pipes open until the daemon came and went
        CreateThread(nullptr, 0, Watchdog, nullptr, 0, nullptr);
        HANDLE toNative = reinterpret_cast<HANDLE>(std::strtoull(argv[1], nullptr, 10));
        ConnectNamedPipe(toNative, nullptr);
        char byte;
        DWORD got = 0;
        ReadFile(toNative, &byte, 1, &got, nullptr);  // returns when the daemon closes its end
        return 0;
    }
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    HANDLE toNative = CreatePipe("\\\\.\\pipe\\TessarilNetworkDriverToNative", &inherit);
    HANDLE fromNative = CreatePipe("\\\\.\\pipe\\TessarilNetworkDriverFromNative", &inherit);
    if (toNative == INVALID_HANDLE_VALUE || fromNative == INVALID_HANDLE_VALUE) return 2;
    char self[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, self, MAX_PATH);
    char command[MAX_PATH + 64];
    std::snprintf(command, sizeof(command), "\"%s\" %llu %llu", self,
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(toNative)),
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(fromNative)));
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child{};
    return CreateProcessA(nullptr, command, nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &child) ? 0 : 3;
}
