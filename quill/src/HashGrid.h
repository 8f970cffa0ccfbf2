// A spatial hash grid over integer ids: cubic cells of a fixed size, stored in an
// open-addressing table; the ids of one cell form a singly linked list through `next_`.
// Inserting, moving and removing a point cost O(1) (plus the length of its cell's list),
// so the grid grows with the library instead of being rebuilt.
#pragma once

#include <Eigen/Core>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Quill::detail {

class HashGrid {
public:
    explicit HashGrid(double cell = 1.0) { reset(cell); }

    void reset(double cell);
    // Makes room for about n occupied cells without regrowing.
    void reserve(std::size_t n);
    double cell() const { return cell_; }
    void insert(int id, const Eigen::Vector3d& p);
    void remove(int id, const Eigen::Vector3d& p);
    // Moves `id` from `from` to `to` (cheap when the cell does not change).
    void move(int id, const Eigen::Vector3d& from, const Eigen::Vector3d& to);

    // Calls f(id) for every id stored in a cell that meets the cube of half-size r around p.
    // The caller tests the actual distance.
    template <class F>
    void forEachNear(const Eigen::Vector3d& p, double r, F&& f) const {
        if (used_ == 0) {
            return;
        }
        const std::int64_t x0 = coord(p.x() - r), x1 = coord(p.x() + r);
        const std::int64_t y0 = coord(p.y() - r), y1 = coord(p.y() + r);
        const std::int64_t z0 = coord(p.z() - r), z1 = coord(p.z() + r);
        for (std::int64_t x = x0; x <= x1; ++x) {
            for (std::int64_t y = y0; y <= y1; ++y) {
                for (std::int64_t z = z0; z <= z1; ++z) {
                    const std::size_t s = find(pack(x, y, z));
                    if (s == kNone) {
                        continue;
                    }
                    for (int id = heads_[s]; id >= 0; id = next_[static_cast<std::size_t>(id)]) {
                        f(id);
                    }
                }
            }
        }
    }

    std::size_t memoryBytes() const;

private:
    static constexpr std::size_t kNone = ~static_cast<std::size_t>(0);
    static constexpr std::uint64_t kEmpty = ~static_cast<std::uint64_t>(0);

    std::int64_t coord(double v) const {
        double c = std::floor(v * inv_);
        // Coordinates beyond about a million cells share the border cell; the caller's
        // distance test keeps results correct.
        if (c < -1048575.0)
            c = -1048575.0;
        if (c > 1048575.0)
            c = 1048575.0;
        return static_cast<std::int64_t>(c);
    }
    static std::uint64_t pack(std::int64_t x, std::int64_t y, std::int64_t z) {
        const std::uint64_t m = (1u << 21) - 1u;
        return ((static_cast<std::uint64_t>(x + 1048576) & m) << 42) |
               ((static_cast<std::uint64_t>(y + 1048576) & m) << 21) |
               (static_cast<std::uint64_t>(z + 1048576) & m);
    }
    static std::size_t hash(std::uint64_t k) {
        k ^= k >> 33;
        k *= 0xff51afd7ed558ccdULL;
        k ^= k >> 33;
        k *= 0xc4ceb9fe1a85ec53ULL;
        k ^= k >> 33;
        return static_cast<std::size_t>(k);
    }
    std::size_t find(std::uint64_t key) const;
    std::size_t findOrAdd(std::uint64_t key);
    void grow();
    std::uint64_t keyOf(const Eigen::Vector3d& p) const {
        return pack(coord(p.x()), coord(p.y()), coord(p.z()));
    }

    double cell_ = 1.0;
    double inv_ = 1.0;
    std::size_t used_ = 0;
    std::vector<std::uint64_t> keys_;
    std::vector<int> heads_;
    std::vector<int> next_;
};

}  // namespace Quill::detail
