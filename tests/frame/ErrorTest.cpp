// The last-error convention as a caller sees it through the exported functions.
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using nctest::ErrorFlag;

class ErrorConvention : public nctest::NetCoreTest {};

TEST_F(ErrorConvention, FailureSetsFlagAndCodeAndGetLastErrorReadsOnly) {
    EXPECT_FALSE(NetCore_Socket_Create(nullptr, true, AF_INET, false));
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(0x020A4501ULL, NetCore_GetLastError(nullptr));
    // reading neither clears the flag nor resets the code
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(0x020A4501ULL, NetCore_GetLastError(nullptr));
}

TEST_F(ErrorConvention, SuccessClearsFlagButKeepsTheLastCode) {
    EXPECT_FALSE(NetCore_Socket_IOSelect(-1, true, 0));
    ASSERT_TRUE(ErrorFlag());
    int hSocket = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&hSocket, true, AF_INET, false));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SOCKET_SELECT_PARAMENT, NetCore_GetLastError(nullptr));
    EXPECT_TRUE(NetCore_Socket_Close(hSocket));
}

TEST_F(ErrorConvention, GetLastErrorHandsBackErrno) {
    int hSocket = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&hSocket, false, AF_INET, false));
    // a UDP socket cannot listen: the listen step fails with EOPNOTSUPP after a good bind
    EXPECT_FALSE(NetCore_Socket_Bind(hSocket, 0, true, AF_INET));
    int nSysError = 0;
    EXPECT_EQ(ERROR_NETCORE_SOCKET_BIND_LISTEN, NetCore_GetLastError(&nSysError));
    EXPECT_EQ(EOPNOTSUPP, nSysError);
    // the one failure that leaves the flag clear
    EXPECT_FALSE(ErrorFlag());
    NetCore_Socket_Close(hSocket);
}

TEST_F(ErrorConvention, TheWhole64BitCodeIsReturned) {
    __atomic_store_n(&NetCore_dwErrorCode, 0x100000001ULL, __ATOMIC_RELAXED);
    EXPECT_EQ(0x100000001ULL, NetCore_GetLastError(nullptr));
}

TEST_F(ErrorConvention, GlobalsHaveTheirExportedLayout) {
    EXPECT_EQ(1u, sizeof(NetCore_IsErrorOccur));
    EXPECT_EQ(8u, sizeof(NetCore_dwErrorCode));
}

// The library works as soon as it is loaded and unloads cleanly.
TEST(LibraryLoad, UsableRightAfterDlopenAndUnloadsCleanly) {
    void* hLib = dlopen(NETCORE_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, hLib) << dlerror();
    using CreateFn = bool (*)(int*, bool, int, bool);
    using CloseFn = bool (*)(int);
    auto fnCreate = reinterpret_cast<CreateFn>(dlsym(hLib, "NetCore_Socket_Create"));
    auto fnClose = reinterpret_cast<CloseFn>(dlsym(hLib, "NetCore_Socket_Close"));
    ASSERT_NE(nullptr, fnCreate);
    ASSERT_NE(nullptr, fnClose);
    int hSocket = -1;
    EXPECT_TRUE(fnCreate(&hSocket, true, AF_INET6, false));
    EXPECT_GE(hSocket, 0);
    EXPECT_TRUE(fnClose(hSocket));
    EXPECT_EQ(nullptr, dlsym(hLib, "m_Socket")) << "global objects are internal";
    EXPECT_EQ(0, dlclose(hLib));
}

}  // namespace
