// Entry points of the scan pipeline: the scan-frame handler, the transfer matrices, holes and
// edges, the scan options and the marker commands.
//
// NOT IMPLEMENTED YET. The scan pipeline comes in a later change; until then the frame handler
// drops every frame and the operations answer RESULT_NOT_SUPPORTED without sending anything.
// SendMatrix is complete for what the rest of the module needs today (identity for every
// tracker): nothing fills the transfer-matrix table yet.
#include "device/Pathfinder.h"
#include "sdk/TPWrapper.h"

namespace device {

void CPathfinder::CallBack_ScanData(void* /*pScanData*/, bool /*bFlag*/) {
    // Not implemented yet: the frame is dropped.
}

void CPathfinder::SendMatrix(bool /*bIdentity*/) {
    if (m_pScanWrapper == nullptr) {
        return;
    }
    static const std::vector<double> kIdentity = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    SDK_NV::tagTransformMatrix record;
    for (const std::string& id : m_pScanWrapper->getTPDeviceManager()->getTracker()) {
        record.m_mapTransform[id] = kIdentity;
    }
    // The per-tracker matrices of the table (bIdentity false) come with the scan pipeline.
    m_pScanWrapper->setTransforRT(record);
}

emDeviceResult CPathfinder::getTransferMatrix() {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CPathfinder::emptyTransferMatrix() {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CPathfinder::setSuperConversionScanMatrix(const std::vector<double>& /*matrix*/) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CPathfinder::importCascadeFile(const std::wstring& /*path*/) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CPathfinder::setFineHoleData(const std::vector<tagScanHoleData>& /*holes*/) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CPathfinder::setCuttingEdgeData(const std::vector<tagCuttingEdgeData>& /*edges*/) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CPathfinder::SetEnableScanExpand(bool /*enable*/) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CPathfinder::SetTrackerMarkPointDiameter(std::vector<float> /*diameters*/) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CPathfinder::setMarkpoint(const tagMarkpointList& /*list*/, bool /*asReference*/) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CPathfinder::setMarkpointRadius(const double* /*radii*/, int /*count*/) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CPathfinder::setMarkpointDiameter(std::vector<float> /*diameters*/) {
    return RESULT_NOT_SUPPORTED;
}

emDeviceResult CPathfinder::GetOptimizationMarkpoint(tagRefMarkpointData& /*out*/) {
    return RESULT_NOT_SUPPORTED;
}

}  // namespace device
