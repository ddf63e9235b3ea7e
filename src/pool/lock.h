// The lock word, and the accesses to memory that threads share.
#pragma once

#include <cstdint>

namespace ksomd::pool {

// Every access to a word that another thread may change goes through here. So each shows its memory
// order, and Runtime::step() runs before it. That does nothing in the library; a test uses it to
// let another thread go first.
template <class Runtime>
struct AtomicAccess {
  template <class T>
  static T load_relaxed(const T& word) {
    Runtime::step();
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
  }
  template <class T>
  static T load_acquire(const T& word) {
    Runtime::step();
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
  }
  template <class T>
  static void store_relaxed(T& word, T value) {
    Runtime::step();
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
  }
  template <class T>
  static void store_release(T& word, T value) {
    Runtime::step();
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
  }
  template <class T>
  static T exchange_acquire(T& word, T value) {
    Runtime::step();
    return __atomic_exchange_n(&word, value, __ATOMIC_ACQUIRE);
  }
  template <class T>
  static T exchange_release(T& word, T value) {
    Runtime::step();
    return __atomic_exchange_n(&word, value, __ATOMIC_RELEASE);
  }
  // If the word is `expected`, changes it to `value` and returns true. Else stores the word in
  // `expected` and returns false. May fail spuriously.
  template <class T>
  static bool compare_exchange_acquire(T& word, T& expected, T value) {
    Runtime::step();
    return __atomic_compare_exchange_n(&word, &expected, value, true, __ATOMIC_ACQUIRE,
                                       __ATOMIC_RELAXED);
  }
  template <class T>
  static T increment_acq_rel(T& word) {
    Runtime::step();
    return __atomic_fetch_add(&word, 1, __ATOMIC_ACQ_REL);
  }
};

// 0 while free, 1 while held.
using LockWord = std::int32_t;

// Waits on plain loads: the waiting threads share the word's cache line, and only the holder's
// release moves it. There is no pause and no yield, because the guarded code is shorter than
// either.
template <class Runtime>
void lock(LockWord& word) {
  // acquire: pairs with the previous holder's release of the word
  while (AtomicAccess<Runtime>::exchange_acquire(word, 1) != 0) {
    // relaxed: only tells when to try again
    while (AtomicAccess<Runtime>::load_relaxed(word) != 0) {
      Runtime::wait();
    }
  }
}

template <class Runtime>
void unlock(LockWord& word) {
  // release: the next holder sees what this one did. That is enough here: only __fast_unlock
  // promises a full barrier, and a plain store takes half the time of an exchange.
  AtomicAccess<Runtime>::store_release(word, 0);
}

// Holds a lock for the length of a scope.
template <class Runtime>
class LockGuard {
 public:
  explicit LockGuard(LockWord& word) : word_(word) { lock<Runtime>(word_); }
  ~LockGuard() { unlock<Runtime>(word_); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  LockWord& word_;
};

}  // namespace ksomd::pool
