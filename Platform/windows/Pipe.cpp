#include "Platform/Pipe.h"

#include <windows.h>
#include <sddl.h>

#include <vector>

#include "Platform/PipeTrust.h"

namespace Platform {

namespace {

std::string SidText(PSID sid) {
    LPSTR text = nullptr;
    if (sid == nullptr || !ConvertSidToStringSidA(sid, &text)) return {};
    std::string result(text);
    LocalFree(text);
    return result;
}

std::vector<BYTE> TokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS kind) {
    DWORD size = 0;
    GetTokenInformation(token, kind, nullptr, 0, &size);
    std::vector<BYTE> data(size);
    if (size == 0 || !GetTokenInformation(token, kind, data.data(), size, &size)) data.clear();
    return data;
}

std::string TokenUserSid(HANDLE token) {
    const auto user = TokenInformation(token, TokenUser);
    return user.empty() ? std::string() : SidText(reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid);
}

std::string ErrorText(const char* what, DWORD error) { return std::string(what) + ", error code: " + std::to_string(error); }

// The user and groups of the process that serves the pipe, judged by PipeServerDistrust.
std::string ServerRefusal(HANDLE pipe) {
    ULONG pid = 0;
    if (!GetNamedPipeServerProcessId(pipe, &pid)) return ErrorText("server process unknown", GetLastError());
    HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
    if (process == nullptr) return ErrorText("server process cannot be opened", GetLastError());
    HANDLE token = nullptr;
    const BOOL opened = OpenProcessToken(process, TOKEN_QUERY, &token);
    const DWORD openError = GetLastError();
    CloseHandle(process);
    if (!opened) return ErrorText("server token cannot be read", openError);
    PipeServerToken server;
    server.userSid = TokenUserSid(token);
    const auto groups = TokenInformation(token, TokenGroups);
    if (!groups.empty()) {
        const auto* list = reinterpret_cast<const TOKEN_GROUPS*>(groups.data());
        for (DWORD i = 0; i < list->GroupCount; ++i)
            server.groups.push_back({SidText(list->Groups[i].Sid), static_cast<uint32_t>(list->Groups[i].Attributes)});
    }
    CloseHandle(token);

    std::string ownSid;
    HANDLE own = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &own)) {
        ownSid = TokenUserSid(own);
        CloseHandle(own);
    }
    return PipeServerDistrust(server, ownSid);
}

}  // namespace

PipeClient::~PipeClient() { Close(); }

PipeClient::OpenResult PipeClient::Open(const std::string& name, bool forWriting) {
    Close();
    OpenResult result;
    result.path = "\\\\.\\pipe\\" + name;
    // Identification only: the pipe's server may learn who we are but never act as us.
    HANDLE h = CreateFileA(result.path.c_str(), forWriting ? GENERIC_WRITE : GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                           SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
        result.error = static_cast<int>(GetLastError());
        return result;
    }
    result.refusal = ServerRefusal(h);
    if (!result.refusal.empty()) {
        CloseHandle(h);
        return result;
    }
    handle_ = h;
    return result;
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
