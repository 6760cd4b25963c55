// A stand-in ndisapi.dll for the wine stage: the exported C functions that the Windows
// backend loads, over two made-up adapters. It traces the calls into ndisapi-trace.txt in
// C:\ndfake (where the stage puts it) and feeds captured frames when the tunnel sends it a
// trigger frame, so the daemon's Windows driver path (LoadLibrary, exports, structures across
// the DLL boundary, the packet event, the capture and dispatch threads) runs end to end
// without a driver.
#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <tuple>

#include "Platform/NdisApiTypes.h"

namespace {

using namespace NdisApi;

struct FakeAdapter {
    const char* name;
    Handle handle;
    uint8_t mac[6];
};

// The second adapter carries the GUID that the wine scenarios start the VPN on.
const FakeAdapter kAdapters[] = {
    {"\\DEVICE\\{11111111-2222-3333-4444-555555555555}", 0x0000001200005678ull, {2, 0x11, 0x22, 0x33, 0x44, 0x55}},
    {"\\DEVICE\\{6B29FC40-CA47-1067-B31D-00DD010662DA}", 0x0000003400009ABCull, {2, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE}},
};

HANDLE const kDriver = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x4E44));

using Captured = std::tuple<Handle, uint32_t, std::string>;  // adapter, device flags, frame

std::mutex lock, traceLock;
std::deque<Captured> queue;
HANDLE packetEvent = nullptr;

void Trace(const char* format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    std::lock_guard guard(traceLock);
    if (FILE* f = std::fopen("C:\\ndfake\\ndisapi-trace.txt", "ab")) {
        std::fprintf(f, "%s\n", line);
        std::fclose(f);
    }
}

unsigned long long H(HANDLE h) { return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(h)); }

// What the adapter captures once the tunnel triggers it: a broadcast from the wire, a frame
// the stack sends to the supervisor, and a unicast from the wire for the adapter itself. Each
// is 60 bytes: this header (destination, source, EtherType), then a count up from the number.
const std::tuple<uint32_t, const char*, uint8_t> kCaptured[] = {
    {PACKET_FLAG_ON_RECEIVE, "\xFF\xFF\xFF\xFF\xFF\xFF\x02\xAA\xBB\xCC\xDD\xEE\x08\x06", 0x01},
    {PACKET_FLAG_ON_SEND, "\x02\x00\x00\x00\x00\x01\x02\xAA\xBB\xCC\xDD\xEE\x08\x00", 0xA0},
    {PACKET_FLAG_ON_RECEIVE, "\x02\xAA\xBB\xCC\xDD\xEE\x02\x77\x77\x77\x77\x77\x08\x00", 0x50},
};

void QueueCapturedFrames(Handle adapter) {
    std::lock_guard guard(lock);
    for (const auto& [flags, header, fill] : kCaptured) {
        std::string frame(header, 14);
        for (uint8_t i = 0; i < 46; ++i) frame.push_back(static_cast<char>(fill + i));
        queue.push_back({adapter, flags, frame});
    }
    if (packetEvent != nullptr) SetEvent(packetEvent);
}

// Every frame handed over is traced, an oversize one as well (its len= gives it away), and
// refused where a driver would refuse it.
BOOL TraceSend(const char* call, HANDLE driver, ETH_REQUEST* request) {
    if (driver != kDriver || request == nullptr || request->EthPacket == nullptr) return FALSE;
    const INTERMEDIATE_BUFFER& b = *request->EthPacket;
    const uint8_t* m = b.m_IBuffer;
    Trace("%s %016llx dst=%02x%02x%02x%02x%02x%02x src=%02x%02x%02x%02x%02x%02x len=%u", call, request->hAdapterHandle,
          m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7], m[8], m[9], m[10], m[11], b.m_Length);
    if (b.m_Length < 14 || b.m_Length > kMaxEtherFrame) return FALSE;
    // The trigger carries the local experimental EtherType.
    if ((m[12] << 8 | m[13]) == 0x88B5) QueueCapturedFrames(request->hAdapterHandle);
    return TRUE;
}

}  // namespace

