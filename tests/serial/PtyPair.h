// Pseudo-terminals standing in for serial devices: a pair made here (the test holds the master
// side and one descriptor of the device side), and a pair linked by socat.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

#include "TestSupport.h"

namespace serialtest {

using namespace std::chrono_literals;

class PtyPair {
public:
    // Fails the current test when no pseudo-terminal can be made.
    PtyPair();
    int Master() const { return m_master.Get(); }
    // A descriptor of the device side: keeps its line settings alive between openings and lets
    // the test read them back.
    int Device() const { return m_device.Get(); }
    const std::string& Path() const { return m_path; }

private:
    nctest::Fd m_master;
    nctest::Fd m_device;
    std::string m_path;
};

void WriteAll(int fd, const std::string& data);
// Reads until `count` bytes arrived or the deadline passed.
std::string ReadFor(int fd, size_t count, std::chrono::milliseconds timeout = 5s);

// socat joining two pseudo-terminals, reached through two links in a fresh directory.
class SocatPair {
public:
    SocatPair() = default;
    SocatPair(const SocatPair&) = delete;
    SocatPair& operator=(const SocatPair&) = delete;
    ~SocatPair();
    // False with a reason when socat is missing or does not come up.
    bool Start(std::string* why);
    const std::string& PathA() const { return m_pathA; }
    const std::string& PathB() const { return m_pathB; }

private:
    pid_t m_pid = -1;
    std::string m_dir;
    std::string m_pathA;
    std::string m_pathB;
};

}  // namespace serialtest
