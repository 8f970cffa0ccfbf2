#include "helmsman/DeviceTypes.h"

#include <cstring>
#include <new>

namespace device {

// ---------------------------------------------------------------------------------------------
// tagDeviceInfo
// ---------------------------------------------------------------------------------------------

std::string tagDeviceInfo::serialText() const {
    size_t n = 0;
    while (n < sizeof(serial) && serial[n] != '\0') {
        ++n;
    }
    return std::string(serial, n);
}

void tagDeviceInfo::setSerial(const std::string& id) {
    std::memset(serial, 0, sizeof(serial));
    std::memcpy(serial, id.data(), id.size() < sizeof(serial) ? id.size() : sizeof(serial));
}

// ---------------------------------------------------------------------------------------------
// tagDeviceInfoList
// ---------------------------------------------------------------------------------------------

tagDeviceInfoList::tagDeviceInfoList(int32_t n) {
    if (n <= 0) {
        return;
    }
    // The count comes from the device list the SDK holds in memory, not from the wire; an
    // allocation failure still leaves a valid empty list rather than an exception.
    infos = new (std::nothrow) tagDeviceInfo[static_cast<size_t>(n)];
    count = infos != nullptr ? n : 0;
}

tagDeviceInfoList::~tagDeviceInfoList() {
    delete[] infos;
}

// ---------------------------------------------------------------------------------------------
// tagDeviceCamera
// ---------------------------------------------------------------------------------------------

void tagDeviceCamera::clear() {
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            leftIntrinsic[r][c] = 0.0;
            rightIntrinsic[r][c] = 0.0;
            rotation[r][c] = 0.0;
        }
        translation[r] = 0.0;
        translationRight[r] = 0.0;
        translationLeft[r] = 0.0;
    }
    leftDistortion.clear();
    rightDistortion.clear();
    rotationRight.clear();
    rotationLeft.clear();
    essential.clear();
    fundamental.clear();
    images.clear();
}

// ---------------------------------------------------------------------------------------------
// tagDeviceData
// ---------------------------------------------------------------------------------------------

tagDeviceData::tagDeviceData() {
    resetScalars();
}

tagDeviceData::~tagDeviceData() {
    clear();
}

void tagDeviceData::resetScalars() {
    frameId = 0;
    percentage = 0;
    liveFrame = false;
    trackingScanner = false;
    acquisitionCode = 0;
    objectDistance = 0.0f;
    poseMode = kDefaultPoseMode;
    timestampMs = 0;
    for (double& v : rotation) {
        v = 0.0;
    }
    for (double& v : translation) {
        v = 0.0;
    }
}

void tagDeviceData::clear() {
    resetScalars();
    scanPoints.clear();
    scanNormals.clear();
    laserSegmentIds.clear();
    laserPoints.clear();
    laserDirections.clear();
    laserPointCounts.clear();
    markerIds.clear();
    markerPoints.clear();
    markerNormals.clear();
    markerDiameters.clear();
    edgePoints.clear();
    edgeNormals.clear();
    laserLines.clear();
    camera.clear();
    holes.clear();
    cameraImages.clear();
    lookMarkpoints.clear();
    cuttingEdges.clear();
    trackingMatrices.clear();
    scanHoles.clear();
    edgeRecords.clear();
}

}  // namespace device
