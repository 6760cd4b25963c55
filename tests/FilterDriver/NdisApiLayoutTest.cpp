// The driver structures cross into the driver's DLL as raw memory: every size and offset
// must match the published layout byte for byte.
#include <gtest/gtest.h>

#include <cstddef>

#include "FilterDriver/NdisApiTypes.h"

using namespace NdisApi;

TEST(NdisApiLayout, IntermediateBufferHoldsOneFrameAfterA52ByteHeader) {
    EXPECT_EQ(sizeof(INTERMEDIATE_BUFFER), 1566u);
    EXPECT_EQ(offsetof(INTERMEDIATE_BUFFER, m_hAdapter), 0u);
    EXPECT_EQ(offsetof(INTERMEDIATE_BUFFER, m_qLink), 0u);
    EXPECT_EQ(offsetof(INTERMEDIATE_BUFFER, m_dwDeviceFlags), 16u);
    EXPECT_EQ(offsetof(INTERMEDIATE_BUFFER, m_Length), 20u);
    EXPECT_EQ(offsetof(INTERMEDIATE_BUFFER, m_Flags), 24u);
    EXPECT_EQ(offsetof(INTERMEDIATE_BUFFER, m_8021q), 28u);
    EXPECT_EQ(offsetof(INTERMEDIATE_BUFFER, m_FilterID), 32u);
    EXPECT_EQ(offsetof(INTERMEDIATE_BUFFER, m_Reserved), 36u);
    EXPECT_EQ(offsetof(INTERMEDIATE_BUFFER, m_IBuffer), 52u);
    EXPECT_EQ(sizeof(INTERMEDIATE_BUFFER::m_IBuffer), 1514u);
}

TEST(NdisApiLayout, StaticFilterTableWithOneFilterIs185Bytes) {
    EXPECT_EQ(sizeof(STATIC_FILTER_TABLE), 185u);
    EXPECT_EQ(offsetof(STATIC_FILTER_TABLE, m_TableSize), 0u);
    EXPECT_EQ(offsetof(STATIC_FILTER_TABLE, m_StaticFilters), 4u);
    EXPECT_EQ(sizeof(STATIC_FILTER), 181u);
    EXPECT_EQ(offsetof(STATIC_FILTER, m_Adapter), 0u);
    EXPECT_EQ(offsetof(STATIC_FILTER, m_dwDirectionFlags), 8u);
    EXPECT_EQ(offsetof(STATIC_FILTER, m_FilterAction), 12u);
    EXPECT_EQ(offsetof(STATIC_FILTER, m_ValidFields), 16u);
    EXPECT_EQ(offsetof(STATIC_FILTER, m_LastReset), 20u);
    EXPECT_EQ(offsetof(STATIC_FILTER, m_PacketsIn), 24u);
    EXPECT_EQ(offsetof(STATIC_FILTER, m_BytesOut), 48u);
    EXPECT_EQ(offsetof(STATIC_FILTER, m_LayerFilters), 56u);
}

TEST(NdisApiLayout, AdapterListIsParallelArraysOf32) {
    // Count, then per adapter: 256-byte name, 64-bit handle, medium, 6-byte MAC, MTU.
    EXPECT_EQ(offsetof(TCP_AdapterList, m_nAdapterCount), 0u);
    EXPECT_EQ(offsetof(TCP_AdapterList, m_szAdapterNameList), 4u);
    EXPECT_EQ(offsetof(TCP_AdapterList, m_nAdapterHandle), 4u + 32u * 256u);
    EXPECT_EQ(offsetof(TCP_AdapterList, m_nAdapterMediumList), 4u + 32u * 256u + 32u * 8u);
    EXPECT_EQ(offsetof(TCP_AdapterList, m_czCurrentAddress), 4u + 32u * 256u + 32u * 8u + 32u * 4u);
    EXPECT_EQ(offsetof(TCP_AdapterList, m_usMTU), 4u + 32u * 256u + 32u * 8u + 32u * 4u + 32u * 6u);
    EXPECT_EQ(sizeof(TCP_AdapterList), 4u + 32u * (256u + 8u + 4u + 6u + 2u));
    EXPECT_EQ(sizeof(TCP_AdapterList::m_szAdapterNameList[0]), 256u);
    EXPECT_EQ(sizeof(TCP_AdapterList::m_czCurrentAddress[0]), 6u);
}

TEST(NdisApiLayout, RequestAndModeArePacked) {
    EXPECT_EQ(sizeof(ETH_REQUEST), 16u);
    EXPECT_EQ(offsetof(ETH_REQUEST, hAdapterHandle), 0u);
    EXPECT_EQ(offsetof(ETH_REQUEST, EthPacket), 8u);
    EXPECT_EQ(sizeof(ADAPTER_MODE), 12u);
    EXPECT_EQ(offsetof(ADAPTER_MODE, hAdapterHandle), 0u);
    EXPECT_EQ(offsetof(ADAPTER_MODE, dwFlags), 8u);
}

TEST(NdisApiLayout, FlagValuesAreTheDriversOwn) {
    EXPECT_EQ(MSTCP_FLAG_SENT_TUNNEL | MSTCP_FLAG_RECV_TUNNEL | MSTCP_FLAG_LOOPBACK_BLOCK, 0x43u);
    EXPECT_EQ(NDIS_PACKET_TYPE_PROMISCUOUS, 0x20u);
    EXPECT_EQ(PACKET_FLAG_ON_SEND, 1u);
    EXPECT_EQ(PACKET_FLAG_ON_RECEIVE, 2u);
    EXPECT_EQ(PACKET_FLAG_ON_SEND_RECEIVE, 3u);
    EXPECT_EQ(FILTER_PACKET_REDIRECT, 3u);
}
