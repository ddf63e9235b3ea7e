#include "ksomd/pool.h"

#include "pool/lock.h"
#include "pool/runtime.h"

constinit ksomd::pool::Allocator<ksomd::pool::PlatformRuntime> ksomd::pool::process_allocator{};

using ksomd::pool::process_allocator;

void __fast_lock(int* lock) {
  ksomd::pool::lock<ksomd::pool::PlatformRuntime>(*lock);
}

void __fast_unlock(int* lock) {
  // An exchange instead of a store, because callers may rely on a full barrier.
  __atomic_exchange_n(lock, 0, __ATOMIC_SEQ_CST);
}

void __i_pool_init(const std::size_t* sizes, int kind) {
  using ksomd::pool::Kind;
  process_allocator.set_sizes(sizes, kind == 0 ? Kind::Malloc : Kind::Calloc);
}

void* __i_pool_malloc(std::size_t size) {
  return process_allocator.allocate(size);
}

void* __i_pool_calloc(std::size_t count, std::size_t size) {
  return process_allocator.allocate_zeroed(count, size);
}

void* __i_pool_realloc(void* block, std::size_t size) {
  return process_allocator.resize(block, size);
}

void __i_pool_free(void* block) {
  process_allocator.release(block);
}
