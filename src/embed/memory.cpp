// memory: the task's allocator, pools and matrix memory.
//
// Every block has a head that links it into the ring of the call that took it, so that it is given
// back in constant time and the end of a call can free what is left. Blocks come from calloc: large
// ones are zero pages of the system then, which cost nothing until they are used.
#include "host/memory.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <new>

#include "embed/task.h"

namespace tqnlp {

using embed::Block;
using embed::Fault;
using embed::Task;

// Requests beyond this are refused without asking the system: sizes that large come from sizes of
// a problem that cannot be meant.
static constexpr std::size_t LARGEST_BLOCK = (std::size_t{1} << 40) - 4096;

static Block* head_of(void* data) { return static_cast<Block*>(data) - 1; }

// At the end of the ring, so that blocks stand in the order in which they were taken.
static void link_into(Block& ring, Block* block) {
  block->previous = ring.previous;
  block->next = &ring;
  ring.previous->next = block;
  ring.previous = block;
}

static void unlink(Block* block) {
  block->previous->next = block->next;
  block->next->previous = block->previous;
}

void* vmalloc_handler(std::size_t bytes, int) {
  Task& task = embed::current_task();
  if (task.faults[static_cast<int>(Fault::allocation)].strikes()) return nullptr;
  if (bytes > LARGEST_BLOCK) return nullptr;
  void* memory = std::calloc(1, sizeof(Block) + bytes);
  if (memory == nullptr) return nullptr;
  Block* block = new (memory) Block;
  block->bytes = bytes;
  block->owner = &task;
  link_into(task.frame().blocks, block);
  ++task.counters.blocks_taken;
  return block + 1;
}

void vmfree_handler(void* data) {
  if (data == nullptr) return;
  Block* block = head_of(data);
  assert(block->owner != nullptr);  // given back twice, or not a block of a host
  ++block->owner->counters.blocks_given;
  unlink(block);
  block->owner = nullptr;
  std::free(block);
}

void* vmalcp_handler(const void* from, std::size_t bytes) {
  void* data = vmalloc_handler(bytes, 0);
  if (data != nullptr && bytes > 0) std::memcpy(data, from, bytes);
  return data;
}

void xmemmsg(std::size_t bytes) {
  embed::add_log(embed::current_task(), 0, 0, Severity::error,
                 "A request for " + std::to_string(bytes) + " bytes of memory was refused.");
}

// ---- Pools: blocks of their own, chained, with an account of what the pool may still hold
// --------

struct alignas(std::max_align_t) PoolBlock {
  PoolBlock* next;  // the block's bytes follow
};

struct MemPool {
  std::size_t left;
  PoolBlock* first;
};

MemPool* xmpoolc(std::size_t bytes) {
  auto* pool = static_cast<MemPool*>(vmalloc_handler(sizeof(MemPool), 0));
  if (pool != nullptr) pool->left = bytes;
  return pool;
}

void* xmemdef(MemPool* pool, std::size_t bytes) {
  if (pool == nullptr || bytes > pool->left) return nullptr;
  auto* block = static_cast<PoolBlock*>(vmalloc_handler(sizeof(PoolBlock) + bytes, 0));
  if (block == nullptr) return nullptr;
  block->next = pool->first;
  pool->first = block;
  pool->left -= bytes;
  return block + 1;
}

void xmpoold(MemPool* pool) {
  if (pool == nullptr) return;
  for (PoolBlock* block = pool->first; block != nullptr;) {
    PoolBlock* next = block->next;
    vmfree_handler(block);
    block = next;
  }
  vmfree_handler(pool);
}

// ---- Memory of matrices -------------------------------------------------------------------------

// Memory of matrices is memory like any other.
double* tqwalo2(long bytes) {
  if (bytes < 0) return nullptr;
  return static_cast<double*>(vmalloc_handler(static_cast<std::size_t>(bytes), 0));
}

// Numbers lent from the argument of a prepared call stay with it (see load_argument).
void tqwfre2(void* data) {
  if (data == nullptr) return;
  for (const auto& call : embed::current_task().frame().prepared)
    if (call->argument.data() == data) return;
  vmfree_handler(data);
}

void tqwown2(TQLSYM* symbol, double* data) {
  Task& task = embed::current_task();
  symbol->data = data;
  // Only variables outlive the call; any other symbol is a part of the call's own records.
  for (auto& [name, variable] : task.variables)
    if (&variable == symbol) embed::keep_block(task, data);
}

namespace embed {

void keep_block(Task& task, void* data) {
  if (data == nullptr) return;
  Block* block = head_of(data);
  unlink(block);
  link_into(task.frames.front().blocks, block);
}

// What the module gave back itself is counted; what is freed here is not, so that tests can tell.
long release_blocks(Frame& frame, long* bytes) {
  long count = 0;
  for (Block* block = frame.blocks.next; block != &frame.blocks; ++count) {
    Block* next = block->next;
    *bytes += static_cast<long>(block->bytes);
    std::free(block);
    block = next;
  }
  frame.blocks.previous = frame.blocks.next = &frame.blocks;
  return count;
}

}  // namespace embed
}  // namespace tqnlp
