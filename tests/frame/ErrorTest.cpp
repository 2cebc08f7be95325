// The last-error convention as a caller sees it through the exported functions, and loading.
#include <dlfcn.h>
#include <sys/socket.h>

#include <cerrno>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using nctest::ErrorFlag;

static_assert(sizeof(NetCore_IsErrorOccur) == 1 && sizeof(NetCore_dwErrorCode) == 8, "the exported layout");

class ErrorConvention : public nctest::NetCoreTest {};

TEST_F(ErrorConvention, FailureSetsFlagAndCodeAndSuccessClearsOnlyTheFlag) {
    EXPECT_FALSE(NetCore_Socket_Create(nullptr, true, AF_INET, false));
    EXPECT_EQ(ERROR_NETCORE_SOCKET_CREATE_PARAMENT, NetCore_GetLastError(nullptr));
    EXPECT_TRUE(ErrorFlag());  // reading neither clears the flag nor resets the code
    int hSocket = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&hSocket, false, AF_INET, false));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SOCKET_CREATE_PARAMENT, NetCore_GetLastError(nullptr));
    // a UDP socket cannot listen: the listen step fails with EOPNOTSUPP after a good bind, the
    // one failure that leaves the flag clear
    EXPECT_FALSE(NetCore_Socket_Bind(hSocket, 0, true, AF_INET));
    int nSysError = 0;
    EXPECT_EQ(ERROR_NETCORE_SOCKET_BIND_LISTEN, NetCore_GetLastError(&nSysError));
    EXPECT_EQ(EOPNOTSUPP, nSysError);
    EXPECT_FALSE(ErrorFlag());
    EXPECT_TRUE(NetCore_Socket_Close(hSocket));
    __atomic_store_n(&NetCore_dwErrorCode, 0x100000001ULL, __ATOMIC_RELAXED);
    EXPECT_EQ(0x100000001ULL, NetCore_GetLastError(nullptr)) << "the whole 64-bit word";
}

// The library works as soon as it is loaded and unloads cleanly.
TEST(LibraryLoad, UsableRightAfterDlopenAndUnloadsCleanly) {
    void* hLib = dlopen(NETCORE_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, hLib) << dlerror();
    auto fnCreate = reinterpret_cast<bool (*)(int*, bool, int, bool)>(dlsym(hLib, "NetCore_Socket_Create"));
    auto fnClose = reinterpret_cast<bool (*)(int)>(dlsym(hLib, "NetCore_Socket_Close"));
    ASSERT_TRUE(fnCreate != nullptr && fnClose != nullptr);
    int hSocket = -1;
    EXPECT_TRUE(fnCreate(&hSocket, true, AF_INET6, false));
    EXPECT_TRUE(fnClose(hSocket));
    EXPECT_EQ(nullptr, dlsym(hLib, "m_Socket")) << "global objects are internal";
    EXPECT_EQ(0, dlclose(hLib));
}

}  // namespace
