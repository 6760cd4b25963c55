// Who may serve the control pipes: the pure decisions, and the Linux checks on real sockets.
#include "Platform/PipeTrust.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <thread>
#include <tuple>

#include "Platform/Pipe.h"
#include "support/TestFiles.h"

using namespace Platform;

TEST(PipeTrust, FolderMustBeOwnedByRootOrSelfAndClosedToOthers) {
    struct Case {
        uint32_t owner, mode, self;
        const char* refusal;
    };
    const Case cases[] = {
        {0, 040755, 0, ""},
        {0, 040700, 1000, ""},
        {1000, 040700, 1000, ""},
        {1000, 040700, 1001, "folder owned by user 1000"},
        {0, 041777, 0, "folder writable by group or others (mode 1777)"},  // sticky /tmp style
        {0, 040775, 0, "folder writable by group or others (mode 0775)"},
        {0, 040757, 0, "folder writable by group or others (mode 0757)"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(PipeFolderDistrust(c.owner, c.mode, c.self), c.refusal) << c.owner << " " << c.mode;
    EXPECT_EQ(PipePeerDistrust(0, 1000), "");
    EXPECT_EQ(PipePeerDistrust(1000, 1000), "");
    EXPECT_EQ(PipePeerDistrust(65534, 0), "server runs as user 65534");
}

TEST(PipeTrust, WindowsServerMustBeSystemAdministratorOrSelf) {
    const std::string self = "S-1-5-21-1-2-3-1001";
    const std::string other = "S-1-5-21-1-2-3-1002";
    const TokenGroup users{"S-1-5-32-545", kGroupEnabled};
    struct Case {
        PipeServerToken server;
        bool trusted;
    };
    const Case cases[] = {
        {{kLocalSystemSid, {}}, true},
        {{self, {users}}, true},
        {{other, {users, {kAdministratorsSid, kGroupEnabled | 0x3}}}, true},
        {{other, {users}}, false},
        {{other, {{kAdministratorsSid, kGroupDenyOnly}}}, false},  // filtered, non-elevated token
        {{other, {{kAdministratorsSid, kGroupDenyOnly | kGroupEnabled}}}, false},
        {{other, {{kAdministratorsSid, 0}}}, false},
        {{other, {{"S-1-5-32-5440", kGroupEnabled}}}, false},
        {{"", {}}, false},
    };
    for (const Case& c : cases) {
        const std::string refusal = PipeServerDistrust(c.server, self);
        EXPECT_EQ(refusal.empty(), c.trusted) << c.server.userSid << ": " << refusal;
    }
    EXPECT_EQ(PipeServerDistrust({other, {}}, self),
              "server runs as " + other + ", neither LocalSystem, an administrator nor this process's user");
    EXPECT_FALSE(PipeServerDistrust({"", {}}, "").empty());  // an unknown own user trusts no one by name
}

namespace {

// A socket on path, bound as root and listening as uid: the kernel takes the peer credentials
// at listen(). The raw system call changes the user of its own thread only, not the process's.
int Listen(const std::string& path, uid_t uid) {
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool ok = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    std::thread([&] { ok = ok && syscall(SYS_setresuid, uid, uid, uid) == 0 && listen(fd, 4) == 0; }).join();
    return ok ? fd : -1;
}

}  // namespace

TEST(PipeTrust, LinuxClientRefusesForeignFoldersAndListeners) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to play another user";
    ndtest::TempDir dir;
    setenv("NETWORKDRIVER_PIPE_DIR", dir.Path().c_str(), 1);
    const std::string name = "TessarilNetworkDriverToNative";
    const std::string path = dir.Path() + "/" + name;
    PipeClient client;

    // Who listens, the folder's mode and owner, and the refusal; the folder is checked before any connect.
    for (const auto& [uid, mode, owner, refusal] :
         {std::tuple{0u, 0755u, 0u, ""}, std::tuple{65534u, 0755u, 0u, "server runs as user 65534"},
          std::tuple{65534u, 0777u, 0u, "folder writable by group or others (mode 0777)"},
          std::tuple{65534u, 0700u, 65534u, "folder owned by user 65534"}}) {
        SCOPED_TRACE(refusal);
        ASSERT_EQ(chmod(dir.Path().c_str(), mode), 0);
        ASSERT_EQ(chown(dir.Path().c_str(), owner, owner), 0);
        const int listener = Listen(path, uid);
        ASSERT_GE(listener, 0);
        const auto opened = client.Open(name, false);
        EXPECT_EQ(opened.error, 0);
        EXPECT_EQ(opened.refusal, refusal);
        EXPECT_EQ(client.IsValid(), *refusal == '\0');
        close(listener);
        unlink(path.c_str());
    }

    // A folder that is not there is a plain open failure; a path one byte too long for a
    // socket address (108 with its terminator) fails before anything is looked at.
    const std::string longest = "/" + std::string(107 - name.size() - 2, 'x');
    for (const auto& [folder, error] : {std::pair{dir.Path() + "/none", ENOENT}, std::pair{longest, ENOENT},
                                        std::pair{longest + "x", ENAMETOOLONG}}) {
        setenv("NETWORKDRIVER_PIPE_DIR", folder.c_str(), 1);
        const auto opened = client.Open(name, false);
        EXPECT_EQ(opened.path, folder + "/" + name);
        EXPECT_EQ(opened.error, error);
        EXPECT_EQ(opened.refusal, "");
    }
    unsetenv("NETWORKDRIVER_PIPE_DIR");
}
