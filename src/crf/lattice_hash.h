// Internal helpers of the lattice hash table, shared by the table's exported
// functions and the lattice build (which calls the inline lookup directly so
// that the compiler can unroll the key loops for the dimensions it uses).
#ifndef HSEG_SRC_CRF_LATTICE_HASH_H_
#define HSEG_SRC_CRF_LATTICE_HASH_H_

#include <cstddef>
#include <cstdint>

#include "hseg/crf.h"

namespace hseg {
namespace crf {

// Multiplier of the key hash (the classic 32-bit LCG constant).
constexpr uint32_t kHashMultiplier = 1664525u;

// h = (h + c) * 1664525 over the components, each sign-extended to 32 bits,
// all modulo 2^32. kLen > 0 fixes the key length at compile time; 0 reads it
// from `len`.
template <int kLen>
inline uint32_t hash_key(const int16_t *key, uint32_t len) {
  const uint32_t n = kLen > 0 ? static_cast<uint32_t>(kLen) : len;
  uint32_t h = 0;
  for (uint32_t i = 0; i < n; ++i) {
    h = (h + static_cast<uint32_t>(static_cast<int32_t>(key[i]))) * kHashMultiplier;
  }
  return h;
}

// Component-wise equality of two keys (bit patterns, i.e. as unsigned 16-bit).
template <int kLen>
inline bool keys_equal(const int16_t *a, const int16_t *b, uint32_t len) {
  const uint32_t n = kLen > 0 ? static_cast<uint32_t>(kLen) : len;
  for (uint32_t i = 0; i < n; ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

// The lookup of phash_find once the table is known to be usable, given the
// key's hash (the lattice computes hashes ahead to prefetch their slots).
// Grows the table first when it is half full.
template <int kLen>
inline MRESULT find_key_hashed(LatticeHash *t, const int16_t *key, uint32_t hash, bool create,
                               uint32_t *out_index) {
  if (2ull * t->filled >= t->slot_count) {
    const MRESULT st = phash_grow(t);
    if (st != HSEG_OK) return st;
  }
  const uint32_t len = kLen > 0 ? static_cast<uint32_t>(kLen) : t->key_length;
  const uint32_t count = t->slot_count;
  uint32_t s = hash % count;
  for (;;) {
    const int32_t e = t->slots[s];
    if (e == -1) break;
    if (keys_equal<kLen>(t->keys + static_cast<size_t>(e) * len, key, len)) {
      *out_index = static_cast<uint32_t>(e);
      return HSEG_OK;
    }
    if (++s == count) s = 0;
  }
  if (!create) {
    *out_index = 0xFFFFFFFFu;
    return HSEG_ERR_TABLE;
  }
  const uint32_t e = t->filled;
  int16_t *dst = t->keys + static_cast<size_t>(e) * len;
  for (uint32_t i = 0; i < len; ++i) dst[i] = key[i];
  t->filled = e + 1;
  t->slots[s] = static_cast<int32_t>(e);
  *out_index = e;
  return HSEG_OK;
}

template <int kLen>
inline MRESULT find_key(LatticeHash *t, const int16_t *key, bool create, uint32_t *out_index) {
  const uint32_t len = kLen > 0 ? static_cast<uint32_t>(kLen) : t->key_length;
  return find_key_hashed<kLen>(t, key, hash_key<kLen>(key, len), create, out_index);
}

// Asks the cache for the home slot of `hash` ahead of its lookup.
inline void prefetch_slot(const LatticeHash *t, uint32_t hash) {
  __builtin_prefetch(t->slots + hash % t->slot_count);
}

}  // namespace crf
}  // namespace hseg

#endif  // HSEG_SRC_CRF_LATTICE_HASH_H_
