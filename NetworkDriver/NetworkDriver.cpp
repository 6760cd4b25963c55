#include "NetworkDriver/NetworkDriver.h"

#include "Logging/Logger.h"
#include "NetworkDriver/SessionSettings.h"
#include "Platform/Platform.h"

namespace NativeNetworkDriver {

namespace {
const std::string kHyphens(42, '-');
}

std::string NetworkDriver::GetVersionString() {
    const Platform::FileVersion v = Platform::QueryFileVersion();
    if (v.status == Platform::FileVersion::Status::HandleNotNull) {
        Log("verHandle is not NULL", LogLevel::Error);
        return {};
    }
    if (v.status != Platform::FileVersion::Status::Ok) return {};
    // The third number is the revision (the fourth field); the build number is left out.
    return std::to_string(v.major) + "." + std::to_string(v.minor) + "." + std::to_string(v.revision);
}

NetworkDriver::NetworkDriver() {
    const std::string startLine = "Network Driver " + GetVersionString() + " started.";
    Log(kHyphens, LogLevel::Info);
    Log(startLine, LogLevel::Info);
    Log(kHyphens, LogLevel::Info);

    publisher = std::make_unique<FilterDriversPublisher>();
    Log("FilterDriversPublisher created.", LogLevel::Debug);

    pipe = std::make_unique<PipeChannel>();
    pipe->Open();
    pipe->SetListener(this);
    if (pipe->IsConnected()) pipe->ReadLoop();
}

NetworkDriver::~NetworkDriver() {
    nat.reset();
    ics.reset();
    arpCache.reset();
    vpn.reset();
    publisher.reset();
    pipe.reset();
}

void NetworkDriver::OnVPNDataRead(const Nat::Frame& frame) {
    if (pipe) pipe->Send(kVpnFrame, frame);
}

void NetworkDriver::SendResult(uint32_t type, uint32_t result) {
    if (pipe) pipe->Send(type, EncodeResult(result));
}

void NetworkDriver::OnPipeDataRead(const PipeMessage& message) {
    switch (message.type) {
        case kInitializeConfiguration: OnInitializeConfiguration(message.payload); break;
        case kVpnFrame:
            if (vpn) vpn->SendFrame(message.payload);
            break;
        case kStartVPN: OnStartVPN(message.payload); break;
        case kAddSupervisorMACToVPN: OnAddSupervisorMAC(message.payload); break;
        case kRemoveSupervisorMACFromVPN: OnRemoveSupervisorMAC(message.payload); break;
        case kStopVPN: OnStopVPN(); break;
        case kStartICS: OnStartICS(message.payload); break;
        case kStopICS: OnStopICS(); break;
        case kStartNAT: OnStartNAT(message.payload); break;
        case kStopNAT: OnStopNAT(); break;
        default: Log("Unexpected case: OnPipeDataRead default case.", LogLevel::Debug); break;
    }
}

void NetworkDriver::OnInitializeConfiguration(const Bytes& payload) {
    const auto request = DecodeInitializeConfigurationRequest(payload);
    Log(ToLogLine(request), LogLevel::Info);
    if (publisher) publisher->SetHandleVirtualMachine(request.HandleVirtualMachine);
    SendResult(kInitializeConfiguration, publisher ? 1 : 0);
}

void NetworkDriver::OnStartVPN(const Bytes& payload) {
    const auto request = DecodeStartVPNRequest(payload);
    Log(ToLogLine(request), LogLevel::Info);
    if (vpn) {
        Log("VPN object already exists, deleting it before re-creating", LogLevel::Debug);
        vpn.reset();
    }
    std::set<std::string> guids;
    for (const auto& guid : request.guids) guids.insert(FormatGuid(guid));
    vpn = std::make_unique<VPN>(publisher.get());
    vpn->Open(guids);
    if (vpn->State() == VpnState::Opened) {
        vpn->AddSupervisorMAC({request.SupervisorMACAddress, request.VpnPromiscuousMode});
        vpn->SetReader(this);
    }
    SendResult(kStartVPN, static_cast<uint32_t>(vpn->State()));
}

void NetworkDriver::OnAddSupervisorMAC(const Bytes& payload) {
    const auto request = DecodeAddSupervisorMACToVPNRequest(payload);
    Log(ToLogLine(request), LogLevel::Info);
    if (vpn) vpn->AddSupervisorMAC({request.SupervisorMACAddress, request.VpnPromiscuousMode});
    SendResult(kAddSupervisorMACToVPN, 1);
}

void NetworkDriver::OnRemoveSupervisorMAC(const Bytes& payload) {
    const auto request = DecodeRemoveSupervisorMACFromVPNRequest(payload);
    Log(ToLogLine(request), LogLevel::Info);
    if (vpn) vpn->RemoveSupervisorMAC(request.SupervisorMACAddress);
    SendResult(kRemoveSupervisorMACFromVPN, 1);
}

void NetworkDriver::OnStopVPN() {
    Log("Received StopVPNRequest message", LogLevel::Info);
    vpn.reset();
    if (pipe) pipe->Send(kStopVPN);
}

void NetworkDriver::OnStartICS(const Bytes& payload) {
    const auto request = DecodeStartICSRequest(payload);
    Log(ToLogLine(request), LogLevel::Info);
    if (ics) {
        Log("ICS object already exists, deleting it before re-creating", LogLevel::Debug);
        ics.reset();
    }
    if (!arpCache) arpCache = std::make_unique<ArpCache>(publisher.get());
    ics = std::make_unique<ICS>(publisher.get(), arpCache.get(), ToIcsSettings(request));
    SendResult(kStartICS, ics ? ics->Status() : 0);
}

void NetworkDriver::OnStartNAT(const Bytes& payload) {
    const auto request = DecodeStartNATRequest(payload);
    Log(ToLogLine(request), LogLevel::Info);
    if (nat) {
        Log("NAT object already exists, deleting it before re-creating", LogLevel::Debug);
        nat.reset();
    }
    if (!arpCache) arpCache = std::make_unique<ArpCache>(publisher.get());
    nat = std::make_unique<NAT>(publisher.get(), arpCache.get(), ToNatSettings(request));
    SendResult(kStartNAT, nat ? nat->Status() : 0);
}

void NetworkDriver::ReleaseArpCacheIfUnused() {
    if (arpCache && !ics && !nat) arpCache.reset();
}

void NetworkDriver::OnStopICS() {
    Log("Received StopICSRequest message", LogLevel::Info);
    ics.reset();
    ReleaseArpCacheIfUnused();
    if (pipe) pipe->Send(kStopICS);
}

void NetworkDriver::OnStopNAT() {
    Log("Received StopNATRequest message", LogLevel::Info);
    nat.reset();
    ReleaseArpCacheIfUnused();
    if (pipe) pipe->Send(kStopNAT);
}

}  // namespace NativeNetworkDriver
