// The lock word, and the accesses to memory that threads share.
#pragma once

#include <cstdint>

namespace ksomd::pool {

// Every access to a word that another thread may change goes through here. So each shows its memory
// order, and Runtime::step() runs before it. That does nothing in the library; a test uses it to
// let another thread go first.
template <class Runtime>
struct Shared {
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
void take(LockWord& lock) {
  // acquire: pairs with the previous holder's release of the word
  while (Shared<Runtime>::exchange_acquire(lock, 1) != 0) {
    // relaxed: only tells when to try again
    while (Shared<Runtime>::load_relaxed(lock) != 0) {
      Runtime::wait();
    }
  }
}

template <class Runtime>
void give_back(LockWord& lock) {
  // release: the next holder sees what this one did. That is enough here: only __fast_unlock
  // promises a full barrier, and a plain store takes half the time of an exchange.
  Shared<Runtime>::store_release(lock, 0);
}

// Holds a lock for the length of a scope.
template <class Runtime>
class Holding {
 public:
  explicit Holding(LockWord& lock) : lock_(lock) { take<Runtime>(lock_); }
  ~Holding() { give_back<Runtime>(lock_); }
  Holding(const Holding&) = delete;
  Holding& operator=(const Holding&) = delete;

 private:
  LockWord& lock_;
};

}  // namespace ksomd::pool
