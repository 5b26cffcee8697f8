// Words one thread writes and another reads without a lock (a switch, a
// threshold, a rate): each access is one whole word, so a reader sees the
// old value or the new one and never a torn one.
#pragma once

#include <atomic>
#include <type_traits>

template <class T>
T kel_word_load(const T& w)
{
    return std::atomic_ref<T>(const_cast<T&>(w)).load(std::memory_order_relaxed);
}

template <class T>
void kel_word_store(T& w, std::type_identity_t<T> v)
{
    std::atomic_ref<T>(w).store(v, std::memory_order_relaxed);
}
