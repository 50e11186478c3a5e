// Host services: memory of the task. What a call takes belongs to the call; the embedded host frees
// what a call leaves behind.
#pragma once

#include <cstddef>

namespace tqnlp {

struct MemPool;  // a pool of blocks that are released together; a type of the host

// Takes a zero-filled block of the task's memory. flags is 0. Null when the host refuses.
void* vmalloc_handler(std::size_t bytes, int flags);

// Gives a block back; null is accepted.
void vmfree_handler(void* block);

// Takes a block that holds a copy of bytes bytes at from. Null when the host refuses.
void* vmalcp_handler(const void* from, std::size_t bytes);

// Makes a pool that can hold bytes bytes in all. Null when the host refuses.
MemPool* xmpoolc(std::size_t bytes);

// Takes a zero-filled block from a pool. Null when the host refuses or the pool is used up.
void* xmemdef(MemPool* pool, std::size_t bytes);

// Releases a pool with all its blocks; null is accepted.
void xmpoold(MemPool* pool);

// Writes to the log that a request of bytes bytes was refused.
void xmemmsg(std::size_t bytes);

}  // namespace tqnlp
