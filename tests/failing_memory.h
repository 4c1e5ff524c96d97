// An operator new that fails after a number of allocations. Included by one source of a program.
#pragma once

#include <atomic>
#include <cstdlib>
#include <new>

static std::atomic<int> g_allocations{-1};  // how many more succeed; -1: all
static bool g_failsOnce = false;            // later ones succeed again

void* operator new(size_t size) {
    const int left = g_allocations;
    void* const memory = left == 0 ? nullptr : malloc(size);
    if (left == 0 && g_failsOnce) g_allocations = -1;
    if (memory == nullptr) throw std::bad_alloc();
    if (left > 0) --g_allocations;
    return memory;
}
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return malloc(size);
}
void operator delete(void* memory) noexcept {
    free(memory);
}
void operator delete(void* memory, size_t /*size*/) noexcept {
    free(memory);
}
