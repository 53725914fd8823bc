// Hash table of lattice keys: open addressing with linear probing, slots
// holding entry indices, keys in one array indexed by entry. Entry indices
// are handed out in order of first insertion and never change, because the
// lattice uses them to address its value arrays.
#include "crf/lattice_hash.h"

#include <cstring>

#include "common/checked.h"

namespace {

// Bytes of the key array for `slot_count` slots: room for slot_count / 2 + 10
// keys. False when that does not fit a signed 32-bit byte count. Never asks
// for 0 bytes (a zero-length key still gets a real block).
bool key_array_bytes(uint32_t slot_count, uint32_t key_length, int32_t *bytes) {
  const int64_t keys = static_cast<int64_t>(slot_count / 2) + 10;
  if (!hseg::mul2_i32_valid(keys, static_cast<int64_t>(key_length) * 2)) return false;
  const int64_t b = keys * key_length * 2;
  *bytes = static_cast<int32_t>(b > 0 ? b : 2);
  return true;
}

}  // namespace

extern "C" {

MRESULT phash_init(MHandle handle, LatticeHash *table, uint32_t key_length, uint32_t capacity) {
  if (table == nullptr) return HSEG_ERR_NO_MEMORY;
  std::memset(table, 0, sizeof *table);
  table->handle = handle;
  table->key_length = key_length;
  int32_t key_bytes = 0;
  if (capacity == 0 || capacity > 0x7FFFFFFFu ||
      !hseg::mul2_i32_valid(2ll * capacity, 4) ||
      !key_array_bytes(2 * capacity, key_length, &key_bytes)) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  table->slot_count = 2 * capacity;
  table->slots = static_cast<int32_t *>(
      MMemAlloc(handle, static_cast<int32_t>(table->slot_count * 4u)));
  table->keys = static_cast<int16_t *>(MMemAlloc(handle, key_bytes));
  if (table->slots == nullptr || table->keys == nullptr) {
    phash_release(table);
    return HSEG_ERR_NO_MEMORY;
  }
  std::memset(table->slots, 0xFF, table->slot_count * 4u);
  return HSEG_OK;
}

MRESULT phash_release(LatticeHash *table) {
  if (table == nullptr) return HSEG_ERR_NO_MEMORY;
  MMemFree(table->handle, table->slots);
  MMemFree(table->handle, table->keys);
  std::memset(table, 0, sizeof *table);
  return HSEG_OK;
}

MRESULT phash_reset(LatticeHash *table) {
  if (table == nullptr) return HSEG_ERR_NO_MEMORY;
  table->filled = 0;
  if (table->slots == nullptr) return HSEG_ERR_NO_MEMORY;
  std::memset(table->slots, 0xFF, static_cast<size_t>(table->slot_count) * 4u);
  return HSEG_OK;
}

MRESULT phash_find(LatticeHash *table, const int16_t *key, uint32_t create,
                   uint32_t *out_index) {
  if (table == nullptr || table->slots == nullptr || table->keys == nullptr ||
      table->slot_count == 0) {
    return HSEG_ERR_NO_MEMORY;
  }
  if (out_index == nullptr || (key == nullptr && table->key_length > 0)) {
    return HSEG_ERR_BAD_ARGUMENT;
  }
  return hseg::crf::find_key<0>(table, key, create != 0, out_index);
}

MRESULT phash_grow(LatticeHash *table) {
  if (table == nullptr || table->slots == nullptr || table->keys == nullptr) {
    return HSEG_ERR_NO_MEMORY;
  }
  const uint32_t old_count = table->slot_count;
  const uint32_t len = table->key_length;
  int32_t key_bytes = 0;
  // A table that cannot double within 32-bit byte counts cannot take more
  // entries; it is left as it was, still usable for lookups.
  if (old_count > 0x7FFFFFFFu || !hseg::mul2_i32_valid(2ll * old_count, 4) ||
      !key_array_bytes(2 * old_count, len, &key_bytes)) {
    return HSEG_ERR_NO_MEMORY;
  }
  const uint32_t count = 2 * old_count;
  int32_t *old_slots = table->slots;
  int16_t *old_keys = table->keys;
  int32_t *slots = static_cast<int32_t *>(MMemAlloc(table->handle, static_cast<int32_t>(count * 4u)));
  int16_t *keys = static_cast<int16_t *>(MMemAlloc(table->handle, key_bytes));
  table->slots = slots;
  table->keys = keys;
  table->slot_count = count;
  if (slots == nullptr || keys == nullptr) {
    MMemFree(table->handle, old_keys);
    MMemFree(table->handle, old_slots);
    return HSEG_ERR_NO_MEMORY;
  }
  std::memset(slots, 0xFF, static_cast<size_t>(count) * 4u);
  std::memcpy(keys, old_keys, static_cast<size_t>(table->filled) * len * sizeof(int16_t));
  for (uint32_t s = 0; s < old_count; ++s) {
    const int32_t e = old_slots[s];
    if (e < 0) continue;
    uint32_t h = hseg::crf::hash_key<0>(keys + static_cast<size_t>(e) * len, len) % count;
    while (slots[h] != -1) {
      if (++h == count) h = 0;
    }
    slots[h] = e;
  }
  MMemFree(table->handle, old_keys);
  MMemFree(table->handle, old_slots);
  return HSEG_OK;
}

}  // extern "C"
