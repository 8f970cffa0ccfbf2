// The state behind a MyMatchMarkClass_update: its settings, its marker library with the
// observations recorded for the optimiser, and the results of the last registration.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "MarkerLibrary.h"
#include "Registration.h"
#include "quill/MyMatchMarkClass_update.h"

namespace Quill::detail {

// One sighting of a library marker: frame number and the marker's position in that frame.
struct Observation {
    int frame;
    int marker;
    Eigen::Vector3d local;
};

struct MatcherState {
    MatchSettings settings;
    MarkerLibrary lib;
    std::vector<Observation> obs;

    int status = kMatchNotRun;
    Eigen::Matrix4d transform = Eigen::Matrix4d::Identity();
    int matchN = 0;
    float err = 0.0f;
    std::vector<int> flags;

    void clearResult() {
        status = kMatchNotRun;
        transform.setIdentity();
        matchN = 0;
        err = 0.0f;
        flags.clear();
    }
    // Stores a registration's outcome as this matcher's result; flags are expressed in the
    // caller's indexing (`toCaller` maps library ids, nullptr for identity).
    void storeResult(const RegistrationResult& r, const MovingSet& mv,
                     const std::vector<int>* toCaller);
};

}  // namespace Quill::detail
