#include "HashGrid.h"

#include <utility>

namespace Quill::detail {

void HashGrid::reset(double cell) {
    cell_ = cell > 1e-6 ? cell : 1e-6;
    inv_ = 1.0 / cell_;
    used_ = 0;
    keys_.assign(64, kEmpty);
    heads_.assign(64, -1);
    next_.clear();
}

void HashGrid::reserve(std::size_t n) {
    while (keys_.size() < 2 * n + 2) {
        grow();
    }
    next_.reserve(n);
}

std::size_t HashGrid::find(std::uint64_t key) const {
    const std::size_t mask = keys_.size() - 1;
    for (std::size_t s = hash(key) & mask;; s = (s + 1) & mask) {
        if (keys_[s] == key) {
            return s;
        }
        if (keys_[s] == kEmpty) {
            return kNone;
        }
    }
}

std::size_t HashGrid::findOrAdd(std::uint64_t key) {
    if ((used_ + 1) * 2 > keys_.size()) {
        grow();
    }
    const std::size_t mask = keys_.size() - 1;
    for (std::size_t s = hash(key) & mask;; s = (s + 1) & mask) {
        if (keys_[s] == key) {
            return s;
        }
        if (keys_[s] == kEmpty) {
            keys_[s] = key;
            heads_[s] = -1;
            ++used_;
            return s;
        }
    }
}

void HashGrid::grow() {
    std::vector<std::uint64_t> oldKeys(keys_.size() * 2, kEmpty);
    std::vector<int> oldHeads(keys_.size() * 2, -1);
    oldKeys.swap(keys_);
    oldHeads.swap(heads_);
    const std::size_t mask = keys_.size() - 1;
    for (std::size_t i = 0; i < oldKeys.size(); ++i) {
        if (oldKeys[i] == kEmpty) {
            continue;
        }
        std::size_t s = hash(oldKeys[i]) & mask;
        while (keys_[s] != kEmpty) {
            s = (s + 1) & mask;
        }
        keys_[s] = oldKeys[i];
        heads_[s] = oldHeads[i];
    }
}

void HashGrid::insert(int id, const Eigen::Vector3d& p) {
    if (id < 0) {
        return;
    }
    const auto uid = static_cast<std::size_t>(id);
    if (next_.size() <= uid) {
        next_.resize(uid + 1, -1);
    }
    const std::size_t s = findOrAdd(keyOf(p));
    next_[uid] = heads_[s];
    heads_[s] = id;
}

void HashGrid::remove(int id, const Eigen::Vector3d& p) {
    const std::size_t s = find(keyOf(p));
    if (s == kNone) {
        return;
    }
    int* link = &heads_[s];
    while (*link >= 0) {
        if (*link == id) {
            *link = next_[static_cast<std::size_t>(id)];
            next_[static_cast<std::size_t>(id)] = -1;
            return;
        }
        link = &next_[static_cast<std::size_t>(*link)];
    }
}

void HashGrid::move(int id, const Eigen::Vector3d& from, const Eigen::Vector3d& to) {
    if (keyOf(from) == keyOf(to)) {
        return;
    }
    remove(id, from);
    insert(id, to);
}

std::size_t HashGrid::memoryBytes() const {
    return keys_.capacity() * sizeof(std::uint64_t) + heads_.capacity() * sizeof(int) +
           next_.capacity() * sizeof(int);
}

}  // namespace Quill::detail
