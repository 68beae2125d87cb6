// FlatGuidIndex: the sort directory's index. Items by the hash of their GUID, in one flat array
// with linear probing, so that a lookup reads a line or two of the array (whose place follows
// from the hash alone, so it can be loaded ahead) before it touches any item. Entries sharing a
// hash (the items of one GUID, or a rare collision) are visited in the order they were inserted.
// Erasing shifts the entries after it back, so there are no tombstones and probes stay short.
// Each entry holds a reference to its item.
// Thread-safety: none of its own; the owner serialises every call (the sort directory does so
// under the cache lock).
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "mc/host/IntrusivePtr.h"

template <class T>
class FlatGuidIndex {
public:
    using Ptr = velacore::IntrusivePtr<T>;

    size_t Size() const { return size_; }

    // Grows the table so that `entries` fit under the load limit. Never shrinks it.
    void Reserve(size_t entries) {
        size_t capacity = slots_.empty() ? kMinCapacity : slots_.size();
        while (entries > capacity / 4 * 3) capacity *= 2;
        if (capacity != slots_.size()) Rehash(capacity);
    }

    // Adds `item` under `hash`, after the entries already there; takes a reference.
    void Insert(Ptr item, uint32_t hash) {
        Reserve(size_ + 1);
        size_t i = Home(hash);
        while (slots_[i].item) i = Next(i);
        slots_[i] = Slot{std::move(item), hash};
        ++size_;
    }

    // Removes the entry of `item` (filed under `hash`) and drops its reference. Returns whether
    // there was one.
    bool Erase(const T* item, uint32_t hash) {
        if (slots_.empty()) return false;
        for (size_t i = Home(hash); slots_[i].item; i = Next(i)) {
            if (slots_[i].item.get() != item) continue;
            Ptr removed = std::move(slots_[i].item);  // released once the table is whole again
            CloseHole(i);
            --size_;
            return true;
        }
        return false;
    }

    // Calls `visit(const Ptr&)` for every entry under `hash`, oldest first. `visit` must not
    // change the index.
    template <class Visit>
    void ForEachWithHash(uint32_t hash, Visit&& visit) const {
        if (slots_.empty()) return;
        for (size_t i = Home(hash); slots_[i].item; i = Next(i))
            if (slots_[i].hash == hash) visit(slots_[i].item);
    }

    // Starts loading the line a lookup of `hash` reads first.
    void Prefetch(uint32_t hash) const {
        if (!slots_.empty()) __builtin_prefetch(&slots_[Home(hash)]);
    }

private:
    struct Slot {
        Ptr item;
        uint32_t hash = 0;
    };
    static constexpr size_t kMinCapacity = 16;

    size_t Home(uint32_t hash) const {
        // Fibonacci hashing spreads hashes that differ only in their low bits.
        return static_cast<size_t>((hash * 0x9E3779B97F4A7C15ull) >> shift_);
    }
    size_t Next(size_t i) const { return (i + 1) & (slots_.size() - 1); }

    // Whether an entry at `j` whose home is `home` may move back to `hole` (no gap may open
    // between an entry and its home).
    static bool MayMoveBack(size_t hole, size_t j, size_t home) {
        const bool homeInHoleToJ = hole <= j ? hole < home && home <= j : hole < home || home <= j;
        return !homeInHoleToJ;
    }

    // Backward-shift deletion: pulls later entries of the probe run into the emptied slot.
    void CloseHole(size_t hole) {
        for (size_t j = Next(hole); slots_[j].item; j = Next(j)) {
            if (!MayMoveBack(hole, j, Home(slots_[j].hash))) continue;
            slots_[hole] = std::move(slots_[j]);
            hole = j;
        }
        slots_[hole] = Slot{};
    }

    // Moves every entry into a table of `capacity` slots (a power of two). The old table is read
    // from just after an empty slot, where no probe run crosses, so each run keeps its order.
    void Rehash(size_t capacity) {
        std::vector<Slot> old = std::exchange(slots_, std::vector<Slot>(capacity));
        int bits = 0;
        while ((size_t{1} << bits) < capacity) ++bits;
        shift_ = 64 - bits;
        if (old.empty()) return;
        size_t start = 0;
        while (old[start].item) ++start;  // the load limit keeps one empty at least
        for (size_t k = 1; k <= old.size(); ++k) {
            Slot& s = old[(start + k) & (old.size() - 1)];
            if (!s.item) continue;
            size_t i = Home(s.hash);
            while (slots_[i].item) i = Next(i);
            slots_[i] = std::move(s);
        }
    }

    std::vector<Slot> slots_;  // a power of two in size, or empty
    size_t size_ = 0;
    int shift_ = 64;
};
