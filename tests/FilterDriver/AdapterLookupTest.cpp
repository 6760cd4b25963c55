// The adapter wrapper's lookup of an adapter by its GUID text in the driver's adapter list.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "FilterDriver/FilterDriverApiAdapter.h"
#include "Platform/NdisApiTypes.h"

using namespace NdisApi;

namespace {

// A driver client whose only real call is the adapter list, filled byte by byte as the
// driver fills it; events are numbered so that their creation and closing can be followed.
class AdapterListApi : public NativeNetworkDriver::IFilterDriverApi {
public:
    AdapterListApi() : list(std::make_unique<TCP_AdapterList>()) { std::memset(list.get(), 0, sizeof(*list)); }

    void Add(const char* name, Handle handle, uint8_t macTail) {
        const uint32_t i = list->m_nAdapterCount++;
        std::strncpy(reinterpret_cast<char*>(list->m_szAdapterNameList[i]), name, kAdapterNameSize);
        list->m_nAdapterHandle[i] = handle;
        const uint8_t mac[6] = {0x02, 0, 0, 0, 0, macTail};
        std::memcpy(list->m_czCurrentAddress[i], mac, 6);
    }

    bool GetTcpipBoundAdaptersInfo(TCP_AdapterList* out) override {
        if (!listAvailable) return false;
        std::memcpy(out, list.get(), sizeof(*out));
        return true;
    }
    Handle CreateAdapterEvent(Handle) override { return nextEvent++; }
    void CloseAdapterEvent(Handle adapter, Handle event) override { closed.emplace_back(adapter, event); }

    bool IsDriverLoaded() override { return true; }
    bool SetAdapterMode(const ADAPTER_MODE*) override { return false; }
    bool GetHwPacketFilter(Handle, uint32_t*) override { return false; }
    bool SetHwPacketFilter(Handle, uint32_t) override { return false; }
    bool SetPacketFilterTable(const STATIC_FILTER_TABLE*) override { return false; }
    bool SetPacketEvent(Handle, Handle) override { return true; }
    bool ReadPacket(ETH_REQUEST*) override { return false; }
    bool SendPacketToAdapter(const ETH_REQUEST*) override { return false; }
    bool SendPacketToMstcp(const ETH_REQUEST*) override { return false; }
    bool FlushAdapterPacketQueue(Handle) override { return false; }

    std::unique_ptr<TCP_AdapterList> list;
    bool listAvailable = true;
    Handle nextEvent = 100;
    std::vector<std::pair<Handle, Handle>> closed;
};

const char* const kGuid = "{6B29FC40-CA47-1067-B31D-00DD010662DA}";

}  // namespace

TEST(FindAdapterHandle, TheFirstNameContainingTheGuidTextWins) {
    auto api = std::make_unique<AdapterListApi>();
    AdapterListApi& list = *api;
    const Handle found = 0x0000003400009ABCull;
    list.Add("\\DEVICE\\{11111111-2222-3333-4444-555555555555}", 0x11, 1);
    list.Add("\\DEVICE\\{6b29fc40-ca47-1067-b31d-00dd010662da}", 0x22, 2);  // other case: no match
    list.Add("\\DEVICE\\{6B29FC40-CA47-1067-B31D-00DD010662DA}_NDISWANIP", found, 3);
    list.Add("\\DEVICE\\{6B29FC40-CA47-1067-B31D-00DD010662DA}", 0x44, 4);
    FilterDriverApiAdapter adapter(std::move(api));

    std::vector<uint8_t> mac;
    EXPECT_EQ(adapter.FindAdapterHandle(kGuid, &mac), found);
    EXPECT_EQ(mac, (std::vector<uint8_t>{0x02, 0, 0, 0, 0, 3}));
    EXPECT_EQ(adapter.AdapterEvent(found), 100u);
    EXPECT_EQ(adapter.AdapterEvent(0x44), 0u);
    // A second lookup gives the adapter a new event and closes the old one.
    EXPECT_EQ(adapter.FindAdapterHandle(kGuid, nullptr), found);
    EXPECT_EQ(adapter.AdapterEvent(found), 101u);
    adapter.ReleaseAdapterEvent(found);
    EXPECT_EQ(adapter.AdapterEvent(found), 0u);
    EXPECT_EQ(list.closed, (std::vector<std::pair<Handle, Handle>>{{found, 100}, {found, 101}}));

    std::vector<uint8_t> untouched(6, 0xEE);
    EXPECT_EQ(adapter.FindAdapterHandle("{6B29FC40-CA47-1067-B31D-00DD010662DB}", &untouched), 0u);
    EXPECT_EQ(untouched, std::vector<uint8_t>(6, 0xEE));
    EXPECT_EQ(adapter.FindAdapterHandle("", nullptr), 0x11u);  // the empty text is in every name
    list.listAvailable = false;
    EXPECT_EQ(adapter.FindAdapterHandle("{11111111-2222-3333-4444-555555555555}", nullptr), 0u);
    EXPECT_EQ(FilterDriverApiAdapter(nullptr).FindAdapterHandle(kGuid, nullptr), 0u);
}

TEST(FindAdapterHandle, TheListIsReadWithinItsBounds) {
    auto api = std::make_unique<AdapterListApi>();
    AdapterListApi& list = *api;
    for (uint32_t i = 0; i < kAdapterListSize; ++i) list.Add("\\DEVICE\\{00000000-0000-0000-0000-000000000000}", 0x100 + i, 0);
    // The last name fills all 256 bytes with no terminator, and the count claims more than 32.
    std::memset(list.list->m_szAdapterNameList[kAdapterListSize - 1], 'A', kAdapterNameSize);
    std::memcpy(list.list->m_szAdapterNameList[kAdapterListSize - 1] + kAdapterNameSize - 4, "GUID", 4);
    list.list->m_nAdapterCount = 1000;
    FilterDriverApiAdapter adapter(std::move(api));
    EXPECT_EQ(adapter.FindAdapterHandle("AGUID", nullptr), 0x100u + kAdapterListSize - 1);
    EXPECT_EQ(adapter.FindAdapterHandle("GUIDX", nullptr), 0u);
}
