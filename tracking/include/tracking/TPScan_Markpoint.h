// Marker-point tracking of the device module.
//
// CTPScan_Markpoint keeps the reference library of marker points (targets fixed on the
// measured part) and registers the markers of scan frames against it:
//
//   - library building: frames are added one by one (addOneFrameToLibrary) to a real-time
//     matcher that grows the library; getResultData reads it back globally optimised;
//   - a known marker set can be installed instead (importMarkpointToLibrary), and kept as the
//     reference set that static and dynamic tracking register against;
//   - static tracking (SetTrackStatic): buffers frames of a scanner held still, builds and
//     optimises a small model from them and registers it against the reference set;
//   - dynamic tracking (SetTrackDynamic): registers one frame against the reference set;
//   - splicing (MarkPointSplit, realtimeSpliceMarkpoint): one marker set onto another.
//
// Results are signed counts: 0 nothing to do yet, -1 failure (-2 for a failed splice
// registration), a positive match count on success. No exception leaves this class.
//
// Threads: addOneFrameToLibrary, clearLibrary, freeLibrary, getResultData and
// libraryMarkerCount serialise their use of the library matcher on one (non-recursive) mutex.
// importMarkpointToLibrary and initLibrary take no lock and must not run while a frame is
// being added. SetTrackStatic uses the optimiser without the lock and must not run at the same
// time as getResultData.
// SetTrackDynamic, MarkPointSplit and realtimeSpliceMarkpoint use matchers of their own.
// The reference set is swapped whole under its own mutex, so importing a new one while a
// frame is tracked on another thread is safe.
//
// Transforms exchanged as 16 doubles use one layout (called the TranRT layout below): the
// rotation block row by row in elements 0-2, 4-6, 8-10, the translation in 12-14, elements
// 3, 7, 11 zero and element 15 one.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include <Eigen/Core>

#include "helmsman/DeviceTypes.h"
#include "sdk/Records.h"

namespace Quill {
class MyRealTimeMarkMatch_class;
class MyMatchMarkClass_update;
class MarkOpt_class;
struct mark_data;
struct mcXYZ_Nor_s;
}  // namespace Quill

class CTPScan_Markpoint {
public:
    // Fills the fields with their defaults; creates no library (see initLibrary).
    CTPScan_Markpoint();
    // Frees the library, then releases the optimiser.
    ~CTPScan_Markpoint();
    CTPScan_Markpoint(const CTPScan_Markpoint&) = delete;
    CTPScan_Markpoint& operator=(const CTPScan_Markpoint&) = delete;

    // --- reference library ---

    // Creates and configures the library matcher and the optimiser, and switches real-time
    // update on. Called once, before any other thread can reach the object.
    void initLibrary();

    // Installs `set`. With keepOpen false the set becomes the library's fixed global marker
    // set (getResultData then delivers nothing until clearLibrary); with keepAsReference true
    // it is also kept as the reference set of static and dynamic tracking, and real-time
    // update is switched off. Always returns false, also after a successful import.
    bool importMarkpointToLibrary(const device::tagRefMarkpointData& set, bool keepAsReference,
                                  bool keepOpen);

    // Registers the frame's markers with the library. Returns 0 for a frame with fewer than 5
    // markers (nothing touched), -1 without a library or when nothing matched, else the match
    // count (returnMatchCount) or the number of markers written to `out`. On success `out` is
    // replaced by the frame's markers in the library's frame and `rt` holds the inverse of the
    // frame-to-library transform: rt[c][r] = M(r, c), rt[3] the translation.
    int addOneFrameToLibrary(SDK_NV::tagScanData& frame, device::tagRefMarkpointData& out,
                             double rt[4][3], bool returnMatchCount);
    // Convenience form with the full form's result: on success writes rt[0] into rt16[0..2]
    // and rt[3] into rt16[4..6]; no other element of rt16 is written. A null rt16 is looked
    // at only there (the frame is still registered).
    int addOneFrameToLibrary(SDK_NV::tagScanData& frame, double* rt16);

    // Drops the library and starts an empty, open one. The new matcher keeps its own flag
    // defaults until the next flag push. Always returns true.
    bool clearLibrary();
    // Drops the library; every library operation fails until clearLibrary. Returns whether
    // the matcher released anything; false when there was no library.
    bool freeLibrary();
    // Markers the library holds now (0 without a library).
    int libraryMarkerCount();
    // The globally optimised library: positions, normals, values and, as labels, each
    // marker's index in the optimiser's list (with gaps where markers were left out).
    // False without a library, while the library is fixed, or when the optimisation fails.
    bool getResultData(device::tagRefMarkpointData& out);

    // --- tracking against the reference set ---

