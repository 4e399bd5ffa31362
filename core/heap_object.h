// One object of type T in a block of the library's allocator (so that tests
// can make its allocation fail), aligned as T needs: for the large working
// objects (converters, prepared palettes, dithering states) that do not
// belong on a caller's stack.
//
// May include: include/zkernel.h.
#pragma once

#include <cstdint>
#include <new>
#include <utility>

#include "zkernel.h"

namespace zk {

template <class T>
class HeapObject {
public:
    // Constructs T from args; get() is null when the block cannot be had.
    template <class... Args>
    explicit HeapObject(Args&&... args) {
        block_ = Z_Malloc(sizeof(T) + alignof(T));
        if (!block_) return;
        const auto at = reinterpret_cast<uintptr_t>(block_);
        void* place = reinterpret_cast<void*>((at + alignof(T) - 1) / alignof(T) * alignof(T));
        object_ = new (place) T(std::forward<Args>(args)...);
    }
    ~HeapObject() {
        if (object_) object_->~T();
        Z_Free(block_);
    }
    HeapObject(const HeapObject&) = delete;
    HeapObject& operator=(const HeapObject&) = delete;
    T* get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }
    explicit operator bool() const { return object_ != nullptr; }

private:
    void* block_ = nullptr;
    T* object_ = nullptr;
};

}  // namespace zk