extern "C" {

__declspec(dllexport) HANDLE WINAPI OpenFilterDriver(const char* name) {
    Trace("OpenFilterDriver %s", name != nullptr ? name : "(null)");
    return name != nullptr && std::strcmp(name, "NDISTQFD") == 0 ? kDriver : nullptr;
}

__declspec(dllexport) VOID WINAPI CloseFilterDriver(HANDLE driver) { Trace("CloseFilterDriver %llx", H(driver)); }

__declspec(dllexport) BOOL WINAPI IsDriverLoaded(HANDLE driver) { return driver == kDriver; }

__declspec(dllexport) BOOL WINAPI GetTcpipBoundAdaptersInfo(HANDLE driver, TCP_AdapterList* list) {
    if (driver != kDriver || list == nullptr) return FALSE;
    std::memset(list, 0, sizeof(*list));
    list->m_nAdapterCount = 2;
    for (uint32_t i = 0; i < 2; ++i) {
        std::strcpy(reinterpret_cast<char*>(list->m_szAdapterNameList[i]), kAdapters[i].name);
        list->m_nAdapterHandle[i] = kAdapters[i].handle;
        std::memcpy(list->m_czCurrentAddress[i], kAdapters[i].mac, 6);
        list->m_usMTU[i] = 1500;
    }
    return TRUE;
}

__declspec(dllexport) BOOL WINAPI SetAdapterMode(HANDLE driver, ADAPTER_MODE* mode) {
    if (driver != kDriver || mode == nullptr) return FALSE;
    Trace("SetAdapterMode %016llx %08x", mode->hAdapterHandle, mode->dwFlags);
    return TRUE;
}

__declspec(dllexport) BOOL WINAPI GetHwPacketFilter(HANDLE driver, HANDLE /*adapter*/, DWORD* filter) {
    if (driver != kDriver || filter == nullptr) return FALSE;
    *filter = 0x0B;  // what the stop must restore
    return TRUE;
}

__declspec(dllexport) BOOL WINAPI SetHwPacketFilter(HANDLE driver, HANDLE adapter, DWORD filter) {
    Trace("SetHwPacketFilter %016llx %08lx", H(adapter), filter);
    return driver == kDriver;
}

__declspec(dllexport) BOOL WINAPI SetPacketFilterTable(HANDLE driver, STATIC_FILTER_TABLE* table) {
    if (driver != kDriver || table == nullptr) return FALSE;
    const STATIC_FILTER& f = table->m_StaticFilters[0];
    Trace("SetPacketFilterTable size=%u adapter=%016llx direction=%u action=%u fields=%u", table->m_TableSize,
          static_cast<unsigned long long>(f.m_Adapter), f.m_dwDirectionFlags, f.m_FilterAction, f.m_ValidFields);
    return TRUE;
}

__declspec(dllexport) BOOL WINAPI SetPacketEvent(HANDLE driver, HANDLE adapter, HANDLE event) {
    Trace("SetPacketEvent %016llx %s", H(adapter), event != nullptr ? "set" : "null");
    if (driver != kDriver) return FALSE;
    std::lock_guard guard(lock);
    packetEvent = event;
    // The trigger may come before the capture thread registers its event; frames queued by
    // then are announced now, as new traffic would announce them on a real adapter.
    if (event != nullptr && !queue.empty()) SetEvent(event);
    return TRUE;
}

__declspec(dllexport) BOOL WINAPI ReadPacket(HANDLE driver, ETH_REQUEST* request) {
    if (driver != kDriver || request == nullptr || request->EthPacket == nullptr) return FALSE;
    std::lock_guard guard(lock);
    if (queue.empty() || std::get<0>(queue.front()) != request->hAdapterHandle) return FALSE;
    const auto [adapter, flags, frame] = queue.front();
    queue.pop_front();
    INTERMEDIATE_BUFFER& b = *request->EthPacket;
    b.m_dwDeviceFlags = flags;
    b.m_Length = static_cast<uint32_t>(frame.size());
    std::memcpy(b.m_IBuffer, frame.data(), frame.size());
    Trace("ReadPacket %016llx flags=%u len=%u", adapter, flags, b.m_Length);
    return TRUE;
}

__declspec(dllexport) BOOL WINAPI SendPacketToAdapter(HANDLE driver, ETH_REQUEST* request) {
    return TraceSend("SendPacketToAdapter", driver, request);
}

__declspec(dllexport) BOOL WINAPI SendPacketToMstcp(HANDLE driver, ETH_REQUEST* request) {
    return TraceSend("SendPacketToMstcp", driver, request);
}

__declspec(dllexport) BOOL WINAPI FlushAdapterPacketQueue(HANDLE driver, HANDLE adapter) {
    Trace("FlushAdapterPacketQueue %016llx", H(adapter));
    return driver == kDriver;
}

}  // extern "C"
