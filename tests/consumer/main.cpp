// A host project outside the tree, built against an installed prefix (scripts/package-check.sh,
// scripts/windows-check.sh): the installed module starts its console, a few scan frames arrive
// with the scanner pose, and the module ends the console again. Exit code 0 when all did.
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "device/Pathfinder.h"
#if __has_include("host/Files.h")
#include "host/Files.h"  // the host library, where it is installed
#endif

int main() {
    constexpr int kFrames = 5;
    std::atomic<int> frames{0};
    std::atomic<bool> posesRigid{true};
    device::CPathfinder dev;
    device::tagDeviceHandlers handlers;
    handlers.onDeviceData = [&](const std::shared_ptr<device::tagDeviceData>& d, const char*, int) {
        if (!d || d->laserPoints.empty() || frames.load() >= kFrames) {
            return;
        }
        const double* R = d->rotation;
        const double* t = d->translation;
#if __has_include("host/Files.h")
        host::TransferMatrix pose;  // the rotation in a matrix's block, for the rigidity test
        for (int i = 0; i < 9; ++i) {
            pose.matrix[4 * (i / 3) + i % 3] = R[i];
        }
        const host::MatrixCheck check = host::checkTransferMatrix(pose);
        const double det = check.determinant;
        posesRigid = posesRigid && check.rigid && det > 0.0;
#else
        const double det = R[0] * (R[4] * R[8] - R[5] * R[7]) - R[1] * (R[3] * R[8] - R[5] * R[6]) +
                           R[2] * (R[3] * R[7] - R[4] * R[6]);
        posesRigid = posesRigid && std::fabs(det - 1.0) < 1e-6;
#endif
        std::printf("frame %d: %zu laser points, pose t = (%.1f, %.1f, %.1f) mm, det R = %.6f\n",
                    d->frameId, d->laserPoints.size() / 3, t[0], t[1], t[2], det);
        ++frames;
    };
    dev.setHandlers(handlers);
    if (dev.init() != device::RESULT_SUCCESS) {
        std::printf("init() failed\n");
        return 1;
    }
    std::shared_ptr<device::tagDeviceInfoList> list;
    for (int i = 0, count = 0; i < 100 && !(list && list->count > 0); ++i) {
        dev.getDeviceInfo(&count, &list);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::vector<std::string> ids;
    for (int32_t k = 0; list && k < list->count; ++k) {
        ids.push_back(list->infos[k].serialText());
    }
    if (ids.empty() || dev.setWorkingDevice(ids) != device::RESULT_SUCCESS ||
        dev.setScanObject(device::SCAN_OBJECT_SURFACE, true) != device::RESULT_SUCCESS ||
        dev.controlLaserOn() != device::RESULT_SUCCESS) {
        std::printf("no scan: %zu devices\n", ids.size());
        return 1;
    }
    for (int i = 0; i < 200 && frames.load() < kFrames; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    dev.controlLaserOff();
    dev.clear();  // ends the console that init() started
    std::printf("%d frames from %zu devices, poses %s\n", frames.load(), ids.size(),
                posesRigid ? "rigid" : "NOT rigid");
    return frames.load() >= kFrames && posesRigid ? 0 : 1;
}
