// The process error table: maps error objects to result handles.
//
// A handle is (generation << 12) | slot.  Generations run from 1 to
// kMaxGeneration, so a handle is never 0 (generation >= 1) and never
// 0xFFFFFFFF (the top generation value is never used).  A slot's generation
// moves on each time the slot is filled, so handles to errors that were
// taken out or evicted stop matching.
//
// Occupied slots form a list in put order; when no slot is free the head of
// that list (the oldest error) is evicted.  Free slots form a stack.
#include <mutex>

#include "tarvex_c_edge.h"
#include "tarvex_error.h"

using tarvex::at_c_edge;

namespace {

constexpr uint32_t kCapacity = TARVEX_ERROR_TABLE_CAPACITY;
constexpr uint32_t kSlotBits = 12;
static_assert((1u << kSlotBits) == kCapacity, "slot bits must cover the capacity");
constexpr uint32_t kMaxGeneration = (1u << (32 - kSlotBits)) - 2;
constexpr uint32_t kNone = kCapacity; // end of a list

struct slot {
    tarvex_object_t *error;
    uint32_t generation;
    uint32_t prev; // put-order list, or the free stack through `next`
    uint32_t next;
};

struct table {
    std::mutex mutex;
    bool ready = false;
    slot slots[kCapacity];
    uint32_t free_top = kNone;
    uint32_t oldest = kNone;
    uint32_t newest = kNone;
    size_t count = 0;

    void init()
    {
        if (ready)
            return;
        for (uint32_t i = 0; i < kCapacity; i++) {
            slots[i] = slot{nullptr, 0, kNone, i + 1 < kCapacity ? i + 1 : kNone};
        }
        free_top = 0;
        ready = true;
    }

    void unlink(uint32_t i)
    {
        slot &s = slots[i];
        if (s.prev != kNone)
            slots[s.prev].next = s.next;
        else
            oldest = s.next;
        if (s.next != kNone)
            slots[s.next].prev = s.prev;
        else
            newest = s.prev;
        s.prev = s.next = kNone;
    }

    void append(uint32_t i)
    {
        slot &s = slots[i];
        s.prev = newest;
        s.next = kNone;
        if (newest != kNone)
            slots[newest].next = i;
        else
            oldest = i;
        newest = i;
    }

    void push_free(uint32_t i)
    {
        slots[i].next = free_top;
        free_top = i;
    }

    // Index of the live slot `result` names, or kNone.
    uint32_t find(tarvex_result_t result)
    {
        if (!ready || result == TARVEX_SUCCESS || result == TARVEX_FAILURE)
            return kNone;
        uint32_t i = result & (kCapacity - 1);
        uint32_t generation = result >> kSlotBits;
        const slot &s = slots[i];
        if (s.error == nullptr || s.generation != generation)
            return kNone;
        return i;
    }
};

table &the_table()
{
    // Never destroyed: errors may be put or read during process exit.
    static table *instance = new table;
    return *instance;
}

} // namespace

extern "C" {

tarvex_result_t tarvex_error_put(tarvex_object_t *error)
{
    if (error == nullptr)
        return TARVEX_FAILURE;
    tarvex_object_t *evicted = nullptr;
    tarvex_result_t result = at_c_edge(TARVEX_FAILURE, [&]() -> tarvex_result_t {
        table &t = the_table();
        std::lock_guard<std::mutex> lock(t.mutex);
        t.init();
        uint32_t i;
        if (t.free_top != kNone) {
            i = t.free_top;
            t.free_top = t.slots[i].next;
            t.count++;
        } else {
            i = t.oldest;
            t.unlink(i);
            evicted = t.slots[i].error;
        }
        slot &s = t.slots[i];
        s.error = error;
        s.generation = s.generation >= kMaxGeneration ? 1 : s.generation + 1;
        t.append(i);
        return (s.generation << kSlotBits) | i;
    });
    // Freed outside the lock: a destructor may itself use the table.  An
    // error that could not be put is freed too: nobody holds a handle to it.
    tarvex_object_free(result == TARVEX_FAILURE ? error : evicted);
    return result;
}

tarvex_object_t *tarvex_error_peek(tarvex_result_t result)
{
    return at_c_edge<tarvex_object_t *>(nullptr, [&]() -> tarvex_object_t * {
        table &t = the_table();
        std::lock_guard<std::mutex> lock(t.mutex);
        uint32_t i = t.find(result);
        return i == kNone ? nullptr : t.slots[i].error;
    });
}

tarvex_object_t *tarvex_error_get(tarvex_result_t result)
{
    return at_c_edge<tarvex_object_t *>(nullptr, [&]() -> tarvex_object_t * {
        table &t = the_table();
        std::lock_guard<std::mutex> lock(t.mutex);
        uint32_t i = t.find(result);
        if (i == kNone)
            return nullptr;
        tarvex_object_t *error = t.slots[i].error;
        t.slots[i].error = nullptr;
        t.unlink(i);
        t.push_free(i);
        t.count--;
        return error;
    });
}

void tarvex_error_discard(tarvex_result_t result)
{
    if (result != TARVEX_SUCCESS)
        tarvex_object_free(tarvex_error_get(result));
}

size_t tarvex_error_table_count(void)
{
    return at_c_edge(size_t{0}, [] {
        table &t = the_table();
        std::lock_guard<std::mutex> lock(t.mutex);
        return t.count;
    });
}

} // extern "C"
