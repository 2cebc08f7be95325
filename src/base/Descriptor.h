// A descriptor the library owns: closed exactly once, by its holder.
#pragma once

#include <unistd.h>

#include <utility>

namespace netcore {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int hFd) : m_hFd(hFd) {}
    UniqueFd(UniqueFd&& st_Other) noexcept : m_hFd(st_Other.Release()) {}
    UniqueFd& operator=(UniqueFd&& st_Other) noexcept {
        if (this != &st_Other) Reset(st_Other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { Reset(); }

    int Get() const { return m_hFd; }
    bool IsValid() const { return m_hFd >= 0; }
    // Gives the descriptor up without closing it.
    int Release() { return std::exchange(m_hFd, -1); }
    void Reset(int hFd = -1) {
        if (m_hFd >= 0) ::close(m_hFd);
        m_hFd = hFd;
    }

private:
    int m_hFd = -1;
};

}  // namespace netcore
