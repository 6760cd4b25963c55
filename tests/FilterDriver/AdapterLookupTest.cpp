// The adapter wrapper's lookup of an adapter by its GUID text in the driver's adapter list.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "FilterDriver/FilterDriverApiAdapter.h"
#include "support/InMemoryFilterDriverApi.h"

using namespace NdisApi;
using NativeNetworkDriver::Testing::InMemoryNetwork;

namespace {

class FindAdapterHandle : public ::testing::Test {
protected:
    std::shared_ptr<InMemoryNetwork> network = InMemoryNetwork::Create();
    InMemoryNetwork::FactoryGuard guard = network->Install();
};

const std::string kGuid = "{6B29FC40-CA47-1067-B31D-00DD010662DA}";

}  // namespace

TEST_F(FindAdapterHandle, TheFirstNameContainingTheGuidTextWins) {
    network->AddAdapter("{11111111-2222-3333-4444-555555555555}", {2, 0, 0, 0, 0, 1}, 0x11);
    network->AddAdapter("{6b29fc40-ca47-1067-b31d-00dd010662da}", {2, 0, 0, 0, 0, 2});  // other case: no match
    const Handle found = network->AddAdapter(kGuid + "_NDISWANIP", {2, 0, 0, 0, 0, 3}, 0x0000003400009ABCull);
    network->AddAdapter(kGuid, {2, 0, 0, 0, 0, 4});
    FilterDriverApiAdapter adapter(NativeNetworkDriver::CreateFilterDriverApi());

    std::vector<uint8_t> mac;
    EXPECT_EQ(adapter.FindAdapterHandle(kGuid, &mac), found);
    EXPECT_EQ(mac, (std::vector<uint8_t>{0x02, 0, 0, 0, 0, 3}));
    EXPECT_NE(adapter.AdapterEvent(found), 0u);
    EXPECT_EQ(adapter.AdapterEvent(0x11), 0u);
    // A second lookup gives the adapter a new event and closes the old one.
    EXPECT_EQ(adapter.FindAdapterHandle(kGuid, nullptr), found);
    EXPECT_NE(adapter.AdapterEvent(found), 0u);
    EXPECT_EQ(network->openEvents, 1);
    adapter.ReleaseAdapterEvent(found);
    EXPECT_EQ(adapter.AdapterEvent(found), 0u);
    EXPECT_EQ(network->openEvents, 0);

    std::vector<uint8_t> untouched(6, 0xEE);
    EXPECT_EQ(adapter.FindAdapterHandle("{6B29FC40-CA47-1067-B31D-00DD010662DB}", &untouched), 0u);
    EXPECT_EQ(untouched, std::vector<uint8_t>(6, 0xEE));
    EXPECT_EQ(adapter.FindAdapterHandle("", nullptr), 0x11u);  // the empty text is in every name
    network->failing = InMemoryNetwork::Call::GetTcpipBoundAdaptersInfo;
    EXPECT_EQ(adapter.FindAdapterHandle("{11111111-2222-3333-4444-555555555555}", nullptr), 0u);
    EXPECT_EQ(FilterDriverApiAdapter(nullptr).FindAdapterHandle(kGuid, nullptr), 0u);
}

TEST_F(FindAdapterHandle, TheListIsReadWithinItsBoundsAndItsEventsCloseWithIt) {
    for (uint32_t i = 0; i < kAdapterListSize; ++i) network->AddAdapter(std::to_string(i), {}, 0x100 + i);
    // The last name fills all 256 bytes with no terminator, and the count claims more than 32.
    network->editList = [](TCP_AdapterList& list) {
        std::memset(list.m_szAdapterNameList[kAdapterListSize - 1], 'A', kAdapterNameSize);
        std::memcpy(list.m_szAdapterNameList[kAdapterListSize - 1] + kAdapterNameSize - 4, "GUID", 4);
        list.m_nAdapterCount = 1000;
    };
    {
        FilterDriverApiAdapter adapter(NativeNetworkDriver::CreateFilterDriverApi());
        EXPECT_EQ(adapter.FindAdapterHandle("AGUID", nullptr), 0x100u + kAdapterListSize - 1);
        EXPECT_EQ(adapter.FindAdapterHandle("GUIDX", nullptr), 0u);
        EXPECT_EQ(network->openEvents, 1);
    }
    EXPECT_EQ(network->openEvents, 0);
}
