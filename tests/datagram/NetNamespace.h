// A private network namespace for the broadcast and multicast cases: the calling thread moves into
// a fresh namespace with loopback up and a veth pair nc0/nc1, where nc0 holds 10.77.0.1/24 with
// broadcast 10.77.0.255 and carries the limited-broadcast and multicast routes. Sockets and
// threads created afterwards by this thread live there, so nothing sent in a test leaves it.
// The namespace has no name: it disappears with the last socket and thread in it, which also
// covers a test that fails or crashes half-way.
#pragma once

#include <string>

namespace dgtest {

constexpr const char* kNsLocalAddr = "10.77.0.1";
constexpr const char* kNsGroupAddr = "239.77.0.1";

class NetNamespace {
public:
    NetNamespace() = default;
    NetNamespace(const NetNamespace&) = delete;
    NetNamespace& operator=(const NetNamespace&) = delete;
    ~NetNamespace() { Leave(); }

    // Enters a fresh namespace and sets it up. On false, Why() says what was missing and the
    // thread is back in its original namespace.
    bool Enter();
    // Returns to the original namespace (idempotent).
    void Leave();
    const std::string& Why() const { return m_strWhy; }

private:
    int m_hOriginal = -1;
    std::string m_strWhy;
};

}  // namespace dgtest
