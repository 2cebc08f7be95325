// Stands in for a security policy that forbids executable memory, as an Android app's SELinux
// domain may: while a RefuseExecutableMappings object lives, mmap in this test executable fails
// with EACCES for any mapping that asks for PROT_EXEC.
#pragma once

namespace localtest {

class RefuseExecutableMappings {
public:
    RefuseExecutableMappings();
    ~RefuseExecutableMappings();
    RefuseExecutableMappings(const RefuseExecutableMappings&) = delete;
    RefuseExecutableMappings& operator=(const RefuseExecutableMappings&) = delete;
    // Mappings refused since this object was made.
    int Refused() const;
};

}  // namespace localtest
