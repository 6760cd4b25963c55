#include "Platform/Pipe.h"

#include <windows.h>

namespace Platform {

PipeClient::~PipeClient() { Close(); }

int PipeClient::Open(const std::string& name, bool forWriting) {
    Close();
    const std::string path = "\\\\.\\pipe\\" + name;
    HANDLE h = CreateFileA(path.c_str(), forWriting ? GENERIC_WRITE : GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0,
                           nullptr);
    if (h == INVALID_HANDLE_VALUE) return static_cast<int>(GetLastError());
    handle_ = h;
    return 0;
}

bool PipeClient::IsValid() const { return handle_ != INVALID_HANDLE_VALUE; }

void PipeClient::Close() {
    if (handle_ != INVALID_HANDLE_VALUE) {
        CloseHandle(handle_);
        handle_ = INVALID_HANDLE_VALUE;
    }
}

PipeClient::Result PipeClient::Read(uint8_t* buffer, uint32_t count) {
    SetLastError(0);
    DWORD got = 0;
    if (ReadFile(handle_, buffer, count, &got, nullptr)) return {true, got, 0};
    const DWORD error = GetLastError();
    // A message-mode pipe delivering part of a longer message is a normal read here.
    if (error == ERROR_MORE_DATA) return {true, got, 0};
    return {false, got, static_cast<int>(error)};
}

PipeClient::Result PipeClient::Write(const uint8_t* data, uint32_t size) {
    SetLastError(0);
    DWORD written = 0;
    if (WriteFile(handle_, data, size, &written, nullptr)) return {true, written, 0};
    return {false, written, static_cast<int>(GetLastError())};
}

}  // namespace Platform
