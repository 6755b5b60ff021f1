#pragma once

#include <memory>
#include <string>

namespace devio {

// A mutex known by name to every process of the machine, so that two
// programs using this library never interleave commands to one device.
//
// Any thread may lock and unlock; the owning thread may lock again (as a
// platform mutex allows) and must unlock as often. Locking waits without
// limit. A holder that dies releases the mutex. One object is shared by the
// threads of a Device; objects of one name in one process share one lock.
class NamedMutex {
public:
    NamedMutex(const std::string& name, bool take);
    ~NamedMutex();
    NamedMutex(const NamedMutex&) = delete;
    NamedMutex& operator=(const NamedMutex&) = delete;

    void init(const std::string& name);
    void lock();
    void unlock();

    // Where lock files live: DEVIO_LOCK_DIR if set, else /run/lock when it is
    // writable, else /tmp.
    static std::string lockDirectory();

    struct Shared;

private:
    bool take_;
    std::shared_ptr<Shared> hMutex_;
};

}  // namespace devio
