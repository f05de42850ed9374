// Pools: one of the worker's own, and a copy of the parent's, whose lock all workers share.
//
// Why: an element that is out belongs to one holder, and comes back with the bytes of its last
// user. The model knows which element came back last and has to come first.
//
// Locks: that of the shared pool, which a worker may be killed inside; the list is the process's
// own and dies with it.
#include "soak.h"
#include "tests/models/pool_model.h"

#include "rm.h"

namespace soak
{
namespace
{
using rmtest::PoolModel;

constexpr uint32_t kMostHeld = 40;

struct Pool {
    RmPool* pool = nullptr;
    PoolModel model;
    std::vector<PoolModel::Element> held;
};

Pool pools[2];  // the worker's own, and the shared one
int16_t tag = RM_NONE;

void get(Pool& pool)
{
    const uint32_t size = plan.below(600);
    const PoolModel::Got got = pool.model.get(size);
    void* const address = rm_getFromPool(size, pool.pool);
    SOAK_CHECK(address != nullptr && reinterpret_cast<uintptr_t>(address) % sizeof(void*) == 0,
               "an element of %u bytes stands at %p", size, address);
    PoolModel::Element element = got.element;
    if (got.kind == PoolModel::kRecycled) {
        SOAK_CHECK(address == element.address, "not the element that came back last");
        SOAK_CHECK(isFilled(address, element.written, element.seed),
                   "a free element of %u bytes was changed", element.room);
    } else {
        element = {address, PoolModel::roomFor(size), 0, 0};
    }
    element.seed = plan.below(UINT32_MAX);
    element.written = size;
    fill(address, size, element.seed);
    pool.held.push_back(element);
}

void put(Pool& pool)
{
    const uint32_t index = plan.below(static_cast<uint32_t>(pool.held.size()));
    const PoolModel::Element element = pool.held[index];
    SOAK_CHECK(isFilled(element.address, element.written, element.seed),
               "an element of %u bytes was changed", element.room);
    SOAK_CHECK(rm_putInPool(element.address, pool.pool) == 0, "an element does not go back");
    pool.held[index] = pool.held.back();
    pool.held.pop_back();
    pool.model.put(element);
}

void renew()
{
    Pool& pool = pools[0];
    while (!pool.held.empty()) {
        put(pool);
    }
    SOAK_CHECK(rm_zFreePool(&pool.pool) == 0 && pool.pool == nullptr, "a pool is not freed");
    pool = {rm_allocPool(plan.below(50), tag, nullptr, 0), {}, {}};
}

void start()
{
    tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_setTagName("pools", tag);
    pools[0] = {rm_allocPool(10, tag, nullptr, 0), {}, {}};
    pools[1] = {sharedPool, {}, {}};
}

void step()
{
    Pool& pool = pools[plan.below(2)];
    if (plan.once(200)) {
        renew();
    } else if (pool.held.empty() || (pool.held.size() < kMostHeld && plan.once(2))) {
        get(pool);
    } else {
        put(pool);
    }
}

void check()
{
    for (const Pool& pool : pools) {
        for (const PoolModel::Element& element : pool.held) {
            SOAK_CHECK(isFilled(element.address, element.written, element.seed),
                       "an element of %u bytes was changed", element.room);
        }
    }
}

// The shared pool is not freed: its lock is everybody's.
void end()
{
    for (Pool& pool : pools) {
        while (!pool.held.empty()) {
            put(pool);
        }
    }
    rm_zFreePool(&pools[0].pool);
    rm_freeTagMemory(tag, 1);
}
}  // namespace

const Family kPools = {"pools", 100, start, step, check, end, false};

}  // namespace soak
