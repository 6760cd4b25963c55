#include "Platform/posix/BpfTunnel.h"

#include <linux/bpf.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace Platform::Bpf {
namespace {

// tcx verdicts.
constexpr int32_t kTcxPass = 0;
constexpr int32_t kTcxDrop = 2;

// tcx attachment goes in front of any program already on the hook.
constexpr uint32_t kAttachBefore = 1u << 3;

constexpr int16_t kMarkOffset = offsetof(__sk_buff, mark);
constexpr int16_t kIfindexOffset = offsetof(__sk_buff, ifindex);

// Instruction encoders (struct bpf_insn: code, dst:4/src:4, off, imm).
constexpr bpf_insn Insn(uint8_t code, uint8_t dst, uint8_t src, int16_t off, int32_t imm) {
    bpf_insn insn{};
    insn.code = code;
    insn.dst_reg = dst & 0x0F;
    insn.src_reg = src & 0x0F;
    insn.off = off;
    insn.imm = imm;
    return insn;
}
constexpr bpf_insn MovImm(uint8_t dst, int32_t imm) { return Insn(BPF_ALU64 | BPF_MOV | BPF_K, dst, 0, 0, imm); }
constexpr bpf_insn MovReg(uint8_t dst, uint8_t src) { return Insn(BPF_ALU64 | BPF_MOV | BPF_X, dst, src, 0, 0); }
constexpr bpf_insn LoadWord(uint8_t dst, uint8_t src, int16_t off) {
    return Insn(BPF_LDX | BPF_MEM | BPF_W, dst, src, off, 0);
}
constexpr bpf_insn StoreWord(uint8_t dst, int16_t off, uint8_t src) {
    return Insn(BPF_STX | BPF_MEM | BPF_W, dst, src, off, 0);
}
constexpr bpf_insn JumpEq(uint8_t dst, int32_t imm, int16_t off) { return Insn(BPF_JMP | BPF_JEQ | BPF_K, dst, 0, off, imm); }
constexpr bpf_insn JumpNe(uint8_t dst, int32_t imm, int16_t off) { return Insn(BPF_JMP | BPF_JNE | BPF_K, dst, 0, off, imm); }
constexpr bpf_insn Call(int32_t helper) { return Insn(BPF_JMP | BPF_CALL, 0, 0, 0, helper); }
constexpr bpf_insn Exit() { return Insn(BPF_JMP | BPF_EXIT, 0, 0, 0, 0); }

constexpr int32_t Imm(uint32_t v) { return static_cast<int32_t>(v); }

// egress: the daemon's wire frames pass (mark cleared so it does not travel on); its
// stack frames and everything the stack sends are turned round to this interface's
// ingress, the latter marked so the stack-side capture socket takes them.
constexpr bpf_insn kEgressProgram[] = {
    /* 0 */ MovReg(BPF_REG_6, BPF_REG_1),
    /* 1 */ LoadWord(BPF_REG_2, BPF_REG_1, kMarkOffset),
    /* 2 */ JumpEq(BPF_REG_2, Imm(kMarkToWire), 7),  // -> 10
    /* 3 */ JumpEq(BPF_REG_2, Imm(kMarkToStack), 2),  // -> 6
    /* 4 */ MovImm(BPF_REG_3, Imm(kMarkFromStack)),
    /* 5 */ StoreWord(BPF_REG_6, kMarkOffset, BPF_REG_3),
    /* 6 */ LoadWord(BPF_REG_1, BPF_REG_6, kIfindexOffset),
    /* 7 */ MovImm(BPF_REG_2, static_cast<int32_t>(BPF_F_INGRESS)),
    /* 8 */ Call(BPF_FUNC_redirect),
    /* 9 */ Exit(),
    /* 10 */ MovImm(BPF_REG_3, 0),
    /* 11 */ StoreWord(BPF_REG_6, kMarkOffset, BPF_REG_3),
    /* 12 */ MovImm(BPF_REG_0, kTcxPass),
    /* 13 */ Exit(),
};

// ingress: only frames the daemon sends up reach the stack; the wire's frames were
// already taken by the capture socket and the stack's own were turned round by egress.
constexpr bpf_insn kIngressProgram[] = {
    /* 0 */ LoadWord(BPF_REG_2, BPF_REG_1, kMarkOffset),
    /* 1 */ JumpNe(BPF_REG_2, Imm(kMarkToStack), 4),  // -> 6
    /* 2 */ MovImm(BPF_REG_3, 0),
    /* 3 */ StoreWord(BPF_REG_1, kMarkOffset, BPF_REG_3),
    /* 4 */ MovImm(BPF_REG_0, kTcxPass),
    /* 5 */ Exit(),
    /* 6 */ MovImm(BPF_REG_0, kTcxDrop),
    /* 7 */ Exit(),
};

long BpfCall(int command, void* attr, size_t size) { return syscall(__NR_bpf, command, attr, size); }

Fd LoadProgram(const bpf_insn* insns, size_t count, const char* name, int& errorCode, std::string& log) {
    static const char kLicense[] = "Dual MIT/GPL";
    char logBuffer[4096];
    logBuffer[0] = '\0';
    bpf_attr attr;
    std::memset(&attr, 0, sizeof(attr));
    attr.prog_type = BPF_PROG_TYPE_SCHED_CLS;
    attr.insn_cnt = static_cast<uint32_t>(count);
    attr.insns = reinterpret_cast<uintptr_t>(insns);
    attr.license = reinterpret_cast<uintptr_t>(kLicense);
    std::strncpy(attr.prog_name, name, sizeof(attr.prog_name) - 1);
    long fd = BpfCall(BPF_PROG_LOAD, &attr, sizeof(attr));
    if (fd < 0 && errno != EPERM) {
        // Load again with the verifier's log to say why.
        const int firstError = errno;
        attr.log_level = 1;
        attr.log_buf = reinterpret_cast<uintptr_t>(logBuffer);
        attr.log_size = sizeof(logBuffer);
        fd = BpfCall(BPF_PROG_LOAD, &attr, sizeof(attr));
        if (fd < 0) errno = firstError;
    }
    if (fd < 0) {
        errorCode = errno;
        log = logBuffer;
        return Fd();
    }
    return Fd(static_cast<int>(fd));
}

// BPF_LINK_CREATE for tcx; the installed uapi headers may predate the tcx fields.
struct LinkCreateTcx {
    uint32_t progFd;
    uint32_t targetIfindex;
    uint32_t attachType;
    uint32_t flags;
    uint32_t relativeFd;
    uint32_t pad;
    uint64_t expectedRevision;
};
static_assert(sizeof(LinkCreateTcx) == 32);
static_assert(sizeof(bpf_attr) >= sizeof(LinkCreateTcx));

bool AttachFilter(int socketFd, sock_filter* code, unsigned short count) {
    sock_fprog program{count, code};
    return setsockopt(socketFd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)) == 0;
}

