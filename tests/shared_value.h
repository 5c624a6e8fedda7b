// A value that a test has in common with the processes that it forks.
#pragma once

#include <sys/mman.h>

#include <new>

template <typename T>
class SharedValue {
public:
    SharedValue() : m_value(new (::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T()) {}
    ~SharedValue() { ::munmap(m_value, sizeof(T)); }
    SharedValue(const SharedValue&) = delete;
    SharedValue& operator=(const SharedValue&) = delete;
    T& operator*() const { return *m_value; }
    T* operator->() const { return m_value; }

private:
    T* m_value;
};
