#include "VoxelCloud.h"

#include <algorithm>
#include <cmath>

namespace view {

namespace {

constexpr uint64_t kEmpty = ~uint64_t{0};         // no block: keys use 63 bits
constexpr int64_t kHalfRange = int64_t{1} << 20;  // 0.5 mm voxels: +-524 m

}  // namespace

VoxelSet::VoxelSet() {
    clear();
}

void VoxelSet::clear() {
    m_bits = 10;
    m_keys.assign(size_t{1} << m_bits, kEmpty);
    m_slots.assign(size_t{1} << m_bits, 0);
    m_blocks.clear();
    m_lastKey = kEmpty;
    m_size = 0;
}

bool VoxelSet::insert(int64_t x, int64_t y, int64_t z) {
    const uint64_t key = (uint64_t((x >> 3) + kHalfRange) << 42) |
                         (uint64_t((y >> 3) + kHalfRange) << 21) | uint64_t((z >> 3) + kHalfRange);
    if (key != m_lastKey) {
        m_lastBlock = static_cast<size_t>(block(key) - m_blocks.data());
        m_lastKey = key;
    }
    const unsigned bit = unsigned(x & 7) | unsigned(y & 7) << 3 | unsigned(z & 7) << 6;
    uint64_t& word = m_blocks[m_lastBlock + bit / 64];
    const uint64_t mask = uint64_t{1} << (bit % 64);
    if (word & mask) {
        return false;
    }
    word |= mask;
    ++m_size;
    return true;
}

// The block of `key`, made empty when it is new.
uint64_t* VoxelSet::block(uint64_t key) {
    const size_t mask = m_keys.size() - 1;
    size_t i = (key * 0x9E3779B97F4A7C15ull) >> (64 - m_bits);
    while (m_keys[i] != key && m_keys[i] != kEmpty) {
        i = (i + 1) & mask;
    }
    if (m_keys[i] == kEmpty) {
        m_keys[i] = key;
        m_slots[i] = static_cast<uint32_t>(m_blocks.size());
        m_blocks.resize(m_blocks.size() + 8, 0);
        if (m_blocks.size() / 8 * 2 > m_keys.size()) {
            const size_t at = m_slots[i];
            grow();
            return &m_blocks[at];
        }
    }
    return &m_blocks[m_slots[i]];
}

void VoxelSet::grow() {
    std::vector<uint64_t> keys;
    std::vector<uint32_t> slots;
    keys.swap(m_keys);
    slots.swap(m_slots);
    ++m_bits;
    m_keys.assign(size_t{1} << m_bits, kEmpty);
    m_slots.assign(size_t{1} << m_bits, 0);
    const size_t mask = m_keys.size() - 1;
    for (size_t j = 0; j < keys.size(); ++j) {
        if (keys[j] == kEmpty) {
            continue;
        }
        size_t i = (keys[j] * 0x9E3779B97F4A7C15ull) >> (64 - m_bits);
        while (m_keys[i] != kEmpty) {
            i = (i + 1) & mask;
        }
        m_keys[i] = keys[j];
        m_slots[i] = slots[j];
    }
}

int VoxelCloud::levelOf(double mm) {
    for (int level = 0; level < kLevels; ++level) {
        if (mm == voxelMm(level)) {
            return level;
        }
    }
    return -1;
}

size_t VoxelCloud::size(int level) const {
    return level == 0 ? m_points.size() / 3 : m_levels[level].size();
}

void VoxelCloud::clear() {
    for (int level = 0; level < kLevels; ++level) {
        m_sets[level].clear();
        m_levels[level].clear();
    }
    m_points.clear();
    m_normals.clear();
}

void VoxelCloud::add(const float* xyz, const float* normals, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const float* p = xyz + 3 * i;
        int64_t cell[3];
        bool inside = true;
        for (int k = 0; k < 3; ++k) {
            // Times two is exact in floating point, so a cell is floor(p / 0.5 mm) exactly.
            const float c = std::floor(p[k] * 2.0f);
            inside = inside && std::fabs(c) < static_cast<float>(kHalfRange);  // false for NaN
            cell[k] = inside ? static_cast<int64_t>(c) : 0;
        }
        if (!inside || !m_sets[0].insert(cell[0], cell[1], cell[2])) {
            continue;
        }
        const uint32_t index = static_cast<uint32_t>(m_points.size() / 3);
        if (index == 0) {
            m_lowZ = m_highZ = p[2];
        }
        m_lowZ = std::fmin(m_lowZ, p[2]);
        m_highZ = std::fmax(m_highZ, p[2]);
        m_points.insert(m_points.end(), p, p + 3);
        for (int k = 0; k < 3; ++k) {
            const float n = normals ? std::max(-1.0f, std::min(1.0f, normals[3 * i + k])) : 0.0f;
            m_normals.push_back(static_cast<int8_t>(127.0f * n + (n < 0 ? -0.5f : 0.5f)));
        }
        // floor(floor(2p) / 2^level) = floor(2p / 2^level): the coarser cell, exactly. Where a
        // voxel holds a point already, so do the coarser ones around it.
        for (int level = 1; level < kLevels; ++level) {
            if (!m_sets[level].insert(cell[0] >> level, cell[1] >> level, cell[2] >> level)) {
                break;
            }
            m_levels[level].push_back(index);
        }
    }
}

}  // namespace view
