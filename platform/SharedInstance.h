#pragma once

#include <atomic>
#include <mutex>

// The one process-wide instance of a platform interface: the one a test put
// in place while there is one, else the real one, made on first use and
// never deleted, since receivers torn down after the application object may
// still reach it.
template <typename Interface> class SharedInstance
{
public:
    using Maker = Interface *(*)();

    constexpr explicit SharedInstance(Maker makeReal)
        : _makeReal(makeReal)
    {}

    Interface *get()
    {
        if (Interface *chosen = _chosen.load())
            return chosen;
        std::call_once(_made, [this] { _real = _makeReal(); });
        return _real;
    }

    // Null puts the real one back.
    void set(Interface *chosen) { _chosen.store(chosen); }

private:
    Maker _makeReal;
    std::atomic<Interface *> _chosen = nullptr;
    std::once_flag _made;
    Interface *_real = nullptr;
};
