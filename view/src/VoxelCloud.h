// The cloud as the pages see it: the scan's points thinned by voxel grids of 0.5, 1, 2, 4 and
// 8 mm, each voxel shown by the first point that fell into it.
//
// The grids are nested (a coarser voxel is 2 x 2 x 2 finer ones, all aligned at the origin), so
// the first point of a coarse voxel is also the first of one of its fine voxels: only the points
// that open a new 0.5 mm voxel go on to the coarser grids, and every grid holds exactly what
// thinning all points at its size would give. Each grid keeps its points in the order they came,
// so a page is brought up to date by an index into its grid.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace view {

// A set of voxels (integer cells x, y, z, each within +-2^20). Voxels are kept in blocks of
// 8 x 8 x 8, a 512-bit mask each (one cache line), found by the block's key in a table with open
// addressing: the points of a laser line fall into the same block one after the other, so most
// insertions test one bit of the block before.
class VoxelSet {
public:
    VoxelSet();
    // True when the voxel was not there yet.
    bool insert(int64_t x, int64_t y, int64_t z);
    size_t size() const { return m_size; }
    void clear();

private:
    uint64_t* block(uint64_t key);
    void grow();

    std::vector<uint64_t> m_keys;    // block keys by slot (~0: empty)
    std::vector<uint32_t> m_slots;   // index of the slot's block
    std::vector<uint64_t> m_blocks;  // 8 words per block
    uint64_t m_lastKey = ~uint64_t{0};
    size_t m_lastBlock = 0;
    size_t m_size = 0;
    int m_bits = 0;
};

class VoxelCloud {
public:
    static constexpr int kLevels = 5;
    // The voxel size of a level: 0.5 mm * 2^level.
    static double voxelMm(int level) { return 0.5 * static_cast<double>(1 << level); }
    // The level of a voxel size (-1: not one of the grids).
    static int levelOf(double mm);

    // Adds points of the reference frame (x, y, z per point, mm), with their unit normals (x, y,
    // z per point; null: none). Points that are not finite or lie farther than 500 m from the
    // origin are left out.
    void add(const float* xyz, const float* normals, size_t count);
    void clear();

    // Points of a level's grid so far, and the i-th of them (an index into points()).
    size_t size(int level) const;
    uint32_t at(int level, size_t i) const { return level == 0 ? uint32_t(i) : m_levels[level][i]; }
    // Every point that opened a 0.5 mm voxel, x, y, z each.
    const std::vector<float>& points() const { return m_points; }
    // Their normals, each coordinate times 127 (0, 0, 0: none).
    const std::vector<int8_t>& normals() const { return m_normals; }
    float lowestZ() const { return m_lowZ; }
    float highestZ() const { return m_highZ; }

private:
    VoxelSet m_sets[kLevels];
    std::vector<uint32_t> m_levels[kLevels];  // level 0 is points() itself
    std::vector<float> m_points;
    std::vector<int8_t> m_normals;
    float m_lowZ = 0.0f;
    float m_highZ = 0.0f;
};

}  // namespace view
