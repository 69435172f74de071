/*
 * row_set: which rows of a table were seen, a bit each.
 */
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace kolmo
{

/* Row numbers are as good as dense after a rebuild; where they are not, each block costs 128 bytes. */
class RowSet
{
public:
    void add(std::int64_t row) { blocks_[row >> block_bits].set(offset(row)); }

    [[nodiscard]] bool has(std::int64_t row) const
    {
        const auto found = blocks_.find(row >> block_bits);

        return found != blocks_.end() && found->second.test(offset(row));
    }

private:
    static constexpr int block_bits = 10;
    static constexpr std::size_t block_size = std::size_t{1} << block_bits;

    static std::size_t offset(std::int64_t row) { return static_cast<std::size_t>(row) % block_size; }

    std::unordered_map<std::int64_t, std::bitset<block_size>> blocks_;
};

} // namespace kolmo
