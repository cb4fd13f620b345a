#include "mail/sqlite_memory.h"

#include <sqlite3.h>

#include <array>
#include <bit>
#include <boost/pool/pool.hpp>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

namespace corvo::mail {

namespace {

using Pool = boost::pool<boost::default_user_allocator_malloc_free>;

constexpr std::size_t SMALLEST = 32;  // bytes
constexpr std::size_t ALIGNMENT = 8;  // what SQLite needs

using Pools = std::array<Pool, 6>;

// Each with blocks of twice the size of those before. Never destroyed: a connection that is open
// when the process ends still has its blocks.
Pools& pools() noexcept {
    alignas(Pools) static std::byte storage[sizeof(Pools)];
    static auto& all =
        *::new (storage) Pools{Pool(SMALLEST),     Pool(SMALLEST * 2),  Pool(SMALLEST * 4),
                               Pool(SMALLEST * 8), Pool(SMALLEST * 16), Pool(SMALLEST * 32)};
    return all;
}

// Stands before each block that SQLite gets.
struct alignas(ALIGNMENT) Header {
    std::size_t length;  // with the header
};

Header* headerOf(void* block) noexcept {
    return static_cast<Header*>(block) - 1;
}

// Null for a length that no pool has.
Pool* poolFor(std::size_t length) noexcept {
    const auto index = static_cast<std::size_t>(std::bit_width((length - 1) / SMALLEST));
    return index < pools().size() ? &pools()[index] : nullptr;
}

std::size_t lengthFor(int size) noexcept {
    return sizeof(Header) + static_cast<std::size_t>(size);
}

// What SQLite gets of `memory`, which has that length; null for null.
void* blockIn(void* memory, std::size_t length) noexcept {
    return memory != nullptr ? ::new (memory) Header{length} + 1 : nullptr;
}

void* allocate(int size) noexcept {
    const std::size_t length = lengthFor(size);
    Pool* const pool = poolFor(length);
    return pool != nullptr ? blockIn(pool->malloc(), pool->get_requested_size())
                           : blockIn(std::malloc(length), length);
}

void release(void* block) noexcept {
    Header* const header = headerOf(block);
    if (Pool* const pool = poolFor(header->length); pool != nullptr)
        pool->free(header);
    else
        std::free(header);
}

int sizeOf(void* block) noexcept {
    return static_cast<int>(headerOf(block)->length - sizeof(Header));
}

void* move(void* block, int size) noexcept {
    void* const larger = allocate(size);
    if (larger == nullptr)
        return nullptr;
    std::memcpy(larger, block, static_cast<std::size_t>(sizeOf(block)));
    release(block);
    return larger;
}

void* reallocate(void* block, int size) noexcept {
    if (size <= sizeOf(block))
        return block;
    Header* const header = headerOf(block);
    if (poolFor(header->length) != nullptr)
        return move(block, size);
    return blockIn(std::realloc(header, lengthFor(size)), lengthFor(size));
}

int roundUp(int size) noexcept {
    constexpr int PADDING = ALIGNMENT - 1;
    return (size + PADDING) & ~PADDING;
}

int begin(void* /*unused*/) noexcept {
    return SQLITE_OK;
}

void end(void* /*unused*/) noexcept {}

}  // namespace

bool poolSqliteMemory() noexcept {
    static const sqlite3_mem_methods methods = {allocate, release, reallocate, sizeOf,
                                                roundUp,  begin,   end,        nullptr};
    static const bool isPooled = sqlite3_config(SQLITE_CONFIG_MALLOC, &methods) == SQLITE_OK;
    return isPooled;
}

}  // namespace corvo::mail