constexpr uint32_t kAncillaryMark = static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_MARK);
constexpr uint32_t kAncillaryPktType = static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE);
constexpr uint32_t kAcceptAll = 0xFFFFFFFFu;

}  // namespace

void Fd::Reset(int fd) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
}

bool LoadTunnelPrograms(TunnelPrograms& programs, int& errorCode, std::string& error) {
    std::string log;
    Fd egress = LoadProgram(kEgressProgram, std::size(kEgressProgram), "nd_tcx_egress", errorCode, log);
    if (!egress.Valid()) {
        error = "egress program: " + log;
        return false;
    }
    Fd ingress = LoadProgram(kIngressProgram, std::size(kIngressProgram), "nd_tcx_ingress", errorCode, log);
    if (!ingress.Valid()) {
        error = "ingress program: " + log;
        return false;
    }
    programs.egress = std::move(egress);
    programs.ingress = std::move(ingress);
    return true;
}

Fd AttachTcx(const Fd& program, int ifindex, uint32_t attachType, int& errorCode) {
    bpf_attr attr;
    std::memset(&attr, 0, sizeof(attr));
    LinkCreateTcx link{};
    link.progFd = static_cast<uint32_t>(program.Get());
    link.targetIfindex = static_cast<uint32_t>(ifindex);
    link.attachType = attachType;
    link.flags = kAttachBefore;
    std::memcpy(&attr, &link, sizeof(link));
    const long fd = BpfCall(BPF_LINK_CREATE, &attr, sizeof(attr));
    if (fd < 0) {
        errorCode = errno;
        return Fd();
    }
    return Fd(static_cast<int>(fd));
}

bool HasNetAdmin() {
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    header.pid = 0;
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) return false;
    return (data[CAP_NET_ADMIN / 32].effective & (1u << (CAP_NET_ADMIN % 32))) != 0;
}

bool AttachWireCaptureFilter(int socketFd) {
    sock_filter code[] = {
        /* 0 */ BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kAncillaryMark),
        /* 1 */ BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 3),  // mark != 0 -> 5
        /* 2 */ BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kAncillaryPktType),
        /* 3 */ BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 1, 0),  // outgoing -> 5
        /* 4 */ BPF_STMT(BPF_RET | BPF_K, kAcceptAll),
        /* 5 */ BPF_STMT(BPF_RET | BPF_K, 0),
    };
    return AttachFilter(socketFd, code, static_cast<unsigned short>(std::size(code)));
}

bool AttachStackCaptureFilter(int socketFd) {
    sock_filter code[] = {
        /* 0 */ BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kAncillaryMark),
        /* 1 */ BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kMarkFromStack, 0, 1),  // other -> 3
        /* 2 */ BPF_STMT(BPF_RET | BPF_K, kAcceptAll),
        /* 3 */ BPF_STMT(BPF_RET | BPF_K, 0),
    };
    return AttachFilter(socketFd, code, static_cast<unsigned short>(std::size(code)));
}

}  // namespace Platform::Bpf
