#pragma once
// The packet-filter driver's client structures, declared from their documented layouts.
// Every backend (Windows DLL, Linux kernel interception, in-memory) speaks in these.
#include <cstddef>
#include <cstdint>

namespace NdisApi {

using Handle = uint64_t;  // adapter handles and event handles (a HANDLE on Windows x64, an fd on Linux)

inline constexpr uint32_t kAdapterNameSize = 256;
inline constexpr uint32_t kAdapterListSize = 32;
inline constexpr uint32_t kEtherAddressLength = 6;
inline constexpr uint32_t kMaxEtherFrame = 1514;

// m_dwDeviceFlags of a captured frame.
inline constexpr uint32_t PACKET_FLAG_ON_SEND = 1;
inline constexpr uint32_t PACKET_FLAG_ON_RECEIVE = 2;

// ADAPTER_MODE flags.
inline constexpr uint32_t MSTCP_FLAG_SENT_TUNNEL = 0x01;
inline constexpr uint32_t MSTCP_FLAG_RECV_TUNNEL = 0x02;
inline constexpr uint32_t MSTCP_FLAG_LOOPBACK_BLOCK = 0x40;

inline constexpr uint32_t NDIS_PACKET_TYPE_PROMISCUOUS = 0x20;

// STATIC_FILTER values.
inline constexpr uint32_t PACKET_FLAG_ON_SEND_RECEIVE = 3;
inline constexpr uint32_t FILTER_PACKET_REDIRECT = 3;

#pragma pack(push, 1)

struct TCP_AdapterList {
    uint32_t m_nAdapterCount;
    uint8_t m_szAdapterNameList[kAdapterListSize][kAdapterNameSize];
    Handle m_nAdapterHandle[kAdapterListSize];
    uint32_t m_nAdapterMediumList[kAdapterListSize];
    uint8_t m_czCurrentAddress[kAdapterListSize][kEtherAddressLength];
    uint16_t m_usMTU[kAdapterListSize];
};

struct ADAPTER_MODE {
    Handle hAdapterHandle;
    uint32_t dwFlags;
};

struct LIST_ENTRY64 {
    uint64_t Flink;
    uint64_t Blink;
};

struct INTERMEDIATE_BUFFER {
    union {
        Handle m_hAdapter;
        LIST_ENTRY64 m_qLink;
    };
    uint32_t m_dwDeviceFlags;
    uint32_t m_Length;
    uint32_t m_Flags;
    uint32_t m_8021q;
    uint32_t m_FilterID;
    uint32_t m_Reserved[4];
    uint8_t m_IBuffer[kMaxEtherFrame];
};

struct ETH_REQUEST {
    Handle hAdapterHandle;
    INTERMEDIATE_BUFFER* EthPacket;
};

// One static filter. Only the header fields are used here; the layer-specific match
// block stays zero (m_ValidFields = 0 matches every packet).
struct STATIC_FILTER {
    uint64_t m_Adapter;
    uint32_t m_dwDirectionFlags;
    uint32_t m_FilterAction;
    uint32_t m_ValidFields;
    uint32_t m_LastReset;
    uint64_t m_PacketsIn;
    uint64_t m_BytesIn;
    uint64_t m_PacketsOut;
    uint64_t m_BytesOut;
    uint8_t m_LayerFilters[125];
};

struct STATIC_FILTER_TABLE {
    uint32_t m_TableSize;
    STATIC_FILTER m_StaticFilters[1];
};

#pragma pack(pop)

static_assert(sizeof(INTERMEDIATE_BUFFER) == 1566);
static_assert(offsetof(INTERMEDIATE_BUFFER, m_dwDeviceFlags) == 16);
static_assert(offsetof(INTERMEDIATE_BUFFER, m_Length) == 20);
static_assert(offsetof(INTERMEDIATE_BUFFER, m_IBuffer) == 52);
static_assert(sizeof(STATIC_FILTER) == 181);
static_assert(sizeof(STATIC_FILTER_TABLE) == 185);
static_assert(sizeof(ETH_REQUEST) == 16);
static_assert(sizeof(ADAPTER_MODE) == 12);

}  // namespace NdisApi
