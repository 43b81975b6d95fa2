// Freed objects of this test binary are overwritten and held back for a while
// before their memory is reused, so that code reading an object it deleted
// finds garbage and fails at once instead of quietly finding the values that
// were there.

// Not under a sanitizer: AddressSanitizer finds such reads itself, and under
// ThreadSanitizer the lock below would order every deletion before every later
// one on another thread, and so hide races.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KORVANE_SANITIZED_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KORVANE_SANITIZED_HEAP 1
#endif
#endif

#ifndef KORVANE_SANITIZED_HEAP

#include <malloc.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

namespace {

constexpr int scribble = 0xA5;

std::mutex heldLock;
std::array<void *, 4096> held{};
std::size_t nextHeld = 0;

} // namespace

void *operator new(std::size_t size)
{
    if (void *memory = std::malloc(size ? size : 1))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void *memory) noexcept
{
    if (!memory)
        return;
    std::memset(memory, scribble, malloc_usable_size(memory));
    std::lock_guard<std::mutex> locker(heldLock);
    std::free(std::exchange(held[nextHeld], memory));
    nextHeld = (nextHeld + 1) % held.size();
}

void operator delete(void *memory, std::size_t) noexcept
{
    operator delete(memory);
}

#endif