    // Buffers still frames; every 100th frame once 50 are buffered builds a model from them
    // and registers it with the reference set. 0: buffered; -1: evaluation failed (the buffer
    // is emptied); positive: match count, with rt16 holding the transform that maps the
    // reference frame into the frame's (TranRT layout of the inverse of the registration).
    // A malformed frame (marker arrays shorter than the label array, no validity array) or a
    // null rt16 gives -1 for that call alone: the frame is skipped, the buffered frames and
    // the count towards the next evaluation stay as they were, rt16 is not written.
    int SetTrackStatic(SDK_NV::tagScanData& frame, double* rt16);
    // Registers the frame with the reference set. 0 on success: the matched markers are
    // appended to `out` (never emptied first) in the reference frame, labelled with their
    // reference index, and rt16 holds the frame-to-reference transform (TranRT layout).
    // -1 on failure, nothing written.
    int SetTrackDynamic(SDK_NV::tagScanData& frame, device::tagRefMarkpointData& out, double* rt16);
    // Registers `moving` onto `fixed`; 3 matched markers suffice. 0 with rt16 in the TranRT
    // layout, or -1 with nothing written.
    int MarkPointSplit(const device::tagRefMarkpointData& moving,
                       const device::tagRefMarkpointData& fixed, double* rt16);

    // --- splicing onto a caller's model ---

    // Registers the observed markers onto `model`. On success `model` is replaced by the
    // matched markers (labelled with their index in the old model), `added` by the new ones
    // (labelled from the old model's count minus one upwards), both in the model's frame,
    // and `rt` holds the inverse of the observation-to-model transform (rt[3] the
    // translation). Returns the number of matched markers, -1 when the model or the
    // observation is empty (or the arrays disagree), -2 when the registration fails; on
    // failure nothing is written.
    int realtimeSpliceMarkpoint(const std::vector<float>& positions,
                                const std::vector<float>& normals, const std::vector<float>& values,
                                const std::vector<int>& labels, device::tagRefMarkpointData& model,
                                device::tagRefMarkpointData& added, double rt[4][3]);

private:
    friend struct CTPScan_MarkpointAccess;  // white-box access for the unit tests

    void InitMarkPointObject(Quill::MyRealTimeMarkMatch_class* matcher);
    static void InitMarkPointUpdateObject(Quill::MyMatchMarkClass_update* matcher);
    std::shared_ptr<Quill::MyMatchMarkClass_update> CreateMarkPointUpdate();
    bool setTrackMarkpoint(const bool& track);
    void pushFlagGroup();

    static bool Frame2MarkPoint(const SDK_NV::tagScanData& frame,
                                std::vector<Quill::mark_data>& marks, int& frameValue,
                                bool skipCameraBlock);
    static void PushData2RefrenceMarkPoint(const Quill::mark_data& mark,
                                           device::tagRefMarkpointData& out, bool transform,
                                           const Eigen::Matrix4d& T);
    // Normals stay unknown (zero) unless withNormals.
    static bool RefrenceMarkPoint2MarkPoint(const device::tagRefMarkpointData& set,
                                            std::vector<Quill::mark_data>& marks,
                                            bool withNormals = false);
    // Only the records with a label of 0 or more (the optimiser's real markers).
    static void MarkOptToMarkPoint(const Quill::mcXYZ_Nor_s* records, int count,
                                   std::vector<Quill::mark_data>& marks);
    // Static tracking's step rule: consecutive buffered frames more than 3.0 apart.
    static bool staticStepTooLarge(const Eigen::Vector3d& previous, const Eigen::Vector3d& current);
    static void TranRT(const Eigen::Matrix4d& T, double* rt16);
    static Eigen::Matrix4d TranBackRT(const Eigen::Matrix4d& T);

    int evaluateStatic(double* rt16);

    // The reference set of static and dynamic tracking with its matcher index, built once per
    // import and never changed afterwards: a frame works on the snapshot it took, while an
    // import on another thread installs the next one.
    struct ReferenceSet;
    std::shared_ptr<const ReferenceSet> referenceSnapshot();

    std::unique_ptr<Quill::MyRealTimeMarkMatch_class> match;  // null: no library
    std::unique_ptr<Quill::MarkOpt_class> optimizer;          // from initLibrary to the end
    int32_t camCount = 1;
    std::deque<SDK_NV::tagScanData> frameQueue;  // static tracking only, at most 50 frames
    int32_t staticCounter = 0;                   // static tracking only
    // Flags are atomic: the host's command threads set them while the scan-frame thread runs.
    std::atomic<bool> realTimeUpdate{false};
    std::atomic<bool> libraryOpen{true};
    std::shared_ptr<const ReferenceSet> reference;  // under referenceMutex; never null
    std::mutex referenceMutex;
    int32_t imageWidth = 2448;
    int32_t imageHeight = 2048;
    std::atomic<bool> cleared{false};  // set by clearLibrary, read by nobody
    std::mutex mutex;
};
